// Reports a run: prints and logs a line for each finding, and prints the account at the end. Used
// by the thread of the run's instance, whose counts it keeps.
// SPDX-License-Identifier: Apache-2.0
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
  // total_bytes is the number of bytes to read.
  explicit Report(std::uint64_t total_bytes);

  Progress &progress() { return progress_; }
  CpuUsage &cpus() { return cpus_; }

  void damaged_block(const FileRecord &file, std::uint64_t block, const Checksums &expected,
                     const Checksums &found);
  void passing_block(const FileRecord &file, std::uint64_t block, const Checksums &expected,
                     const Checksums &found);
  void size_change(const FileRecord &file, std::uint64_t found);
  // Follows the lines above: prints whether the file was written since, according to its time.
  void damaged_file(bool written_since);
  void passing_file() { ++count(Count::kPassingFiles); }
  void missing(const FileRecord &file);
  void unreadable(const FileRecord &file, const char *why);
  void added(std::string_view path);
  void skipped(std::string_view path, const char *why);

  // The status of the run so far.
  static ExitStatus status();

  // Print the account at the end. read is the total of what was read.
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
