#include "scrub.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "data_file.hpp"
#include "failure.hpp"
#include "interrupt.hpp"
#include "log.hpp"
#include "manifest_reader.hpp"
#include "report.hpp"
#include "text.hpp"
#include "walk.hpp"

namespace scrub {
namespace {

// Reads a manifest to its end, so that a bad one is refused before anything is compared with it.
Totals check_manifest(int fd, const std::string &name) {
  ManifestReader manifest(fd, name);
  FileRecord file;
  Checksums block;
  while (manifest.next_file(file)) {
    check_interrupt();
    while (manifest.next_block(block))
      check_interrupt();
  }
  if (lseek(fd, 0, SEEK_SET) != 0) fail("cannot read " + name + " again");
  return manifest.totals();
}

bool is_below(std::string_view path, std::string_view directory) {
  return path.size() > directory.size() && path[directory.size()] == '/' &&
         path.starts_with(directory);
}

// Goes through the manifest and the tree side by side: both are in path order.
class Verifier {
public:
  Verifier(ManifestReader &manifest, Walk &walk, Report &report)
      : manifest_(manifest), walk_(walk), report_(report), buffer_(kReadBufferSize) {}

  void run() {
    next_recorded();
    next_found();
    while (more_recorded_ || more_found_) {
      check_interrupt();
      if (found_is_first()) {
        take_unrecorded();
      } else if (recorded_is_first() || found_.error != 0) {
        report_.missing(recorded_);
        drop_recorded();
      } else {
        compare();
        drop_recorded();
        next_found();
      }
    }
  }

  const Totals &read() const { return read_; }

private:
  void next_recorded() { more_recorded_ = manifest_.next_file(recorded_); }
  // To the next; what has not been read of this one never will be.
  void drop_recorded() {
    report_.progress().drop_bytes(recorded_.size - compared_);
    compared_ = 0;
    next_recorded();
  }
  void next_found() { more_found_ = walk_.next(found_); }

  bool found_is_first() const {
    return more_found_ && (!more_recorded_ || path_before(found_.path, recorded_.path));
  }
  bool recorded_is_first() const {
    return more_recorded_ && (!more_found_ || path_before(recorded_.path, found_.path));
  }

  void take_unrecorded() {
    if (found_.error == 0) {
      report_.added(found_.path);
    } else {
      skip_directory();
    }
    next_found();
  }

  // All that is recorded below it comes next, and cannot be reached.
  void skip_directory() {
    const char *why = std::strerror(found_.error);
    report_.skipped(found_.path, why);
    while (more_recorded_ && is_below(recorded_.path, found_.path)) {
      report_.unreadable(recorded_, why);
      drop_recorded();
    }
  }

  void compare() {
    DataFile file(buffer_);
    if (!file.open(found_.directory, found_.name)) {
      if (file.vanished()) return report_.missing(recorded_);
      return report_.unreadable(recorded_, file.problem());
    }

    const std::uint64_t damaged = compare_blocks(file);
    const bool resized = file.size() != recorded_.size;
    if (resized) report_.size_change(recorded_, file.size());
    if (const char *problem = file.problem(); problem != nullptr)
      return report_.unreadable(recorded_, problem);
    if (resized || damaged != 0)
      report_.damaged_file(file.written().tv_sec != recorded_.written.tv_sec ||
                           file.written().tv_nsec != recorded_.written.tv_nsec);
    ++read_.files;
    report_.progress().add_file();
  }

  // Compares each recorded block that is still there as a whole. Returns how many are damaged.
  std::uint64_t compare_blocks(DataFile &file) {
    std::uint64_t damaged = 0;
    Checksums expected;
    for (std::uint64_t number = 0; manifest_.next_block(expected); ++number) {
      const std::size_t length = block_length(recorded_.size, number);
      const Bytes block = file.next_block();
      if (block.size() < length) break;

      const Checksums found = checksums_of(block.first(length));
      if (found != expected) {
        report_.damaged_block(recorded_, number, expected, found);
        ++damaged;
      }
      ++read_.blocks;
      read_.bytes += length;
      compared_ += length;
      report_.progress().add_bytes(length);
    }
    return damaged;
  }

  ManifestReader &manifest_;
  Walk &walk_;
  Report &report_;
  ReadBuffer buffer_;

  FileRecord recorded_;        // while more_recorded_
  Found found_;                // while more_found_
  std::uint64_t compared_ = 0; // bytes of recorded_
  bool more_recorded_ = false;
  bool more_found_ = false;
  Totals read_;
};

} // namespace

ExitStatus verify(const Job &job) {
  const std::string name = job.places.manifest();
  const Fd fd(open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) fail("cannot open the manifest " + name);
  std::printf("Verifying %s against %s\n", job.root.c_str(), name.c_str());
  const Totals recorded = check_manifest(fd.get(), name);
  SCRUB_LOG(EVLOG_INFO, "verify: %s, %" PRIu64 " files recorded.", escape(job.root).c_str(),
            recorded.files);

  ManifestReader manifest(fd.get(), name);
  const OwnFiles own(job.places);
  Walk walk(job.root, own);
  Report report(recorded.bytes);
  Verifier verifier(manifest, walk, report);
  verifier.run();
  report.finish_verify(job, verifier.read(), walk);
  return report.findings().damage() ? kDamage : kClean;
}

} // namespace scrub
