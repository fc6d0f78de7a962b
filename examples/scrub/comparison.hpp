// Compares the data read with the manifest and reports the verdicts, in the caller's thread. A file
// with wrong blocks waits for their second read while the run continues.
// SPDX-License-Identifier: Apache-2.0
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

// The state of a file after it was read.
struct Ending {
  std::uint64_t size = 0;
  timespec written{};
  String problem{}; // why the data read are no consistent copy; empty if they are
  bool changed = false;
};

class Comparison {
public:
  Comparison(const std::string &root, Pipeline &pipeline, Report &report)
      : root_(root), pipeline_(pipeline), report_(report) {}

  // For a file that the run reads: begin, the blocks, end, each in a task.
  void begin(const FileRecord &recorded);
  void compare(std::span<const Checksums> expected, const Blocks &found);
  void end(const Ending &found);

  // For a file that the run does not read.
  void missing(const FileRecord &recorded);
  void unreadable(const FileRecord &recorded, const String &why);
  void added(const String &path) { report_.added(path); }
  void skipped(const String &path, const String &why) { report_.skipped(path, why.c_str()); }

  // Called after the last task: waits for the second reads.
  void finish();

  const Totals &read() const { return read_; }

private:
  // The verdicts in the order of their report: blocks that are read again, then the end of their
  // file.
  struct Waiting {
    FileRecord file;
    std::unique_ptr<SecondRead> second; // NULL: the end of the file
    Ending ending{};

    bool ready() const { return second == nullptr || second->done(); }
  };

  // The reported blocks of a file.
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

  // The state of the current file:
  FileRecord recorded_;
  Totals before_;
  std::uint64_t blocks_ = 0;
  bool suspect_ = false;

  std::deque<Waiting> waiting_;
  std::size_t waiting_blocks_ = 0;
  Verdicts verdicts_; // of the first file that waits for its second read
};

} // namespace scrub

#endif
