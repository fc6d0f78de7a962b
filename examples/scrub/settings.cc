// Describes the settings of a run in one line.
// SPDX-License-Identifier: Apache-2.0
#include "settings.hpp"

#include "text.hpp"

namespace scrub {

std::string settings_text(const Settings &settings) {
  return counted(settings.threads, "thread") + ", reads of at most " +
         grouped(settings.read_size_limit) + " bytes, " +
         (settings.rate_limit == 0 ? "no rate limit"
                                   : "at most " + grouped(settings.rate_limit) + " MB/s") +
         ", nice " + std::to_string(settings.nice) + ", CPUs " + settings.cpus +
         (settings.product.empty() ? "" : " of " + settings.product);
}

} // namespace scrub
