// Verifies a directory.
// SPDX-License-Identifier: Apache-2.0
#include <memory>

#include "scrub.hpp"
#include "verification.hpp"

namespace scrub {

void verify(const Job &job, Report &report) {
  report.begin("Verifying " + job.root + " against " + job.paths.manifest());
  auto verification = std::make_unique<Verification>(job, report);
  verification->run();
  if (verification->stop()) return;
  verification.release(); // NOLINT: the hanging thread uses it
  note_hanging_thread();
}

} // namespace scrub
