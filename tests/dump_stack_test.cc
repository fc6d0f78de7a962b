// test-objects: the walk over a stack of the test's own making
#include "thread/vorn_dump_stack.hpp"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <vector>

#include "base/foreign_memory.hpp"
#include "support/guarded_page.hpp"
#include "support/log_capture.hpp"
#include "vorn_sig_calltrace.h"
#include "vorn_symbol.h"
#include "vorn_thrd.h"

namespace {

using vorn::Frame;
using vorn::thread::StackDump;
using Lines = std::vector<std::string>;

std::uintptr_t g_low = 0;
std::uintptr_t g_high = 0;

int is_ours(unsigned long address) { return address >= g_low && address < g_high ? 0 : -1; }
int bounds_of(unsigned long, unsigned long *low, unsigned long *high) {
  *low = g_low;
  *high = g_high;
  return 0;
}

// A page that is a stack, with nothing readable beside it.
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

  const vorn_lwt_stack_ops_s ops{is_ours, bounds_of};
  const GuardedPage page;
};

[[gnu::noinline]] int code_of_ours() { return getpid() + 1; }
const std::uintptr_t kCode = reinterpret_cast<std::uintptr_t>(code_of_ours) + 4;

// The rows of a table, each as its function and marks.
Lines rows_of(const StackDump &dump) {
  capture::take();
  vorn::thread::vorn_thread_dump_sync_stack(dump);
  Lines rows;
  bool inside = false;
  for (const std::string &line : capture::take_lines()) {
    if (line == "<7>dump_stack info Success") inside = false;
    const std::size_t function = line.find("code_of_ours");
    const std::size_t marks = line.find("suspicious:");
    if (inside)
      rows.push_back((function != line.npos ? "ours" : "NULL") +
                     (marks != line.npos ? line.substr(marks + 11) : ""));
    if (line.find(" position ") != line.npos) inside = true;
  }
  return rows;
}

struct Walk {
  const char *name;
  std::vector<Frame> frames; // of offsets from the page's start; one at each 64 bytes
  std::uintptr_t first;      // offset of the first frame
  Lines rows;
};

const std::uintptr_t kOffsets = 1 << 16; // what is above is an address, not an offset

TEST_F(Stack, RowsAreMarked) {
  const Walk walks[] = {
      {"to the outermost", {{64, kCode}, {128, kCode}, {0, kCode}}, 0, {"ours", "ours", "ours"}},
      {"misaligned", {{67, kCode}, {0, kCode}}, 0, {"ours misaligned"}},
      {"itself", {{64, kCode}, {64, kCode}}, 0, {"ours", "ours down"}},
      {"the frame's second word", {{8, kCode}}, 0, {"ours down"}},
      {"back", {{128, kCode}, {0, kCode}, {64, kCode}}, 0, {"ours", "ours down"}},
      {"out", {{64, kCode}, {4096, kCode}}, 0, {"ours", "ours outside"}},
      {"the last frame", {{4080, kCode}}, 0, {"ours", "NULL code"}},
      {"half over the end", {{4088, kCode}}, 0, {"ours outside"}},
      {"the address space's end", {{UINTPTR_MAX - 7, kCode}}, 0, {"ours outside"}},
      {"no code", {{64, 0x1234}, {0, g_low}}, 0, {"NULL code", "NULL code"}},
      {"both", {{3, 0}}, 0, {"NULL code misaligned"}},
      {"never begun", {}, 5, {"NULL misaligned"}},
      {"begun elsewhere", {}, UINTPTR_MAX - 15, {"NULL outside"}},
      {"begun nowhere", {}, 0x10000, {"NULL outside"}},
  };
  for (const Walk &walk : walks) {
    std::memset(page.data, 0, page.size);
    for (std::size_t i = 0; i < walk.frames.size(); ++i) {
      Frame frame = walk.frames[i];
      const bool outermost = frame.caller == 0 && i + 1 == walk.frames.size();
      if (frame.caller < kOffsets && !outermost) frame.caller += g_low;
      put(64 * i, frame);
    }
    const std::uintptr_t first = walk.first < kOffsets ? at(walk.first) : walk.first;
    EXPECT_EQ(rows_of({7, at(0), first, 0, false}), walk.rows) << walk.name;
  }
}

