// What a run says: a line for each finding, in the log too, and the account at its end.
#ifndef SCRUB_REPORT_HPP
#define SCRUB_REPORT_HPP

#include <cstdint>
#include <string_view>

#include "checksums.hpp"
#include "manifest.hpp"
#include "progress.hpp"
#include "scrub.hpp"
#include "walk.hpp"

namespace scrub {

struct Findings {
  std::uint64_t damaged_files = 0;
  std::uint64_t damaged_blocks = 0;
  std::uint64_t passing_files = 0;
  std::uint64_t passing_blocks = 0; // wrong at the first read, right at the second
  std::uint64_t missing = 0;        // recorded, not there
  std::uint64_t unreadable = 0;     // recorded, there, could not be read to the end
  std::uint64_t added = 0;          // there, not recorded
  std::uint64_t skipped = 0;        // not recorded and not looked at: could not be read

  ExitStatus status() const {
    if (damaged_files + missing + unreadable != 0) return kDamage;
    return passing_files != 0 ? kPassingFault : kClean;
  }
};

class Report {
public:
  // total_bytes is what there is to read.
  explicit Report(std::uint64_t total_bytes);

  Progress &progress() { return progress_; }

  void damaged_block(const FileRecord &file, std::uint64_t block, const Checksums &expected,
                     const Checksums &found);
  void passing_block(const FileRecord &file, std::uint64_t block, const Checksums &expected,
                     const Checksums &found);
  void size_change(const FileRecord &file, std::uint64_t found);
  // Behind the lines above: whether anyone has written to the file since, by its time.
  void damaged_file(bool written_since);
  void passing_file() { ++findings_.passing_files; }
  void missing(const FileRecord &file);
  void unreadable(const FileRecord &file, const char *why);
  void added(std::string_view path);
  void skipped(std::string_view path, const char *why);

  const Findings &findings() const { return findings_; }

  // The account at the end. read is what was read.
  void finish_create(const Job &job, const Totals &read, const Walk &walk);
  void finish_verify(const Job &job, const Totals &read, const Walk &walk);

private:
  void account(const Job &job, const Totals &read, const Walk &walk) const;

  const std::uint64_t started_; // nanoseconds
  Progress progress_;
  Findings findings_;
};

} // namespace scrub

#endif
