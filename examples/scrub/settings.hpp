// Holds the settings of a run. An operator may change them in an INI file; scrub.ini is a sample.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SETTINGS_HPP
#define SCRUB_SETTINGS_HPP

#include <cstdint>
#include <string>

namespace scrub {

struct Settings {
  std::uint64_t read_size_limit = 524288; // bytes of a read: whole blocks
  std::uint64_t threads = 4;              // that read and compute checksums
  std::uint64_t rate_limit = 0;           // megabytes (10^6) a second, 0: no limit
  std::uint64_t nice = 0;                 // of these threads
  std::string cpus = "0-1023";            // of the same threads; may name partitions
  std::string product{};                  // the product file; empty: the node's
  std::string numa{};                     // the NUMA file; empty: the node's
};

// Returns "4 threads, reads of at most 524,288 bytes, no rate limit, nice 0, CPUs 0-1023".
std::string settings_text(const Settings &settings);

} // namespace scrub

#endif