TEST_F(Stack, RowsHaveTheirColumnsAndAnEnd) {
  put(64, {at(256), kCode});
  vorn::thread::vorn_thread_dump_sync_stack({7, at(16), at(64), kCode + 1, false});
  const Lines lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 7u); // with the frame of zeros
  char text[256];
  const auto high = static_cast<unsigned int>(g_low >> 32);
  const auto low = static_cast<unsigned int>(g_low);
  std::snprintf(text, sizeof text, "<7>Stack Info: RSP: 0x%x%08x RBP: 0x%x%08x", high, low + 16,
                high, low + 64);
  EXPECT_EQ(lines[0], text);
  std::snprintf(text, sizeof text, "<7>(sync)get LWT_STACK, stack start(0x%lx) end(0x%lx)", g_low,
                g_high);
  EXPECT_EQ(lines[1], text);
  std::snprintf(text, sizeof text, "<7>%18s %18s %18s (%8s) %-40s  %s+%s %s", "position", "content",
                "func", "length", "file", "func", "length", "suspicious");
  EXPECT_EQ(lines[2], text);
  const auto row = [&](std::size_t sp, std::size_t fp, std::uintptr_t code, int length) {
    std::snprintf(text, sizeof text, "<7>%18p %18p %18p (%08d) ", reinterpret_cast<void *>(at(sp)),
                  reinterpret_cast<void *>(at(fp)), reinterpret_cast<void *>(code), length);
    return std::string(text);
  };
  EXPECT_EQ(lines[3].find(row(16, 64, kCode + 1, 0)), 0u) << lines[3];
  EXPECT_NE(lines[3].find("+0x5 "), std::string::npos) << lines[3];
  EXPECT_EQ(lines[4].find(row(64, 256, kCode, 192)), 0u) << lines[4];
  EXPECT_NE(lines[4].find("dump_stack_test "), std::string::npos) << lines[4];
  EXPECT_EQ(lines[6], "<7>dump_stack info Success");

  for (std::size_t offset = 0; offset < 4096; offset += 16)
    put(offset, {at(offset + 16), kCode});
  EXPECT_EQ(rows_of({7, at(0), at(0), 0, false}).size(), 128u);
}

TEST_F(Stack, ForeignMemoryIsReadWhereItIs) {
  const auto word = reinterpret_cast<std::uintptr_t>(page.data);
  char copy[8192];
  const auto expect_reads = [&] {
    page.data[0] = 'a';
    page.data[page.size - 1] = 'z';
    errno = 7;
    EXPECT_TRUE(vorn::copy_foreign(word, copy, page.size));
    EXPECT_TRUE(copy[0] == 'a' && copy[page.size - 1] == 'z');
    EXPECT_TRUE(vorn::copy_foreign(word + page.size - 1, copy, 1));
    for (const std::uintptr_t bad : {word - 1, word + 1, word + page.size, UINTPTR_MAX,
                                     UINTPTR_MAX - 4094, std::uintptr_t{0}, std::uintptr_t{8}})
      EXPECT_FALSE(vorn::copy_foreign(bad, copy, page.size)) << std::hex << bad;
    EXPECT_EQ(errno, 7);
  };
  expect_reads();
  // A filter of system calls that does not know the first way.
  sock_filter code[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
      {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_process_vm_readv},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | EPERM},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
  };
  const sock_fprog filter{4, code};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
  expect_reads();
}

struct Words {
  std::uintptr_t sp;            // offset
  std::vector<std::size_t> set; // offsets of words that are not zero
  Lines lines;                  // offset, and the words that are not zero or "..."
  std::size_t low = 0;          // the stack's bounds as offsets
  std::size_t high = 4096;
};

