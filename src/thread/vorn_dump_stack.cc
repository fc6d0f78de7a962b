// Writes the calling thread's stack: its kind, the table of its frames, its words.
// SPDX-License-Identifier: Apache-2.0
#include "thread/vorn_dump_stack.hpp"

#include <algorithm>
#include <ucontext.h>

#include "arch/fault_context.hpp"
#include "base/bounded.hpp"
#include "base/cancellation_guard.hpp"
#include "base/errno_guard.hpp"
#include "base/foreign_memory.hpp"
#include "base/log.hpp"
#include "evlog.h"
#include "symbol/vorn_symbol.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_sig_calltrace.h"

namespace vorn::thread {
namespace {

constexpr unsigned int kMostFrames = 128;
constexpr std::uintptr_t kBelow = 1024;
constexpr std::uintptr_t kMostBytes = 16384;
constexpr std::uintptr_t kWord = sizeof(std::uint64_t);
constexpr std::uintptr_t kLineWords = 4;
constexpr std::uintptr_t kProbe = 4096;
constexpr std::uintptr_t kWidestStack = 8 << 20; // walked if the bounds are unknown

const void *pointer(std::uintptr_t address) { return reinterpret_cast<const void *>(address); }

std::uintptr_t sum(std::uintptr_t address, std::uintptr_t size) {
  return address <= UINTPTR_MAX - size ? address + size : UINTPTR_MAX;
}

std::uintptr_t difference(std::uintptr_t address, std::uintptr_t size) {
  return address >= size ? address - size : 0;
}

// The function that contains an address, or the texts for an unknown one.
struct Place {
  const char *function = "NULL";
  const char *object = "NULL";
  std::uintptr_t offset = 0;
};

// A return address may be after the end of the calling function: the call is just before it.
// Shows code without a name by its offset in the file. Returns false if no code is known there.
bool find_caller(const symbol::Reader &symbols, std::uintptr_t return_address, Place *out) {
  symbol::Symbol found{};
  const std::uintptr_t call = return_address - 1;
  if (!symbols.find_object(call, &found)) return !symbols.has_table();
  symbols.lookup(call, &found);
  if (found.name != nullptr) out->function = found.name;
  out->object = found.object;
  out->offset = return_address - found.start;
  return true;
}

bool is_outermost(const char *function) {
  const std::string_view name{function};
  return name == "start_thread" || name == "main";
}

const char *reason(Link link) {
  switch (link) {
  case Link::kGood:
  case Link::kNone:
    return "";
  case Link::kMisaligned:
    return " misaligned";
  case Link::kDown:
    return " down";
  case Link::kOutside:
    return " outside";
  }
  return "";
}

// Returns why a frame is suspicious, or an empty text.
class Suspicion {
public:
  Suspicion(bool known_code, Link link) {
    if (known_code && *reason(link) == '\0') return;
    snprintf_s(text_, sizeof text_, sizeof text_ - 1, "suspicious:%s%s", known_code ? "" : " code",
               reason(link));
  }

  const char *text() const { return text_; }

private:
  char text_[40] = "";
};

class FrameTable {
public:
  explicit FrameTable(pid_t tid) : tid_(tid) {
    evlog_original("<%d>%18s %18s %18s (%8s) %-40s  %s+%s %s", tid_, "position", "content", "func",
                   "length", "file", "func", "length", "suspicious");
  }
  FrameTable(const FrameTable &) = delete;
  FrameTable &operator=(const FrameTable &) = delete;
  ~FrameTable() { evlog_original("<%d>dump_stack info Success", tid_); }

  // Writes a row that says that no frame can be read.
  void write_lost(const FrameChain &chain) const {
    const Link link = chain.link();
    write({chain.at(), 0}, 0, 0, {}, {true, link == Link::kGood ? Link::kOutside : link});
  }

  // Writes the caller of a jump that has made no frame.
  void write_called_from(const StackDump &dump) const {
    Place place;
    const bool known = find_caller(symbols_, dump.called_from, &place);
    write({dump.stack_pointer, dump.frame_pointer}, dump.called_from, 0, place,
          {known, Link::kGood});
  }

