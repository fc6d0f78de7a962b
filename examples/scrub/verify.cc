// Compares a tree with its manifest.
// SPDX-License-Identifier: Apache-2.0
#include "scrub.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>

#include "comparison.hpp"
#include "data_file.hpp"
#include "errors.hpp"
#include "interrupt.hpp"
#include "log.hpp"
#include "manifest_reader.hpp"
#include "pipeline.hpp"
#include "report.hpp"
#include "supervision.hpp"
#include "text.hpp"
#include "walk.hpp"

namespace scrub {
namespace {

// Reads the whole manifest first, so that a bad one is refused before the comparison begins.
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

// Walks the manifest and the tree side by side, both in path order, in the reader's thread, and
// adds the tasks that compare.
class Verifier {
public:
  Verifier(Pipeline &pipeline, ManifestReader &manifest, Walk &walk, Comparison &comparison)
      : pipeline_(pipeline), manifest_(manifest), walk_(walk), comparison_(comparison) {}

  void read() {
    next_recorded();
    next_found();
    while (more_recorded_ || more_found_) {
      check_interrupt();
      if (found_is_first()) {
        take_unrecorded();
      } else if (recorded_is_first() || found_.error != 0) {
        pass_missing();
        next_recorded();
      } else {
        read_file();
        next_recorded();
        next_found();
      }
    }
  }

private:
  void next_recorded() { more_recorded_ = manifest_.next_file(recorded_); }
  void next_found() { more_found_ = walk_.next(found_); }

  bool found_is_first() const {
    return more_found_ && (!more_recorded_ || path_before(found_.path, recorded_.path));
  }
  bool recorded_is_first() const {
    return more_recorded_ && (!more_found_ || path_before(recorded_.path, found_.path));
  }

  void pass_missing() {
    pipeline_.then([this, recorded = recorded_] { comparison_.missing(recorded); });
  }
  void pass_unreadable(const char *why) {
    pipeline_.then(
        [this, recorded = recorded_, why = String(why)] { comparison_.unreadable(recorded, why); });
  }

  void take_unrecorded() {
    if (found_.error == 0) {
      pipeline_.then([this, path = found_.path] { comparison_.added(path); });
    } else {
      skip_directory();
    }
    next_found();
  }

  // The manifest's next files are below this directory and cannot be reached.
  void skip_directory() {
    const char *why = std::strerror(found_.error);
    pipeline_.then(
        [this, path = found_.path, why = String(why)] { comparison_.skipped(path, why); });
    while (more_recorded_ && is_below(recorded_.path, found_.path)) {
      if (found_.error == ENOENT) {
        pass_missing();
      } else {
        pass_unreadable(why);
      }
      next_recorded();
    }
  }

  void read_file() {
    DataFile file;
    if (!file.open(found_.directory, found_.name)) {
      if (file.vanished()) return pass_missing();
      return pass_unreadable(file.problem());
    }

    pipeline_.then([this, recorded = recorded_] { comparison_.begin(recorded); });
    read_blocks(file);
    Ending ending{.size = file.size(), .written = file.written()};
    if (const char *problem = file.problem(); problem != nullptr) {
      ending.problem = problem;
      ending.changed = file.changed();
    }
    pipeline_.then([this, ending] { comparison_.end(ending); });
  }

  // Reads each recorded block that the file still holds completely.
  void read_blocks(DataFile &file) {
    std::uint64_t left = recorded_.size;
    while (left != 0) {
      const std::span<std::byte> room = pipeline_.room();
      const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left, room.size()));
      const std::size_t got = file.read(room.first(wanted));
      left = got == wanted ? left - got : 0;
      const Blocks found = pipeline_.add_blocks(got == wanted ? got : got - got % kBlockSize);
      pipeline_.then([this, found, expected = next_expected(found.checksums.size())] {
        comparison_.compare(expected, found);
      });
    }
  }

  Vector<Checksums> next_expected(std::size_t count) {
    Vector<Checksums> blocks(count);
    for (Checksums &block : blocks)
      manifest_.next_block(block);
    return blocks;
  }

  Pipeline &pipeline_;
  ManifestReader &manifest_;
  Walk &walk_;
  Comparison &comparison_;

  FileRecord recorded_; // valid while more_recorded_
  Found found_;         // valid while more_found_
  bool more_recorded_ = false;
  bool more_found_ = false;
};

} // namespace

ExitStatus verify(const Job &job) {
  const std::string name = job.paths.manifest();
  const Fd fd(open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) fail("cannot open the manifest " + name);
  std::printf("Verifying %s against %s\n", job.root.c_str(), name.c_str());
  const Totals recorded = check_manifest(fd.get(), name);
  SCRUB_LOG(EVLOG_INFO, "verify: %s, %" PRIu64 " files recorded.", escape(job.root).c_str(),
            recorded.files);

  ManifestReader manifest(fd.get(), name);
  const OwnFiles own(job.paths);
  Walk walk(job.root, own);
  Report report(recorded.bytes);
  Supervision supervision(report.progress(), report.cpus(), job.stall);
  Pipeline pipeline(job.settings, job.crash);
  Comparison comparison(job.root, pipeline, report);
  Verifier verifier(pipeline, manifest, walk, comparison);
  pipeline.run([&] { verifier.read(); });
  comparison.finish();
  supervision.finish();
  report.finish_verify(job, comparison.read(), walk);
  return Report::status();
}

} // namespace scrub
