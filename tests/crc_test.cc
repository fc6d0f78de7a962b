// test-objects: a probe of this processor selects what others run
// Tests the checksums of every processor.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_crc.h"

#include <cstring>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "crc/routines.hpp"
#include "support/guarded_page.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kLengths = 1101;
constexpr std::size_t kAlignments = 64;

// Both checksums, bit by bit, by polynomial division.
std::uint32_t crc32c_by_bit(std::uint32_t crc, std::uint8_t byte) {
  for (int bit = 0; bit < 8; ++bit, byte >>= 1) {
    const bool divides = ((crc ^ byte) & 1) != 0;
    crc = (crc >> 1) ^ (divides ? 0x82F63B78 : 0);
  }
  return crc;
}

std::uint32_t crc16_by_bit(std::uint32_t crc, std::uint8_t byte) {
  for (int bit = 7; bit >= 0; --bit) {
    const bool divides = (((crc >> 15) ^ (byte >> bit)) & 1) != 0;
    crc = ((crc << 1) ^ (divides ? 0x8BB7 : 0)) & 0xFFFF;
  }
  return crc;
}

Bytes noise(std::size_t size) {
  std::mt19937 random{20211121};
  Bytes bytes(size);
  for (auto &byte : bytes)
    byte = static_cast<std::uint8_t>(random());
  return bytes;
}

struct Routine {
  std::string name;
  std::uint32_t (*by_bit)(std::uint32_t crc, std::uint8_t byte);
  std::function<std::uint32_t(std::uint32_t crc, const void *data, std::size_t length)> run;

  // Entry n is the register after the first n bytes at data.
  std::vector<std::uint32_t> expected(std::uint32_t crc, const std::uint8_t *data,
                                      std::size_t length) const {
    std::vector<std::uint32_t> registers{crc};
    for (std::size_t at = 0; at < length; ++at)
      registers.push_back(crc = by_bit(crc, data[at]));
    return registers;
  }
};

void PrintTo(const Routine &routine, std::ostream *out) { *out << routine.name; }

// Adapts a copying routine to one that only sums. It must copy exactly the bytes that it sums.
template <class Copy> auto checked(Copy copy) {
  return [copy](std::uint32_t crc, const void *data, std::size_t length) {
    const std::size_t skew = reinterpret_cast<std::uintptr_t>(data) * 7 % 64;
    Bytes wanted(length + 128, 0xA5);
    Bytes target = wanted;
    std::memcpy(wanted.data() + skew, data, length);
    const std::uint32_t sum = copy(crc, target.data() + skew, data, length);
    EXPECT_TRUE(target == wanted) << "length " << length;
    return sum;
  };
}

// The routines of other processors, by the results that a probe of them would give.
std::vector<std::pair<std::string, vorn::arch::CrcProbe>> lesser_processors() {
#if defined(__x86_64__)
  const auto &own = vorn::arch::crc_probe;
  std::vector<std::pair<std::string, vorn::arch::CrcProbe>> lesser;
  if (own.crc32c_zmm_min != SIZE_MAX) lesser.emplace_back("Wide", vorn::arch::kCrcWide);
  if (own.crc32c_wide_min != SIZE_MAX) lesser.emplace_back("Narrow", vorn::arch::kCrcNarrow);
  if (own.narrow) lesser.emplace_back("WithoutAny", vorn::arch::CrcProbe{});
  return lesser;
#elif defined(__aarch64__)
  if (vorn::arch::crc_probe.sha3) return {{"WithoutSha3", vorn::arch::CrcProbe{}}};
  return {};
#endif
}

std::vector<Routine> routines() {
  namespace crc = vorn::crc;
  std::vector<Routine> all{
      {"Crc32cSoft", crc32c_by_bit, vorn_crc32cContinueSoft},
      {"Crc32c", crc32c_by_bit, vorn_crc32cContinue},
      {"Crc32cCopy", crc32c_by_bit,
       checked([](std::uint32_t sum, void *to, const void *from, std::size_t length) {
         return vorn_crc32cContinue_with_cpy(sum, to, static_cast<std::uint32_t>(length), from);
       })},
      {"Crc16Soft", crc16_by_bit, vorn_crc16_soft},
      {"Crc16", crc16_by_bit, vorn_crc16},
  };
  for (const auto &[name, probe] : lesser_processors()) {
    all.push_back({"Crc32c" + name, crc32c_by_bit, std::bind_front(crc::crc32c, probe)});
    all.push_back(
        {"Crc32cCopy" + name, crc32c_by_bit, checked(std::bind_front(crc::crc32c_copy, probe))});
    all.push_back({"Crc16" + name, crc16_by_bit, std::bind_front(crc::crc16, probe)});
  }
  return all;
}