  // Returns whether the frame is the outermost.
  bool write_frame(const FrameChain &chain, const Frame &frame, const FrameChain &next) const {
    const std::uintptr_t code = arch::plain_code_address(frame.return_address);
    Place place;
    const bool known = find_caller(symbols_, code, &place);
    const std::uintptr_t length = next.link() == Link::kGood ? next.at() - chain.at() : 0;
    write({chain.at(), frame.caller}, code, length, place, {known, next.link()});
    return is_outermost(place.function);
  }

private:
  struct Position {
    std::uintptr_t frame;
    std::uintptr_t content;
  };

  void write(const Position &position, std::uintptr_t code, std::uintptr_t length,
             const Place &place, const Suspicion &suspicion) const {
    evlog_original("<%d>%18p %18p %18p (%08ld) %-40s  %.300s+0x%x %s", tid_,
                   pointer(position.frame), pointer(position.content), pointer(code),
                   static_cast<long>(length), place.object, place.function,
                   static_cast<unsigned int>(place.offset), suspicion.text());
  }

  const pid_t tid_;
  const symbol::Reader symbols_;
};

// Reads the words of a line; fewer than four at the end of the stack.
class WordLine {
public:
  WordLine(std::uintptr_t at, std::uintptr_t count) : at_(at), count_(count) {
    readable_ = copy_foreign(at_, words_, count_ * kWord);
  }

  bool readable() const { return readable_; }
  bool zero() const { return std::count(words_, words_ + count_, 0u) == static_cast<long>(count_); }

  void write(pid_t tid) const {
    char text[kLineWords * 18] = "";
    std::size_t length = 0;
    for (std::uintptr_t i = 0; i < count_; ++i)
      length += static_cast<std::size_t>(snprintf_s(
          text + length, sizeof text - length, sizeof text - length - 1, " %016lx", words_[i]));
    evlog_original("<%d>%16p:%s", tid, pointer(at_), text);
  }

