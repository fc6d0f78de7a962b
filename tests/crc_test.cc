// The objects of the library are linked too: the kernels behind the probe are not exported.
// test-links: vorn_objects
#include "vorn_crc.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "arch/crc.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kLengths = 1101;
constexpr std::size_t kAlignments = 64;
constexpr std::uint32_t kTooLong[] = {0x80000000, 0x80000001, 0xFFFFFFFF};

// Both checksums a bit at a time, as polynomial division by hand goes.
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

const Bytes &noise() {
  static const Bytes bytes = [] {
    std::mt19937 random{20211121};
    Bytes filled(1 << 17);
    for (auto &byte : filled)
      byte = static_cast<std::uint8_t>(random());
    return filled;
  }();
  return bytes;
}

struct Routine {
  const char *name;
  std::size_t shortest;
  std::uint32_t (*by_bit)(std::uint32_t crc, std::uint8_t byte);
  std::function<std::uint32_t(std::uint32_t crc, const void *data, std::size_t length)> run;

  // Entry n is the register over the first n bytes at data.
  std::vector<std::uint32_t> expected(std::uint32_t crc, const std::uint8_t *data,
                                      std::size_t length) const {
    std::vector<std::uint32_t> registers{crc};
    for (std::size_t at = 0; at < length; ++at)
      registers.push_back(crc = by_bit(crc, data[at]));
    return registers;
  }
};

void PrintTo(const Routine &routine, std::ostream *out) { *out << routine.name; }

