// Prints and logs the findings, and prints the account at the end.
// SPDX-License-Identifier: Apache-2.0
#include "report.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "log.hpp"
#include "memory_table.hpp"
#include "text.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

// A finding is a result of the service, not a fault of it: its log messages have the level of
// information. Those of higher levels also appear on the console.
constexpr int kFinding = EVLOG_INFO;

void print_memory() {
  const Vector<ModuleMemory> modules = memory_by_module();
  if (modules.empty()) std::puts("  memory    not accounted: there is no kernel module");
  const char *title = "memory";
  for (const ModuleMemory &module : modules) {
    std::printf("  %-9s %s held by %s\n", title,
                bytes_text(static_cast<double>(module.bytes)).c_str(), module.name);
    title = "";
  }
}

void print_count(std::uint64_t count, const char *what) {
  if (count != 0) std::printf(", %s %s", grouped(count).c_str(), what);
}

const char *verdict(ExitStatus status) {
  switch (status) {
  case kDamage:
    return "\nDAMAGE FOUND";
  case kPassingFault:
    return "\nPASSING FAULTS: every recorded block is as it was, but was not read so at first";
  default:
    return "\nCLEAN: every recorded block is as it was";
  }
}

} // namespace

ExitStatus Report::status() {
  if (count(Count::kDamagedFiles) + count(Count::kMissing) + count(Count::kUnreadable) != 0)
    return kDamage;
  return count(Count::kPassingFiles) != 0 ? kPassingFault : kClean;
}

Report::Report(std::uint64_t total_bytes)
    : started_(vorn_time_getnanosec()), progress_(total_bytes) {}

void Report::damaged_block(const FileRecord &file, std::uint64_t block, const Checksums &expected,
                           const Checksums &found) {
  ++count(Count::kDamagedBlocks);
  const String path = escape(file.path);
  const std::uint64_t offset = block * kBlockSize;
  progress_.print("DAMAGED     %s: block %" PRIu64 " at offset %" PRIu64 ", expected %08" PRIx32
                  ", found %08" PRIx32,
                  path.c_str(), block, offset, expected.crc, found.crc);
  SCRUB_LOG(kFinding,
            "damaged: %s, block %" PRIu64 ", expected %08" PRIx32 ", found %08" PRIx32 ".",
            path.c_str(), block, expected.crc, found.crc);

  for (std::size_t i = 0; i < expected.sectors; ++i) {
    if (expected.guards[i] == found.guards[i]) continue;
    progress_.print("            sector %" PRIu64 " at offset %" PRIu64
                    ", guard expected %04x, found %04x",
                    block * kSectorsPerBlock + i, offset + i * kSectorSize, expected.guards[i],
                    found.guards[i]);
  }
}

void Report::passing_block(const FileRecord &file, std::uint64_t block, const Checksums &expected,
                           const Checksums &found) {
  ++count(Count::kPassingBlocks);
  const String path = escape(file.path);
  progress_.print("PASSING     %s: block %" PRIu64 " at offset %" PRIu64 ", expected %08" PRIx32
                  ", found %08" PRIx32 " at first, right a second later",
                  path.c_str(), block, block * kBlockSize, expected.crc, found.crc);
  SCRUB_LOG(kFinding,
            "passing fault: %s, block %" PRIu64 ", expected %08" PRIx32 ", found %08" PRIx32
            " at first.",
            path.c_str(), block, expected.crc, found.crc);
}

void Report::size_change(const FileRecord &file, std::uint64_t found) {
  const String path = escape(file.path);
  progress_.print("SIZE        %s: expected %" PRIu64 " bytes, found %" PRIu64, path.c_str(),
                  file.size, found);
  SCRUB_LOG(kFinding, "size change: %s, expected %" PRIu64 " bytes, found %" PRIu64 ".",
            path.c_str(), file.size, found);
}

void Report::damaged_file(bool written_since) {
  ++count(Count::kDamagedFiles);
  progress_.print("            %s",
                  written_since ? "written to since the manifest was made"
                                : "not written to since the manifest was made: silent damage");
}

