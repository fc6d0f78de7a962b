// How hard a run works: what an operator may set in an INI file, of which scrub.ini is a sample.
#ifndef SCRUB_SETTINGS_HPP
#define SCRUB_SETTINGS_HPP

#include <cstdint>
#include <string>

namespace scrub {

inline constexpr std::uint64_t kReadSizeLimit = 131072;

struct Settings {
  std::uint64_t read_size_limit =
      kReadSizeLimit;           // bytes that are read and checked at once: whole blocks
  std::uint64_t threads = 1;    // that compute checksums
  std::uint64_t rate_limit = 0; // megabytes (10^6) of data read a second, 0: no limit
  std::uint64_t nice = 0;       // of the threads that read and compute checksums
  std::string cpus = "0-1023";  // that they run on; partitions of the product file among them
  std::string product{};        // the product file; empty: the node's
  std::string numa{};           // the NUMA file; empty: the node's
};

// Takes what the file sets and leaves the rest as above. Throws std::runtime_error when the file
// cannot be read or sets anything that is no setting, or to a value that it cannot have. The
// library is up.
Settings read_settings(const std::string &path);

// "reads of at most 131,072 bytes, 1 checksum thread, no rate limit, nice 0, CPUs 0-1023".
std::string settings_text(const Settings &settings);

} // namespace scrub

#endif
