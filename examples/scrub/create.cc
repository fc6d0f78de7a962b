#include "scrub.hpp"

#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "data_file.hpp"
#include "interrupt.hpp"
#include "log.hpp"
#include "manifest_writer.hpp"
#include "report.hpp"
#include "text.hpp"
#include "walk.hpp"

namespace scrub {
namespace {

// What there is to read, so that the progress knows its end.
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

class Recorder {
public:
  Recorder(ManifestWriter &manifest, Report &report)
      : manifest_(manifest), report_(report), buffer_(kReadBufferSize) {}

  void record(const Found &found) {
    if (found.error != 0) return report_.skipped(found.path, std::strerror(found.error));
    DataFile file(buffer_);
    if (!file.open(found.directory, found.name)) return report_.skipped(found.path, file.problem());

    manifest_.begin_file({found.path, file.size(), file.written()});
    for (Bytes block = file.next_block(); !block.empty(); block = file.next_block()) {
      manifest_.add_block(checksums_of(block));
      report_.progress().add_bytes(block.size());
    }
    if (const char *problem = file.problem(); problem != nullptr) {
      manifest_.drop_file();
      return report_.skipped(found.path, problem);
    }
    report_.progress().add_file();
  }

private:
  ManifestWriter &manifest_;
  Report &report_;
  ReadBuffer buffer_;
};

} // namespace

ExitStatus create(const Job &job) {
  const OwnFiles own(job.places);
  ManifestWriter manifest(job.places);
  std::printf("Recording %s in %s\n", job.root.c_str(), job.places.manifest().c_str());
  SCRUB_LOG(EVLOG_INFO, "create: %s.", escape(job.root).c_str());

  Report report(count_bytes(job.root, own));
  Recorder recorder(manifest, report);
  Walk walk(job.root, own);
  Found found;
  while (walk.next(found)) {
    check_interrupt();
    recorder.record(found);
  }
  check_interrupt();
  manifest.commit();
  report.finish_create(job, manifest.totals(), walk);
  return kClean;
}

} // namespace scrub
