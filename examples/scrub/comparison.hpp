// Compares what was read with what is recorded and has the verdicts reported, in the caller's
// thread. A file with wrong blocks waits for their second read; the run goes on meanwhile.
#ifndef SCRUB_COMPARISON_HPP
#define SCRUB_COMPARISON_HPP

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>

#include "manifest.hpp"
#include "pipeline.hpp"
#include "report.hpp"
#include "second_read.hpp"

namespace scrub {

// How a file that was read stood at its end.
struct Ending {
  std::uint64_t size = 0;
  timespec written{};
  String problem{}; // why it was not read to its end as one thing, empty where it was
  bool changed = false;
};

class Comparison {
public:
  Comparison(const std::string &root, Pipeline &pipeline, Report &report)
      : root_(root), pipeline_(pipeline), report_(report) {}

  // For a file that is read, in tasks: begin, the blocks, end.
  void begin(const FileRecord &recorded);
  void compare(std::span<const Checksums> expected, const Blocks &found);
  void end(const Ending &found);

  // For what is not.
  void missing(const FileRecord &recorded);
  void unreadable(const FileRecord &recorded, const String &why);
  void added(const String &path) { report_.added(path); }
  void skipped(const String &path, const String &why) { report_.skipped(path, why.c_str()); }

  // After the last task: waits for the second reads that are left.
  void finish();

  const Totals &read() const { return read_; }

private:
  // What is to be reported in its turn: blocks once they have been read again, then the ending of
  // their file.
  struct Waiting {
    FileRecord file;
    std::unique_ptr<SecondRead> second; // NULL: the ending
    Ending ending{};

    bool ready() const { return second == nullptr || second->done(); }
  };

  // Blocks of a file that have been reported.
  struct Verdicts {
    std::uint64_t lasting = 0;
    std::uint64_t passing = 0;
  };

  void read_again(Vector<Suspect> suspects);
  void report_ready();
  void report_first();
  void report_blocks(const FileRecord &file, const Vector<Suspect> &suspects);
  void report_ending(const FileRecord &file, const Ending &found, const Verdicts &blocks);

  const std::string &root_;
  Pipeline &pipeline_;
  Report &report_;
  Totals read_;

  // Of the file that is being compared:
  FileRecord recorded_;
  Totals before_;
  std::uint64_t blocks_ = 0;
  bool suspect_ = false;

  std::deque<Waiting> waiting_;
  std::size_t waiting_blocks_ = 0;
  Verdicts verdicts_; // of the first file that waits
};

} // namespace scrub

#endif
