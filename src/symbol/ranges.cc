// Turns functions into ranges of addresses.
// SPDX-License-Identifier: Apache-2.0
#include "symbol/ranges.hpp"

#include <algorithm>
#include <cstring>
#include <elf.h>

namespace vorn::symbol {
namespace {

int rank(unsigned char binding) {
  switch (binding) {
  case STB_GLOBAL:
    return 2;
  case STB_WEAK:
    return 1;
  default:
    return 0;
  }
}

// Orders by start; of functions with the same start, the preferred one is last.
bool is_before(const Function &a, const Function &b) {
  if (a.start != b.start) return a.start < b.start;
  if ((a.size == 0) != (b.size == 0)) return a.size == 0;
  if (rank(a.binding) != rank(b.binding)) return rank(a.binding) < rank(b.binding);
  if (a.size != b.size) return a.size < b.size;
  return std::strcmp(a.name, b.name) < 0;
}

std::uintptr_t known_end(const Function &function) {
  return function.start + std::min(function.size, function.limit - function.start);
}

struct Open {
  const Function *function;
  std::uintptr_t end;
};

// Walks up the addresses with a stack of the open functions. The top function owns the addresses
// until it ends or another function opens.
class Sweep {
public:
  explicit Sweep(Buffer<Range> *ranges) : ranges_(ranges) {}

  bool advance(std::uintptr_t address) {
    while (is_inside() && top().end <= address) {
      if (!give_top(top().end)) return false;
      open_.truncate(open_.size() - 1);
    }
    if (is_inside() && !give_top(address)) return false;
    at_ = address;
    return true;
  }

  bool is_inside() const { return open_.size() != 0; }

  bool open(const Function &function, std::uintptr_t end) { return open_.append({&function, end}); }

private:
  const Open &top() const { return *(open_.end() - 1); }

  // The functions below the top may have ended before it.
  bool give_top(std::uintptr_t end) {
    if (end <= at_) return true;
    if (!ranges_->append({at_, end, top().function})) return false;
    at_ = end;
    return true;
  }

  Buffer<Range> *ranges_;
  Buffer<Open> open_;
  std::uintptr_t at_ = 0;
};

} // namespace

bool resolve(Buffer<Function> &functions, Buffer<Range> *ranges) {
  std::sort(functions.begin(), functions.end(), is_before);
  Sweep sweep(ranges);
  for (const Function &function : functions) {
    if (!sweep.advance(function.start)) return false;
    std::uintptr_t end = known_end(function);
    if (function.size == 0) {
      if (sweep.is_inside()) continue;
      const Function *next = &function + 1;
      end = next == functions.end() ? function.limit : std::min(next->start, function.limit);
    }
    if (!sweep.open(function, end)) return false;
  }
  return sweep.advance(UINTPTR_MAX);
}

} // namespace vorn::symbol