  void write_zeros(pid_t tid) const {
    evlog_original("<%d>%16p: %016lx ...", tid, pointer(at_), 0ul);
  }

private:
  const std::uintptr_t at_;
  const std::uintptr_t count_;
  bool readable_;
  unsigned long words_[kLineWords] = {};
};

bool is_readable(std::uintptr_t address) {
  char byte;
  return copy_foreign(address, &byte, 1);
}

// Returns the end of the readable pages from the address up, at most `most` bytes from it.
std::uintptr_t readable_end(std::uintptr_t address, std::uintptr_t most) {
  const std::uintptr_t end = sum(address, most);
  std::uintptr_t at = address;
  while (at < end && is_readable(at))
    at = sum(at | (kProbe - 1), 1);
  return std::min(at, end);
}

std::uintptr_t readable_start(std::uintptr_t address) {
  const std::uintptr_t page = address & ~(kProbe - 1);
  const std::uintptr_t start = difference(address, kBelow);
  return start >= page || is_readable(start) ? start : page;
}

// Returns a readable address of the stack: the stack pointer; if that is destroyed or beyond the
// stack, the frame pointer; or else the outermost part of the stack in the thread record. Returns 0
// if there is none.
std::uintptr_t find_stack(const StackDump &dump) {
  if (is_readable(dump.stack_pointer)) return dump.stack_pointer;
  if (is_readable(dump.frame_pointer)) return dump.frame_pointer;
  StackBounds stack{};
  if (!record_is_readable() || vorn_thrd_getosstack(&stack.low, &stack.high) != 0) return 0;
  return difference(stack.high, kMostBytes);
}

void vorn_thread_dump_broken_stack(const StackDump &dump) {
  const std::uintptr_t at = find_stack(dump);
  const StackBounds words{at == 0 ? 0 : readable_start(at), readable_end(at, kMostBytes)};
  evlog_original("<%d>Try to dump OS stack, start(0x%0llx) end(0x%0llx):", dump.tid,
                 static_cast<unsigned long long>(words.low),
                 static_cast<unsigned long long>(words.high));
  vorn_dump_stack_ext(dump, {at, sum(at, kWidestStack)});
  if (dump.with_words) vorn_thread_dump_full_stack(dump.tid, at, words);
}

} // namespace

bool record_is_readable() {
  vorn_thread_s copy;
  static_assert(sizeof copy < 1024);
  return t_record == nullptr ||
         copy_foreign(reinterpret_cast<std::uintptr_t>(t_record), &copy, sizeof copy);
}

void vorn_dump_stack_ext(const StackDump &dump, const StackBounds &stack) {
  const FrameTable table{dump.tid};
  if (dump.called_from != 0) table.write_called_from(dump);
  FrameChain chain{dump.frame_pointer, stack};
  Frame frame{};
  for (unsigned int i = 0; i < kMostFrames; ++i) {
    if (chain.link() != Link::kGood || !copy_foreign(chain.at(), &frame, sizeof frame)) {
      // The row before this has reported a bad caller; the innermost frame has no row before it.
      if (i == 0) table.write_lost(chain);
      return;
    }
    FrameChain next = chain;
    next.follow(frame);
    if (table.write_frame(chain, frame, next)) return;
    chain = next;
  }
}

void vorn_thread_dump_full_stack(pid_t tid, std::uintptr_t stack_pointer,
                                 const StackBounds &stack) {
  const std::uintptr_t low = std::max(difference(stack_pointer, kBelow), stack.low);
  const std::uintptr_t begin = sum(low, kWord - 1) & ~(kWord - 1);
  const std::uintptr_t end = std::min(sum(begin, kMostBytes), stack.high);
  bool in_zeros = false;
  std::uintptr_t left = end > begin ? (end - begin) / kWord : 0;
  for (std::uintptr_t at = begin; left > 0; at += kLineWords * kWord) {
    const WordLine line{at, std::min(kLineWords, left)};
    left -= std::min(kLineWords, left);
    const bool zeros = line.readable() && line.zero();
    if (zeros && !in_zeros) line.write_zeros(tid);
    if (line.readable() && !zeros) line.write(tid);
    in_zeros = zeros;
  }
}

void vorn_thread_dump_sync_stack(const StackDump &dump) {
  const std::uintptr_t sp = dump.stack_pointer;
  const auto high = [](std::uintptr_t value) { return static_cast<unsigned int>(value >> 32); };
  const auto low = [](std::uintptr_t value) { return static_cast<unsigned int>(value); };
  evlog_original("<%d>Stack Info: RSP: 0x%x%08x RBP: 0x%x%08x", dump.tid, high(sp), low(sp),
                 high(dump.frame_pointer), low(dump.frame_pointer));
  StackBounds stack{};
  const char *kind = "INVALID_STACK";
  if (!record_is_readable() || vorn_thrd_getcurrentstack(sp, &stack.low, &stack.high, &kind) != 0) {
    evlog_original("<%d>(sync)can't find current stack info by stack addr(0x%0llx) desc(%s)",
                   dump.tid, static_cast<unsigned long long>(sp), kind);
    vorn_thread_dump_broken_stack(dump);
    return;
  }
  evlog_original("<%d>(sync)get %s, stack start(0x%0llx) end(0x%0llx)", dump.tid, kind,
                 static_cast<unsigned long long>(stack.low),
                 static_cast<unsigned long long>(stack.high));
  // The classifier counts an address just below the stack as part of it; so does this.
  vorn_dump_stack_ext(dump, {std::min(stack.low, sp), stack.high});
  if (dump.with_words) vorn_thread_dump_full_stack(dump.tid, sp, stack);
}

} // namespace vorn::thread

using namespace vorn::thread;

void vorn_thread_dump_stack() {
  const vorn::ErrnoGuard errno_stays;
  const vorn::CancellationGuard off;
  ucontext_t context;
  getcontext(&context);
  const vorn::arch::RegisterRecord registers = vorn::arch::registers_of(context);
  const unsigned long sp = registers.words[VORN_FAULT_SP];
  const unsigned long fp = registers.words[vorn::arch::kFramePointer];
  const pid_t tid = gettid();
  evlog_original("<%d>Start dump stack RIP=0x%lx RSP=0x%lx RBP=0x%lx CUR=0x%lx", tid,
                 static_cast<unsigned long>(registers.words[VORN_FAULT_PC]), sp, fp,
                 reinterpret_cast<unsigned long>(&context));
  vorn::StackBounds stack{};
  const char *kind = nullptr;
  if (!record_is_readable() || vorn_thrd_getcurrentstack(sp, &stack.low, &stack.high, &kind) != 0)
    stack = {sp, sp};
  vorn_dump_stack_ext({tid, sp, fp, 0, false}, stack);
}

void vorn_thread_exit_callback() {
  VORN_LOG(vorn::kError, "exit_callback!");
  vorn_thread_dump_stack();
}
