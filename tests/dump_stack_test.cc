// test-wraps: syscall
// Tests dumps of stacks.
// SPDX-License-Identifier: Apache-2.0
#include "thread/vorn_dump_stack.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/syscall.h>
#include <vector>

#include "base/foreign_memory.hpp"
#include "support/guarded_page.hpp"
#include "support/log_capture.hpp"
#include "support/shown.hpp"
#include "vorn_sig_calltrace.h"
#include "vorn_symbol.h"
#include "vorn_thrd.h"

static bool g_filtered = false;

// Refuses the first way to read memory, as a filter of system calls does.
extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  if (!g_filtered || number != SYS_process_vm_readv)
    return __real_syscall(number, a, b, c, d, e, f);
  errno = EPERM;
  return -1;
}

namespace {

using vorn::Frame;
using vorn::thread::StackDump;
using Lines = std::vector<std::string>;

std::uintptr_t g_low = 0;
std::uintptr_t g_high = 0;

// A page that is a stack, between unreadable pages.
class Stack : public testing::Test {
public:
  Stack() {
    vorn_symbol_init();
    g_low = reinterpret_cast<std::uintptr_t>(page.data);
    g_high = g_low + page.size;
    register_lwt_stack_ops(&ops);
    capture::take();
  }

  std::uintptr_t at(std::size_t offset) const { return g_low + offset; }
  void put(std::size_t offset, const Frame &frame) const {
    std::memcpy(page.data + offset, &frame, sizeof frame);
  }

