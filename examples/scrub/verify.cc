#include "scrub.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>

#include "data_file.hpp"
#include "failure.hpp"
#include "interrupt.hpp"
#include "log.hpp"
#include "manifest_reader.hpp"
#include "pipeline.hpp"
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

// How a file that was read stood at its end.
struct Ending {
  std::uint64_t size;
  timespec written;
  String problem{}; // why it was not read to its end as one thing, empty where it was
  bool changed = false;
};

// Compares in the caller's thread, in tasks: begin, the blocks, end.
class Comparison {
public:
  explicit Comparison(Report &report) : report_(report) {}

  void begin(const FileRecord &recorded) {
    recorded_ = recorded;
    before_ = read_;
    blocks_ = damaged_ = 0;
  }

  void compare(std::span<const Checksums> expected, const Blocks &found) {
    for (std::size_t i = 0; i < expected.size(); ++i, ++blocks_) {
      if (found.checksums[i] == expected[i]) continue;
      report_.damaged_block(recorded_, blocks_, expected[i], found.checksums[i]);
      ++damaged_;
    }
    read_.blocks += expected.size();
    read_.bytes += found.bytes;
    report_.progress().add_bytes(found.bytes);
  }

  void end(const Ending &found) {
    // What has not been read of it never will be.
    report_.progress().drop_bytes(recorded_.size - (read_.bytes - before_.bytes));
    if (!found.problem.empty()) {
      read_ = before_;
      if (found.changed) return report_.skipped(recorded_.path, found.problem.c_str());
      return report_.unreadable(recorded_, found.problem.c_str());
    }
    const bool resized = found.size != recorded_.size;
    if (resized) report_.size_change(recorded_, found.size);
    if (resized || damaged_ != 0)
      report_.damaged_file(found.written.tv_sec != recorded_.written.tv_sec ||
                           found.written.tv_nsec != recorded_.written.tv_nsec);
    ++read_.files;
    report_.progress().add_file();
  }

  void missing(const FileRecord &recorded) {
    report_.missing(recorded);
    report_.progress().drop_bytes(recorded.size);
  }
  void unreadable(const FileRecord &recorded, const String &why) {
    report_.unreadable(recorded, why.c_str());
    report_.progress().drop_bytes(recorded.size);
  }
  void added(const String &path) { report_.added(path); }
  void skipped(const String &path, const String &why) { report_.skipped(path, why.c_str()); }

  const Totals &read() const { return read_; }

private:
  Report &report_;
  Totals read_;
  // Of the file that is being compared:
  FileRecord recorded_;
  Totals before_;
  std::uint64_t blocks_ = 0;
  std::uint64_t damaged_ = 0;
};

// Goes through the manifest and the tree side by side, both in path order, in the reader's thread;
// there makes the tasks that compare.
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

  // All that is recorded below it comes next, and cannot be reached.
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

  // Reads each recorded block that is still there as a whole.
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

  FileRecord recorded_; // while more_recorded_
  Found found_;         // while more_found_
  bool more_recorded_ = false;
  bool more_found_ = false;
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
  Comparison comparison(report);
  Pipeline pipeline(job.settings);
  Verifier verifier(pipeline, manifest, walk, comparison);
  pipeline.run([&] { verifier.read(); });
  report.finish_verify(job, comparison.read(), walk);
  return report.findings().damage() ? kDamage : kClean;
}

} // namespace scrub
