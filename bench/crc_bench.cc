// bench-loads: isal
// Compares the checksums with their peers.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_crc.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "support/bench.hpp"

namespace {

struct Size {
  std::uint32_t bytes;
  const char *name;
};

constexpr Size kSizes[] = {{16, "16 bytes"},
                           {64, "64 bytes"},
                           {512, "512 bytes"},
                           {4096, "4096 bytes"},
                           {1 << 20, "1 MiB"}};

// ISA-L's functions, one of which has the same name as one of ours.
struct Isal {
  std::uint32_t (*crc32c)(const void *data, int length, std::uint32_t crc);
  std::uint16_t (*crc16)(std::uint16_t crc, const void *data, std::uint64_t length);
};

template <class Function> void find(void *library, const char *name, Function &function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (function != nullptr) return;
  std::fprintf(stderr, "%s is not there: %s\n", name, dlerror());
  std::exit(EXIT_FAILURE);
}

Isal load_isal() {
  void *library = dlopen(VORN_PEER_ISAL, RTLD_NOW | RTLD_LOCAL);
  Isal isal;
  find(library, "crc32_iscsi", isal.crc32c);
  find(library, "crc16_t10dif", isal.crc16);
  return isal;
}

// Checks that both functions compute the same sum.
void check(std::uint32_t ours, std::uint32_t theirs, const Size &size) {
  if (ours == theirs) return;
  std::fprintf(stderr, "over %s: %x is not %x\n", size.name, ours, theirs);
  std::exit(EXIT_FAILURE);
}

// If kChained, each call continues the sum of the previous call, as over a chain of buffers, which
// measures the latency. Otherwise each call starts a new sum, and calls overlap.
template <bool kChained> void measure_crc32c(const bench::Table &table, const Isal &isal,
                                             const void *data, const Size &size) {
  const std::uint32_t n = size.bytes;
  const auto length = static_cast<int>(n);
  check(vorn_crc32cContinue(1, data, n), isal.crc32c(data, length, 1), size);
  table.row({std::string{kChained ? "CRC-32C, " : "CRC-32C, apart, "} + size.name, n},
            {bench::ours([=, crc = 0u]() mutable {
               const std::uint32_t sum = vorn_crc32cContinue(crc, data, n);
               if constexpr (kChained) crc = sum;
               return sum;
             }),
             bench::peer("ISA-L", [=, crc = 0u]() mutable {
               const std::uint32_t sum = isal.crc32c(data, length, crc);
               if constexpr (kChained) crc = sum;
               return sum;
             })});
}

template <bool kChained> void measure_crc16(const bench::Table &table, const Isal &isal,
                                            const void *data, const Size &size) {
  const std::uint32_t n = size.bytes;
  check(vorn_crc16(1, data, n), isal.crc16(1, data, n), size);
  table.row({std::string{kChained ? "CRC-16/T10-DIF, " : "CRC-16/T10-DIF, apart, "} + size.name, n},
            {bench::ours([=, crc = std::uint16_t{0}]() mutable {
               const std::uint16_t sum = vorn_crc16(crc, data, n);
               if constexpr (kChained) crc = sum;
               return sum;
             }),
             bench::peer("ISA-L", [=, crc = std::uint16_t{0}]() mutable {
               const std::uint16_t sum = isal.crc16(crc, data, n);
               if constexpr (kChained) crc = sum;
               return sum;
             })});
}

} // namespace

int main(int argc, char **argv) {
  const Isal isal = load_isal();
  std::mt19937 random{1};
  std::vector<std::uint8_t> noise(std::rbegin(kSizes)->bytes);
  for (auto &byte : noise)
    byte = static_cast<std::uint8_t>(random());
  const void *data = noise.data();
  vorn_crc32_init();

  const bench::Table table{argc, argv, "Checksums"};
  for (const Size &size : kSizes)
    measure_crc32c<true>(table, isal, data, size);
  for (const Size &size : kSizes)
    measure_crc16<true>(table, isal, data, size);
  for (const Size &size : kSizes)
    measure_crc32c<false>(table, isal, data, size);
  for (const Size &size : kSizes)
    measure_crc16<false>(table, isal, data, size);
  table.row({"CRC-32C by table, 4096 bytes", 4096},
            {bench::ours([=] { return vorn_crc32cContinueSoft(0, data, 4096); })});
  table.row({"CRC-16/T10-DIF by table, 4096 bytes", 4096},
            {bench::ours([=] { return vorn_crc16_soft(0, data, 4096); })});
}