// A page of noise, with memory that cannot be read on either side.
class GuardedPage {
public:
  GuardedPage() {
    map_ = mmap(nullptr, 3 * size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void *page = static_cast<std::uint8_t *>(map_) + size;
    if (map_ == MAP_FAILED || mprotect(page, size, PROT_READ | PROT_WRITE) != 0) abort();
    std::memcpy(page, noise().data(), size);
    data = static_cast<const std::uint8_t *>(page);
  }
  ~GuardedPage() { munmap(map_, 3 * size); }
  GuardedPage(const GuardedPage &) = delete;
  GuardedPage &operator=(const GuardedPage &) = delete;

  const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::uint8_t *data;

private:
  void *map_;
};

// A copying routine as one that only sums: it must copy all that it sums, and nothing else.
template <class Copy> auto checked(Copy copy) {
  return [copy](std::uint32_t crc, const void *data, std::size_t length) {
    constexpr std::size_t kMargin = 64;
    constexpr std::uint8_t kUntouched = 0xA5;
    const std::size_t skew = reinterpret_cast<std::uintptr_t>(data) * 7 % kMargin;
    static Bytes target;
    target.assign(length + 2 * kMargin, kUntouched);
    std::uint8_t *to = target.data() + skew;
    const std::uint32_t sum = copy(crc, to, data, length);
    EXPECT_EQ(std::memcmp(to, data, length), 0) << "length " << length;
    std::memset(to, kUntouched, length);
    EXPECT_EQ(target, Bytes(target.size(), kUntouched)) << "length " << length;
    return sum;
  };
}

// All routines that this processor can run.
std::vector<Routine> routines() {
  namespace arch = vorn::arch;
  std::vector<Routine> all{
      {"Crc32cSoft", 0, crc32c_by_bit, vorn_crc32cContinueSoft},
      {"Crc32cHard", 0, crc32c_by_bit, vorn_crc32cContinueHard},
      {"Crc32cContinue", 0, crc32c_by_bit, vorn_crc32cContinue},
      {"Crc32cCopy", 0, crc32c_by_bit,
       checked([](std::uint32_t crc, void *to, const void *from, std::size_t length) {
         return vorn_crc32cContinue_with_cpy(crc, to, static_cast<std::uint32_t>(length), from);
       })},
      {"Crc16Soft", 0, crc16_by_bit, vorn_crc16_soft},
      {"Crc16", 0, crc16_by_bit, vorn_crc16},
      {"Crc16T10Dif", 0, crc16_by_bit, crc16_t10dif},
  };
#if defined(__x86_64__)
  if (arch::crc_probe.narrow) {
    all.push_back({"Crc32cNarrow", 0, crc32c_by_bit, arch::crc32c_narrow});
    all.push_back({"Crc32cCopyNarrow", 0, crc32c_by_bit, checked(arch::crc32c_copy_narrow)});
    all.push_back({"Crc16Narrow", 16, crc16_by_bit, arch::crc16_narrow});
  }
  if (arch::crc_probe.wide) {
    all.push_back({"Crc32cWide", arch::kCrc32cWideMin, crc32c_by_bit, arch::crc32c_wide});
    all.push_back(
        {"Crc32cCopyWide", arch::kCrc32cWideMin, crc32c_by_bit, checked(arch::crc32c_copy_wide)});
    all.push_back({"Crc16Wide", arch::kCrc16WideMin, crc16_by_bit, arch::crc16_wide});
  }
#endif
  return all;
}

class EveryRoutine : public testing::TestWithParam<Routine> {};

INSTANTIATE_TEST_SUITE_P(Crc, EveryRoutine, testing::ValuesIn(routines()),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST_P(EveryRoutine, EqualsDivisionAtEveryLengthAndAlignment) {
  const Routine &routine = GetParam();
  const std::uint32_t start = routine.by_bit(0x1D0F, 0);
  alignas(kAlignments) static std::array<std::uint8_t, kLengths + kAlignments> buffer;
  std::memcpy(buffer.data(), noise().data(), buffer.size());
  for (std::size_t alignment = 0; alignment < kAlignments; ++alignment) {
    const std::uint8_t *data = buffer.data() + alignment;
    const auto expected = routine.expected(start, data, kLengths - 1);
    for (std::size_t length = routine.shortest; length < kLengths; ++length) {
      ASSERT_EQ(routine.run(start, data, length), expected[length])
          << "length " << length << ", alignment " << alignment;
    }
  }
}

// Long inputs are cut into blocks, each of the kernels at other lengths.
TEST_P(EveryRoutine, EqualsDivisionOverManyBlocks) {
  const Routine &routine = GetParam();
  const auto expected = routine.expected(0xFFFF, noise().data(), noise().size());
  for (std::size_t length = kLengths; length < 20000; length += 7) {
    ASSERT_EQ(routine.run(0xFFFF, noise().data(), length), expected[length]) << "length " << length;
  }
  EXPECT_EQ(routine.run(0xFFFF, noise().data(), noise().size()), expected.back());
}

TEST_P(EveryRoutine, ReadsNothingButItsInput) {
  const Routine &routine = GetParam();
  const GuardedPage page;
  const std::uint8_t *end = page.data + page.size;
  const auto expected = routine.expected(0, page.data, kLengths);
  for (std::size_t length = routine.shortest; length < kLengths; ++length) {
    ASSERT_EQ(routine.run(0, page.data, length), expected[length]);
    ASSERT_EQ(routine.run(0, end - length, length),
              routine.expected(0, end - length, length).back());
  }
}

TEST_P(EveryRoutine, ContinuesOverASplit) {
  const Routine &routine = GetParam();
  const std::size_t length = 2 * routine.shortest + kLengths;
  const std::uint32_t whole = routine.run(1, noise().data(), length);
  for (std::size_t split = routine.shortest; split <= length - routine.shortest; ++split) {
    const std::uint32_t before = routine.run(1, noise().data(), split);
    ASSERT_EQ(routine.run(before, noise().data() + split, length - split), whole)
        << "split " << split;
  }
}

// RFC 3720 appendix B.4, and the nine digits that checksums are named by.
TEST(Crc32c, GivesThePublishedValues) {
  Bytes up(32), down(32);
  for (std::size_t at = 0; at < up.size(); ++at) {
    up[at] = static_cast<std::uint8_t>(at);
    down[at] = static_cast<std::uint8_t>(31 - at);
  }
  const Bytes read_command{0x01, 0xc0, 0, 0, 0, 0, 0, 0, 0,    0, 0, 0,    0, 0, 0, 0,
                           0x14, 0,    0, 0, 0, 0, 4, 0, 0,    0, 0, 0x14, 0, 0, 0, 0x18,
                           0x28, 0,    0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0,    0, 0, 0, 0};
  const Bytes digits{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  const std::pair<Bytes, std::uint32_t> rows[] = {
      {Bytes(32, 0), 0x8A9136AA}, {Bytes(32, 0xFF), 0x62A8AB43}, {up, 0x46DD794E},
      {down, 0x113FDB5C},         {read_command, 0xD9963A56},    {digits, 0xE3069283}};
  for (const auto &[bytes, sum] : rows) {
    const auto length = static_cast<std::uint32_t>(bytes.size());
    EXPECT_EQ(vorn_crc32c(bytes.data(), length), sum);
    EXPECT_EQ(vorn_crc32c_soft(bytes.data(), length), sum);
    EXPECT_EQ(vorn_crc32cEnd(vorn_crc32cStart(bytes.data(), length)), sum);
  }
}

// The examples of the SCSI Block Commands, and the nine digits.
TEST(Crc16, GivesThePublishedValues) {
  Bytes up(32), down(32), ones(32);
  for (std::size_t at = 0; at < up.size(); ++at) {
    up[at] = static_cast<std::uint8_t>(at);
    down[at] = static_cast<std::uint8_t>(0xFF - at);
  }
  ones[0] = ones[1] = 0xFF;
  const Bytes digits{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  const std::pair<Bytes, std::uint16_t> rows[] = {{Bytes(32, 0), 0}, {Bytes(32, 0xFF), 0xA293},
                                                  {up, 0x0224},      {ones, 0x21B8},
                                                  {down, 0xA0B7},    {digits, 0xD0DB}};
  for (const auto &[bytes, sum] : rows) {
    EXPECT_EQ(vorn_crc16(0, bytes.data(), bytes.size()), sum);
    EXPECT_EQ(vorn_crc16_soft(0, bytes.data(), bytes.size()), sum);
  }
}

TEST(Crc32c, IsTheSameBeforeAndAfterStartUp) {
  EXPECT_EQ(vorn_crc32cContinue(1, "sector", 6), vorn_crc32cContinueSoft(1, "sector", 6));
  vorn_crc32_init();
  EXPECT_EQ(vorn_crc32cContinue(1, "sector", 6), vorn_crc32cContinueSoft(1, "sector", 6));
}

// The pointers are good for nothing: whoever reads or writes through them dies.
TEST(Crc32c, TwoGibibytesAndMoreLeaveTheRegisterAndTheMemory) {
  auto *nowhere = reinterpret_cast<void *>(8);
  for (const std::uint32_t length : kTooLong) {
    EXPECT_EQ(vorn_crc32cContinue(5, nowhere, length), 5u);
    EXPECT_EQ(vorn_crc32cContinueHard(5, nowhere, length), 5u);
    EXPECT_EQ(vorn_crc32cContinue_with_cpy(5, nowhere, length, nowhere), 5u);
    EXPECT_EQ(vorn_crc32cStart(nowhere, length), 0xFFFFFFFF);
    EXPECT_EQ(vorn_crc32c(nowhere, length), 0u);
  }
}

TEST(Crc32c, NothingLeavesTheRegister) {
  EXPECT_EQ(vorn_crc32cContinue(5, nullptr, 9), 5u);
  EXPECT_EQ(vorn_crc32cContinue(5, "data", 0), 5u);
  EXPECT_EQ(vorn_crc32cContinueHard(5, nullptr, 0), 5u);
  EXPECT_EQ(vorn_crc32cContinueSoft(5, nullptr, 0), 5u);
  EXPECT_EQ(vorn_crc32cContinue_with_cpy(5, nullptr, 0, nullptr), 5u);
  EXPECT_EQ(vorn_crc32cStart(nullptr, 9), 0xFFFFFFFF);
  EXPECT_EQ(vorn_crc32c(nullptr, 9), 0u);
  EXPECT_EQ(vorn_crc32c("data", 0), 0u);
  EXPECT_EQ(vorn_crc32c_soft(nullptr, 9), 0u);
  EXPECT_EQ(vorn_crc32c_soft("data", 0), 0u);
}

TEST(Crc16, NothingLeavesTheRegister) {
  EXPECT_EQ(vorn_crc16(0xFFFF, nullptr, 9), 0xFFFF);
  EXPECT_EQ(vorn_crc16(0xFFFF, "data", 0), 0xFFFF);
  EXPECT_EQ(crc16_t10dif(0xFFFF, nullptr, 0), 0xFFFF);
  EXPECT_EQ(vorn_crc16_soft(0xFFFF, nullptr, 0), 0xFFFF);
}

// In 32 bits this length is 0: whoever cuts it so returns, and everyone else reads on until the
// memory ends.
TEST(Crc16DeathTest, TakesItsLengthIn64Bits) {
  constexpr std::uint64_t kLength = std::uint64_t{1} << 32;
  const GuardedPage page;
  EXPECT_DEATH(vorn_crc16(0, page.data, kLength), "");
  EXPECT_DEATH(crc16_t10dif(0, page.data, kLength), "");
  EXPECT_DEATH(vorn_crc16_soft(0, page.data, kLength), "");
}

} // namespace
