// Records the checksums of a tree in a manifest.
// SPDX-License-Identifier: Apache-2.0
#include "scrub.hpp"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>

#include "data_file.hpp"
#include "interrupt.hpp"
#include "log.hpp"
#include "manifest_writer.hpp"
#include "pipeline.hpp"
#include "report.hpp"
#include "supervision.hpp"
#include "text.hpp"
#include "walk.hpp"

namespace scrub {
namespace {

// The bytes to read, for the progress bar.
std::uint64_t count_bytes(const std::string &root, const OwnFiles &own) {
  std::uint64_t bytes = 0;
  Walk walk(root, own);
  Found found;
  while (walk.next(found)) {
    check_interrupt();
    struct stat status {};
    if (found.error == 0 && fstatat(found.directory, found.name, &status, AT_SYMLINK_NOFOLLOW) == 0)
      bytes += static_cast<std::uint64_t>(status.st_size);
  }
  return bytes;
}

// Reads the tree in the reader's thread, and adds the tasks that record what was read.
class Recorder {
public:
  Recorder(Pipeline &pipeline, ManifestWriter &manifest, Report &report)
      : pipeline_(pipeline), manifest_(manifest), report_(report) {}

  void read(Walk &walk) {
    Found found;
    while (walk.next(found)) {
      check_interrupt();
      read_file(found);
    }
  }

private:
  void read_file(const Found &found) {
    if (found.error != 0) return skip(found.path, std::strerror(found.error));
    DataFile file;
    if (!file.open(found.directory, found.name)) return skip(found.path, file.problem());

    pipeline_.then([this, record = FileRecord{found.path, file.size(), file.written()}] {
      manifest_.begin_file(record);
    });
    read_blocks(file);
    if (const char *problem = file.problem(); problem != nullptr) {
      pipeline_.then([this] { manifest_.drop_file(); });
      return skip(found.path, problem);
    }
    pipeline_.then([this] { report_.progress().add_file(); });
  }

  void read_blocks(DataFile &file) {
    for (bool more = true; more;) {
      const std::span<std::byte> room = pipeline_.room();
      const Blocks blocks = pipeline_.add_blocks(file.read(room));
      pipeline_.then([this, blocks] {
        for (const Checksums &block : blocks.checksums)
          manifest_.add_block(block);
        report_.progress().add_bytes(blocks.bytes);
      });
      more = blocks.bytes == room.size();
    }
  }

  void skip(const String &path, const char *why) {
    pipeline_.then([this, path, why = String(why)] { report_.skipped(path, why.c_str()); });
  }

  Pipeline &pipeline_;
  ManifestWriter &manifest_;
  Report &report_;
};

} // namespace

ExitStatus create(const Job &job) {
  const OwnFiles own(job.paths);
  ManifestWriter manifest(job.paths);
  std::printf("Recording %s in %s\n", job.root.c_str(), job.paths.manifest().c_str());
  SCRUB_LOG(EVLOG_INFO, "create: %s.", escape(job.root).c_str());

  Report report(count_bytes(job.root, own));
  Supervision supervision(report.progress(), report.cpus(), job.stall);
  Walk walk(job.root, own);
  Pipeline pipeline(job.settings, job.crash);
  Recorder recorder(pipeline, manifest, report);
  pipeline.run([&] { recorder.read(walk); });
  check_interrupt();
  manifest.commit();
  supervision.finish();
  report.finish_create(job, manifest.totals(), walk);
  return kClean;
}

} // namespace scrub