class EveryRoutine : public testing::TestWithParam<Routine> {};

INSTANTIATE_TEST_SUITE_P(Crc, EveryRoutine, testing::ValuesIn(routines()),
                         [](const auto &row) { return row.param.name; });

TEST_P(EveryRoutine, EqualsDivisionAtEveryLengthAndAlignment) {
  const Routine &routine = GetParam();
  const std::uint32_t start = routine.by_bit == crc32c_by_bit ? 0x9E3D1D0F : 0x1D0F;
  const GuardedPage page;
  std::memcpy(page.data, noise(page.size).data(), page.size);
  for (std::size_t alignment = 0; alignment < kAlignments; ++alignment) {
    const std::uint8_t *data = page.data + alignment;
    const auto expected = routine.expected(start, data, kLengths - 1);
    for (std::size_t length = 0; length < kLengths; ++length) {
      ASSERT_EQ(routine.run(start, data, length), expected[length])
          << "length " << length << ", alignment " << alignment;
    }
  }
  for (std::size_t length = 0; length < kLengths; ++length) {
    const std::uint8_t *data = page.end() - length;
    ASSERT_EQ(routine.run(start, data, length), routine.expected(start, data, length).back())
        << "length " << length << ", at the end of what may be read";
  }
  // long inputs are cut into blocks, at different lengths by each kernel
  const Bytes bytes = noise(1 << 17);
  const auto expected = routine.expected(start, bytes.data(), bytes.size());
  const auto check = [&](std::size_t first, std::size_t end, std::size_t step) {
    for (std::size_t length = first; length < end; length += step)
      ASSERT_EQ(routine.run(start, bytes.data(), length), expected[length]) << "length " << length;
  };
  check(kLengths, 20000, 13);
  for (const std::size_t block : {6144, 12032, 13872, 19936})
    check(block - 32, block + 32, 1);
  EXPECT_EQ(routine.run(start, bytes.data(), bytes.size()), expected.back());
}

// The examples of RFC 3720 and of the SCSI Block Commands, and the nine digits that catalogues of
// checksums use.
TEST(Crc, GivesThePublishedValues) {
  Bytes up;
  for (std::uint8_t i = 0; i < 32; ++i)
    up.push_back(i);
  const struct {
    Bytes bytes;
    std::uint32_t crc32c;
    std::uint16_t crc16;
  } rows[] = {
      {Bytes(32, 0), 0x8A9136AA, 0},
      {Bytes(32, 0xFF), 0x62A8AB43, 0xA293},
      {up, 0x46DD794E, 0x0224},
      {{'1', '2', '3', '4', '5', '6', '7', '8', '9'}, 0xE3069283, 0xD0DB},
  };
  for (const auto &[bytes, crc32c, crc16] : rows) {
    const auto length = static_cast<std::uint32_t>(bytes.size());
    EXPECT_EQ(vorn_crc32c(bytes.data(), length), crc32c);
    EXPECT_EQ(vorn_crc32c_soft(bytes.data(), length), crc32c);
    EXPECT_EQ(vorn_crc32cEnd(vorn_crc32cStart(bytes.data(), length)), crc32c);
    EXPECT_EQ(vorn_crc16(0, bytes.data(), length), crc16);
  }
}

// A routine that reads or writes through these pointers faults.
TEST(Crc, NullAndTooLongInputsChangeNothing) {
  auto *nowhere = reinterpret_cast<void *>(8);
  for (const std::uint32_t length : {0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(vorn_crc32cContinue(5, nowhere, length), 5u);
    EXPECT_EQ(vorn_crc32cContinueHard(5, nowhere, length), 5u);
    EXPECT_EQ(vorn_crc32cContinue_with_cpy(5, nowhere, length, nowhere), 5u);
  }
  EXPECT_EQ(vorn_crc32c(nullptr, 9), 0u);
  EXPECT_EQ(vorn_crc32c_soft(nullptr, 9), 0u);
  EXPECT_EQ(vorn_crc16(5, nullptr, 9), 5u);
}

// In 32 bits this length is 0: a routine that cuts it returns, and any other one reads until it
// faults.
TEST(Crc16DeathTest, TakesItsLengthIn64Bits) {
  const GuardedPage page;
  for (const auto crc16 : {vorn_crc16, vorn_crc16_soft})
    EXPECT_DEATH(crc16(0, page.data, std::uint64_t{1} << 32), "");
}

} // namespace