TEST_F(Stack, WordsOfTheLiveStack) {
  const Words all[] = {
      {2048, {}, {"1024 ..."}},
      {2045, {1024, 1048}, {"1024 1001", "1056 ..."}},
      {500, {0, 32, 96}, {"0 1000", "32 1000", "64 ...", "96 1000", "128 ..."}},
      {0, {8, 4088}, {"0 0100", "32 ...", "4064 0001"}},
      {0, {}, {"4 too far"}, 5, 5},
      {0, {8}, {"8 10"}, 3, 24},
      {4096 + 1024, {4072}, {}},
      {4000, {4088}, {"2976 ...", "4064 0001"}},
      {4064 + 1024, {4064}, {"4064 1000"}},
      {4080 + 1024, {4080, 4088}, {"4080 11"}},
  };
  for (const Words &row : all) {
    std::memset(page.data, 0, page.size);
    for (const std::size_t offset : row.set)
      page.data[offset] = 1;
    capture::take();
    vorn::thread::vorn_thread_dump_full_stack(7, at(row.sp), {at(row.low), at(row.high)});
    Lines seen;
    for (const std::string &line : capture::take_lines()) {
      unsigned long address = 0;
      int end = 0;
      EXPECT_EQ(std::sscanf(line.c_str(), "<7> %lx:%n", &address, &end), 1);
      EXPECT_EQ(end, 20) << line;
      std::string text = std::to_string(address - g_low) + " ";
      if (line.find("...") != line.npos) {
        EXPECT_EQ(line.substr(20), " 0000000000000000 ...");
        text += "...";
      } else {
        for (std::size_t i = 20; i < line.size(); i += 17)
          text += line.substr(i, 17) == " 0000000000000001" ? '1' : '0';
      }
      seen.push_back(text);
    }
    if (row.low == row.high)
      EXPECT_TRUE(seen.empty());
    else
      EXPECT_EQ(seen, row.lines) << row.sp;
  }
  // 16384 bytes at most, from bounds that reach to the end of the address space.
  static unsigned char big[32768];
  big[0] = big[16383] = big[16384] = 1;
  const auto start = reinterpret_cast<std::uintptr_t>(big);
  vorn::thread::vorn_thread_dump_full_stack(7, start, {start, UINTPTR_MAX});
  EXPECT_EQ(capture::take_lines().size(), 3u);
  vorn::thread::vorn_thread_dump_full_stack(7, UINTPTR_MAX, {UINTPTR_MAX - 100, UINTPTR_MAX});
  EXPECT_NO_RECORD();
}

// No stack of the thread has the stack pointer: what is readable is dumped, of which stack it may
// be.
TEST_F(Stack, BrokenStacks) {
  unregister_lwt_stack_ops();
  put(64, {0, kCode});
  const struct {
    std::uintptr_t sp;
    std::uintptr_t fp;
    std::size_t start; // offset; 1: none
    Lines rows;
  } all[] = {
      {at(16), at(64), 0, {"ours"}},
      {at(2048), at(64), 1024, {"NULL outside"}},
      {0x10, at(64), 0, {"ours"}},
      {UINTPTR_MAX - 15, at(64), 0, {"ours"}},
      {g_low - 64, at(64), 0, {"ours"}},
      {0x10, 0x18, 1, {"NULL outside"}},
      {UINTPTR_MAX, UINTPTR_MAX, 1, {"NULL outside"}},
  };
  for (const auto &row : all) {
    capture::take();
    vorn::thread::vorn_thread_dump_sync_stack({7, row.sp, row.fp, 0, true});
    const Lines lines = capture::take_lines();
    ASSERT_GE(lines.size(), 5u);
    char text[128];
    std::snprintf(text, sizeof text,
                  "<7>(sync)can't find current stack info by stack addr(0x%lx) desc(INVALID_STACK)",
                  row.sp);
    EXPECT_EQ(lines[1], text);
    std::snprintf(text, sizeof text, "<7>Try to dump OS stack, start(0x%lx) end(0x%lx):",
                  row.start == 1 ? 0 : at(row.start), row.start == 1 ? 0 : g_high);
    EXPECT_EQ(lines[2], text);
    EXPECT_EQ(rows_of({7, row.sp, row.fp, 0, true}), row.rows);
  }
}

TEST_F(Stack, OwnStackOnRequest) {
  vorn_thread_dump_stack();
  const Lines lines = capture::take_lines();
  ASSERT_GE(lines.size(), 4u);
  unsigned long pc = 0, sp = 0, fp = 0, local = 0;
  int tid = 0;
  EXPECT_EQ(std::sscanf(lines[0].c_str(),
                        "<%d>Start dump stack RIP=0x%lx RSP=0x%lx RBP=0x%lx CUR=0x%lx", &tid, &pc,
                        &sp, &fp, &local),
            5);
  EXPECT_EQ(tid, gettid());
  EXPECT_TRUE(sp <= fp && fp < sp + 4096) << lines[0];
  EXPECT_NE(lines[2].find("OwnStackOnRequest"), std::string::npos) << lines[2];
}

} // namespace