  const vorn_lwt_stack_ops_s ops{
      [](unsigned long address) { return address >= g_low && address < g_high ? 0 : -1; },
      [](unsigned long, unsigned long *low, unsigned long *high) {
        *low = g_low;
        *high = g_high;
        return 0;
      }};
  const GuardedPage page;
};

[[gnu::noinline]] int code_of_ours() { return getpid() + 1; }
const std::uintptr_t kCode = reinterpret_cast<std::uintptr_t>(code_of_ours) + 4;

// Returns the rows of the table in a dump, each as its function and marks.
Lines rows_in(const Lines &lines) {
  Lines rows;
  bool inside = false;
  for (const std::string &line : lines) {
    if (line == "<7>dump_stack info Success") break;
    const std::size_t marks = line.find("suspicious:");
    if (inside)
      rows.push_back((line.find("code_of_ours") != line.npos ? "ours" : "NULL") +
                     (marks != line.npos ? line.substr(marks + 11) : ""));
    if (line.find(" position ") != line.npos) inside = true;
  }
  return rows;
}

Lines dump(const StackDump &what) {
  vorn::thread::vorn_thread_dump_sync_stack(what);
  return capture::take_lines();
}

TEST_F(Stack, RowsAreMarked) {
  constexpr std::uintptr_t kOffsets = 1 << 16; // a larger value is an address and not an offset
  const struct {
    std::vector<Frame> frames; // as offsets from the start of the page; one at each 64 bytes
    std::uintptr_t first;      // offset of the first frame
    Lines rows;
  } walks[] = {
      {{{64, kCode}, {128, kCode}, {0, kCode}}, 0, {"ours", "ours", "ours"}},
      {{{67, kCode}, {0, kCode}}, 0, {"ours misaligned"}},
      {{{64, kCode}, {64, kCode}}, 0, {"ours", "ours down"}}, // to itself
      {{{128, kCode}, {0, kCode}, {64, kCode}}, 0, {"ours", "ours down"}},
      {{{4080, kCode}}, 0, {"ours", "NULL code"}}, // the last that is inside
      {{{4088, kCode}}, 0, {"ours outside"}},
      {{{UINTPTR_MAX - 7, kCode}}, 0, {"ours outside"}},
      {{{64, 0x1234}, {0, g_low}}, 0, {"NULL code", "NULL code"}},
      {{}, UINTPTR_MAX - 15, {"NULL outside"}},
  };
  for (const auto &walk : walks) {
    std::memset(page.data, 0, page.size);
    for (std::size_t i = 0; i < walk.frames.size(); ++i) {
      Frame frame = walk.frames[i];
      const bool outermost = frame.caller == 0 && i + 1 == walk.frames.size();
      if (frame.caller < kOffsets && !outermost) frame.caller += g_low;
      put(64 * i, frame);
    }
    const std::uintptr_t first = walk.first < kOffsets ? at(walk.first) : walk.first;
    EXPECT_EQ(rows_in(dump({7, at(0), first, 0, false})), walk.rows) << &walk - walks;
  }
}

TEST_F(Stack, RowsHaveTheirColumnsAndAnEnd) {
  put(64, {at(256), kCode});
  const Lines lines = dump({7, at(16), at(64), kCode + 1, false});
  const auto high = static_cast<unsigned int>(g_low >> 32);
  const auto low = static_cast<unsigned int>(g_low);
  ASSERT_EQ(lines.size(), 7u); // with the frame of zeros
  EXPECT_EQ(lines[0] + lines[1] + lines[2] + lines[3].substr(0, 71) + lines[4].substr(0, 71),
            shown::by([&](vorn_print_f print) {
              print("<7>Stack Info: RSP: 0x%x%08x RBP: 0x%x%08x", high, low + 16, high, low + 64);
              print("<7>(sync)get LWT_STACK, stack start(0x%lx) end(0x%lx)", g_low, g_high);
              print("<7>%18s %18s %18s (%8s) %-40s  %s+%s %s", "position", "content", "func",
                    "length", "file", "func", "length", "suspicious");
              print("<7>%#18lx %#18lx %#18lx (00000000) ", at(16), at(64), kCode + 1);
              print("<7>%#18lx %#18lx %#18lx (00000192) ", at(64), at(256), kCode);
            }));
  EXPECT_NE(lines[3].find("+0x5 "), std::string::npos) << lines[3];
  EXPECT_NE(lines[4].find("dump_stack_test "), std::string::npos) << lines[4];
  EXPECT_EQ(lines[6], "<7>dump_stack info Success");

  for (std::size_t offset = 0; offset < 4096; offset += 16)
    put(offset, {at(offset + 16), kCode});
  EXPECT_EQ(rows_in(dump({7, at(0), at(0), 0, false})).size(), 128u);
}

TEST_F(Stack, ForeignMemoryIsCopiedOnlyIfItIsMapped) {
  page.data[0] = 'a';
  page.data[page.size - 1] = 'z';
  for (const bool filtered : {false, true}) {
    SCOPED_TRACE(filtered);
    g_filtered = filtered;
    char copy[4096] = "";
    errno = 7;
    EXPECT_TRUE(vorn::copy_foreign(g_low, copy, page.size));
    EXPECT_TRUE(copy[0] == 'a' && copy[page.size - 1] == 'z');
    EXPECT_TRUE(vorn::copy_foreign(g_high - 1, copy, 1));
    for (const std::uintptr_t bad : {g_low - 1, g_low + 1, g_high, UINTPTR_MAX, UINTPTR_MAX - 4094,
                                     std::uintptr_t{0}, std::uintptr_t{8}})
      EXPECT_FALSE(vorn::copy_foreign(bad, copy, page.size)) << std::hex << bad;
    EXPECT_EQ(errno, 7);
  }
}

TEST_F(Stack, WordsOfTheLiveStack) {
  const struct {
    std::uintptr_t sp;            // offset
    std::vector<std::size_t> set; // offsets of words that are not zero
    Lines lines;                  // offset, and the words, 1 where not zero, or "..."
    std::size_t low = 0;          // the stack's bounds as offsets
    std::size_t high = 4096;
  } all[] = {
      {2045, {1024, 1048}, {"1024 1001", "1056 ..."}},
      {500, {0, 32, 96}, {"0 1000", "32 1000", "64 ...", "96 1000", "128 ..."}},
      {0, {}, {}, 5, 5},
      {0, {8}, {"8 10"}, 3, 24},
      {4096 + 1024, {4072}, {}},
      {4080 + 1024, {4080, 4088}, {"4080 11"}},
  };
  for (const auto &row : all) {
    std::memset(page.data, 0, page.size);
    for (const std::size_t offset : row.set)
      page.data[offset] = 1;
    vorn::thread::vorn_thread_dump_full_stack(7, at(row.sp), {at(row.low), at(row.high)});
    Lines seen;
    for (const std::string &line : capture::take_lines()) {
      unsigned long address = 0;
      int end = 0;
      EXPECT_EQ(std::sscanf(line.c_str(), "<7> %lx:%n", &address, &end), 1);
      EXPECT_EQ(end, 20) << line;
      std::string words = line.substr(20);
      if (words == " 0000000000000000 ...") words = "...";
      for (std::size_t i = 0; i < words.size() && words[i] == ' '; ++i)
        words.replace(i, 17, words.substr(i, 17) == " 0000000000000001" ? "1" : "0");
      seen.push_back(std::to_string(address - g_low) + " " + words);
    }
    EXPECT_EQ(seen, row.lines) << row.sp;
  }
  // At most 16384 bytes, even if the bounds reach to the end of the address space.
  static unsigned char big[32768];
  big[0] = big[16383] = big[16384] = 1;
  const auto start = reinterpret_cast<std::uintptr_t>(big);
  vorn::thread::vorn_thread_dump_full_stack(7, start, {start, UINTPTR_MAX});
  EXPECT_EQ(capture::take_lines().size(), 3u);
  vorn::thread::vorn_thread_dump_full_stack(7, UINTPTR_MAX, {UINTPTR_MAX - 100, UINTPTR_MAX});
  EXPECT_NO_MESSAGE();
}

// No stack of the thread contains the stack pointer: the readable memory there is dumped.
TEST_F(Stack, BrokenStacks) {
  unregister_lwt_stack_ops();
  put(64, {0, kCode});
  const struct {
    std::uintptr_t sp;
    std::uintptr_t fp;
    std::uintptr_t start; // 0: none
    const char *row;
  } all[] = {
      {at(16), at(64), at(0), "ours"},           {at(2048), at(64), at(1024), "NULL outside"},
      {UINTPTR_MAX - 15, at(64), at(0), "ours"}, {g_low - 64, at(64), at(0), "ours"},
      {0x10, 0x18, 0, "NULL outside"},
  };
  for (const auto &row : all) {
    const Lines lines = dump({7, row.sp, row.fp, 0, true});
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(lines[1] + lines[2], shown::by([&](vorn_print_f print) {
                print("<7>(sync)can't find current stack info by stack addr(0x%lx) "
                      "desc(INVALID_STACK)<7>Try to dump OS stack, start(0x%lx) end(0x%lx):",
                      row.sp, row.start, row.start == 0 ? 0 : g_high);
              }));
    EXPECT_EQ(rows_in(lines), Lines{row.row});
  }
}

TEST_F(Stack, OwnStackOnRequest) {
  vorn_thread_dump_stack();
  const Lines lines = capture::take_lines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0].find("<" + std::to_string(gettid()) + ">Start dump stack RIP=0x"), 0u);
  EXPECT_NE(lines[2].find("OwnStackOnRequest"), std::string::npos) << lines[2];
}

} // namespace