void Report::missing(const FileRecord &file) {
  ++count(Count::kMissing);
  const String path = escape(file.path);
  progress_.print("MISSING     %s", path.c_str());
  SCRUB_LOG(kFinding, "missing: %s.", path.c_str());
}

void Report::unreadable(const FileRecord &file, const char *why) {
  ++count(Count::kUnreadable);
  const String path = escape(file.path);
  progress_.print("UNREADABLE  %s: %s", path.c_str(), why);
  SCRUB_LOG(kFinding, "unreadable: %s, %s.", path.c_str(), why);
}

void Report::added(std::string_view path) {
  ++count(Count::kNew);
  const String word = escape(path);
  progress_.print("NEW         %s", word.c_str());
  SCRUB_LOG(kFinding, "new: %s.", word.c_str());
}

void Report::skipped(std::string_view path, const char *why) {
  ++count(Count::kSkipped);
  const String word = escape(path);
  progress_.print("SKIPPED     %s: %s", word.c_str(), why);
  SCRUB_LOG(kFinding, "skipped: %s, %s.", word.c_str(), why);
}

void Report::finish_create(const Job &job, const Totals &read, const Walk &walk) {
  progress_.finish();
  SCRUB_LOG(EVLOG_INFO,
            "manifest written: %" PRIu64 " files, %" PRIu64 " bytes, %" PRIu64 " skipped.",
            read.files, read.bytes, count(Count::kSkipped));
  std::puts("\nRECORDED: the manifest is complete");
  account(job, read, walk);
}

void Report::finish_verify(const Job &job, const Totals &read, const Walk &walk) {
  progress_.finish();
  SCRUB_LOG(EVLOG_INFO,
            "verified: %" PRIu64 " files, %" PRIu64 " bytes, %" PRIu64 " damaged, %" PRIu64
            " with passing faults, %" PRIu64 " missing, %" PRIu64 " unreadable, %" PRIu64 " new.",
            read.files, read.bytes, count(Count::kDamagedFiles), count(Count::kPassingFiles),
            count(Count::kMissing), count(Count::kUnreadable), count(Count::kNew));
  std::puts(verdict(status()));
  account(job, read, walk);
}

void Report::account(const Job &job, const Totals &read, const Walk &walk) {
  count(Count::kFiles) = read.files;
  count(Count::kBytes) = read.bytes;
  const std::uint64_t taken = std::max<std::uint64_t>(vorn_time_getnanosec() - started_, 1);
  const double seconds = static_cast<double>(taken) / 1e9;

  std::printf("  files     %s read", grouped(read.files).c_str());
  print_count(count(Count::kDamagedFiles), "damaged");
  print_count(count(Count::kMissing), "missing");
  print_count(count(Count::kUnreadable), "unreadable");
  print_count(count(Count::kNew), "new");
  print_count(count(Count::kSkipped), "skipped");
  print_count(walk.links() + walk.specials(), "links and special files left out");
  std::printf("\n  bytes     %s (%s) in %s", grouped(read.bytes).c_str(),
              bytes_text(static_cast<double>(read.bytes)).c_str(),
              counted(read.blocks, "block").c_str());
  print_count(count(Count::kDamagedBlocks), "damaged");
  if (count(Count::kPassingBlocks) != 0)
    std::printf("\n  passing   %s right at the second read alone",
                counted(count(Count::kPassingBlocks), "block").c_str());
  std::printf("\n  speed     %.1f MB/s, %.2f s\n", static_cast<double>(read.bytes) / 1e6 / seconds,
              seconds);
  print_layout();
  cpus_.print();
  print_memory();
  std::printf("  manifest  %s\n", job.paths.manifest().c_str());
  if (job.has_log) {
    std::printf("  log       %s of vorn-scrub in %s\n",
                counted(log_messages_written, "message").c_str(), job.paths.log().c_str());
  } else {
    std::printf("  log       none, cannot write %s: warnings and errors alone, on the console\n",
                job.paths.log().c_str());
  }
}

} // namespace scrub
