// Generates keys for the benchmarks of containers.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BENCH_SUPPORT_KEYS_HPP
#define VORN_BENCH_SUPPORT_KEYS_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace bench {

// Returns count different keys in a random order, the same ones in every run.
inline std::vector<std::uint64_t> random_keys(std::size_t count) {
  std::mt19937_64 random{1};
  std::vector<std::uint64_t> keys;
  while (keys.size() < count) {
    while (keys.size() < count)
      keys.push_back(random());
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  }
  std::shuffle(keys.begin(), keys.end(), random);
  return keys;
}

} // namespace bench

#endif
