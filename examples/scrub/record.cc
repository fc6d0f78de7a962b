// Runs create and update.
// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <memory>
#include <stdexcept>

#include "checked_manifest.hpp"
#include "recording.hpp"
#include "scrub.hpp"

namespace scrub {
namespace {

void run(const Job &job, Report &report, std::unique_ptr<OldManifest> old, bool update) {
  auto recording = std::make_unique<Recording>(job, report, std::move(old), update);
  recording->run();
  if (recording->stop()) return;
  recording.release(); // NOLINT: the hanging thread uses it
  note_hanging_thread();
}

// Opens what an interrupted create has left; NULL if there is nothing.
std::unique_ptr<OldManifest> unfinished(const Job &job, Report &report) {
  const std::string name = job.paths.manifest_directory + "/" + job.paths.unfinished_name();
  Fd fd(open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    report.note("There is no unfinished manifest: the run begins at the start");
    return nullptr;
  }
  // The writer refuses to replace the file if another run holds it.
  auto old = std::make_unique<OldManifest>(std::move(fd), name, ManifestReader::Kind::kPartial);
  report.note("Going on with " + name);
  return old;
}

} // namespace

void create(const Job &job, Report &report) {
  report.begin("Recording " + job.root + " in " + job.paths.manifest());
  run(job, report, job.options.resume ? unfinished(job, report) : nullptr, false);
}

void update(const Job &job, Report &report) {
  report.begin("Updating " + job.paths.manifest() + " from " + job.root);
  const std::string name = job.paths.manifest();
  const Fd fd = open_manifest(name);
  const CheckedManifest checked(fd, name);
  run(job, report,
      std::make_unique<OldManifest>(open_again(fd, name), name, ManifestReader::Kind::kWhole),
      true);
}

} // namespace scrub
