// What a run says: a line for each finding, in the log too, and the account at its end. For the
// thread of the run's instance, whose counts it keeps.
#ifndef SCRUB_REPORT_HPP
#define SCRUB_REPORT_HPP

#include <cstdint>
#include <string_view>

#include "checksums.hpp"
#include "instance.hpp"
#include "machine.hpp"
#include "manifest.hpp"
#include "progress.hpp"
#include "scrub.hpp"
#include "walk.hpp"

namespace scrub {

class Report {
public:
  // total_bytes is what there is to read.
  explicit Report(std::uint64_t total_bytes);

  Progress &progress() { return progress_; }
  CpuUsage &cpus() { return cpus_; }

  void damaged_block(const FileRecord &file, std::uint64_t block, const Checksums &expected,
                     const Checksums &found);
  void passing_block(const FileRecord &file, std::uint64_t block, const Checksums &expected,
                     const Checksums &found);
  void size_change(const FileRecord &file, std::uint64_t found);
  // Behind the lines above: whether anyone has written to the file since, by its time.
  void damaged_file(bool written_since);
  void passing_file() { ++count(Count::kPassingFiles); }
  void missing(const FileRecord &file);
  void unreadable(const FileRecord &file, const char *why);
  void added(std::string_view path);
  void skipped(std::string_view path, const char *why);

  // Of the run so far.
  static ExitStatus status();

  // The account at the end. read is what was read.
  void finish_create(const Job &job, const Totals &read, const Walk &walk);
  void finish_verify(const Job &job, const Totals &read, const Walk &walk);

private:
  void account(const Job &job, const Totals &read, const Walk &walk);

  const std::uint64_t started_; // nanoseconds
  Progress progress_;
  CpuUsage cpus_;
};

} // namespace scrub

#endif
