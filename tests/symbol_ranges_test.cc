// test-objects: what resolves the functions is private
// Tests the ranges of addresses of functions.
// SPDX-License-Identifier: Apache-2.0
#include "symbol/ranges.hpp"

#include <algorithm>
#include <elf.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <tuple>
#include <vector>

using namespace vorn::symbol;

namespace {

// Two adjacent segments of code.
constexpr std::uintptr_t kLimit = 64;
constexpr std::uintptr_t limit_of(std::uintptr_t start) { return start < 32 ? 32 : kLimit; }

bool contains(const Function &function, std::uintptr_t address) {
  return function.start <= address && address - function.start < function.size &&
         address < function.limit;
}

// Returns whether a function of unknown size reaches the address: no function starts in between,
// and no function of known size contains its start.
bool reaches(const std::vector<Function> &all, const Function &function, std::uintptr_t address) {
  return function.size == 0 && function.start <= address && address < function.limit &&
         std::ranges::none_of(all, [&](const Function &other) {
           return (other.start > function.start && other.start <= address) ||
                  contains(other, function.start);
         });
}

// Finds the owner of an address by comparing all functions; "" for none.
std::string naive_owner(const std::vector<Function> &all, std::uintptr_t address) {
  std::tuple<bool, std::uintptr_t, int, std::uintptr_t, std::string> owner;
  for (const Function &f : all) {
    if (!contains(f, address) && !reaches(all, f, address)) continue;
    const int rank = f.binding == STB_GLOBAL ? 2 : f.binding == STB_WEAK ? 1 : 0;
    owner = std::max(owner, {f.size != 0, f.start, rank, f.size, f.name});
  }
  return std::get<std::string>(owner);
}

} // namespace

TEST(SymbolRanges, AgreeWithALookAtEveryFunction) {
  const char *const names[] = {"a", "b", "c", "_a", "__b", "z9", "C", "D", "e", "g"};
  const unsigned char bindings[] = {STB_LOCAL, STB_GLOBAL, STB_WEAK, STB_GNU_UNIQUE};
  std::mt19937 random(3);
  for (int round = 0; round < 2000; ++round) {
    std::vector<Function> all;
    const std::size_t count = random() % 10;
    for (std::size_t i = 0; i < count; ++i) {
      const std::uintptr_t sizes[] = {0, 1 + random() % 6, random() % 64, UINTPTR_MAX};
      const std::uintptr_t start = random() % (round % 2 == 0 ? kLimit : 8);
      all.push_back(
          {start, sizes[random() % 4], limit_of(start), names[i], bindings[random() % 4]});
    }
    Buffer<Function> functions;
    Buffer<Range> ranges;
    ASSERT_TRUE(functions.append(all.data(), all.size()));
    ASSERT_TRUE(resolve(functions, &ranges));

    std::vector<std::string> owners(kLimit + 8);
    std::uintptr_t last_end = 0;
    for (const Range &range : ranges) {
      ASSERT_GE(range.begin, last_end);
      ASSERT_GT(range.end, range.begin);
      last_end = range.end;
      for (std::uintptr_t at = range.begin; at < range.end; ++at)
        owners.at(at) = range.function->name;
    }
    for (std::uintptr_t at = 0; at < owners.size(); ++at)
      ASSERT_EQ(owners[at], naive_owner(all, at)) << "round " << round << " address " << at;
  }
}
