// Holds the settings of a run. An operator may change them in an INI file; scrub.ini is a sample.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SETTINGS_HPP
#define SCRUB_SETTINGS_HPP

#include <cstdint>
#include <string>

namespace scrub {

inline constexpr std::uint64_t kReadSizeLimit = 131072;

struct Settings {
  std::uint64_t read_size_limit = kReadSizeLimit; // bytes of a read: whole blocks
  std::uint64_t threads = 1;                      // checksum threads
  std::uint64_t rate_limit = 0;                   // megabytes (10^6) a second, 0: no limit
  std::uint64_t nice = 0;                         // of the reader and the checksum threads
  std::string cpus = "0-1023";                    // of the same threads; may name partitions
  std::string product{};                          // the product file; empty: the node's
  std::string numa{};                             // the NUMA file; empty: the node's
};

// Reads the file; a setting that it omits keeps its default. Throws std::runtime_error if the file
// cannot be read, or has an unknown setting or an invalid value. The library must have started.
Settings read_settings(const std::string &path);

// Returns "reads of at most 131,072 bytes, 1 checksum thread, no rate limit, nice 0, CPUs 0-1023".
std::string settings_text(const Settings &settings);

} // namespace scrub

#endif
