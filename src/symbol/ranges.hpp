// From functions as a symbol table lists them, nested, overlapping and under several names, to
// ranges of addresses that belong to one function each.
#ifndef VORN_SYMBOL_RANGES_HPP
#define VORN_SYMBOL_RANGES_HPP

#include <cstdint>

#include "symbol/memory.hpp"

namespace vorn::symbol {

struct Function {
  std::uintptr_t start;
  std::uintptr_t size;  // 0: not known
  std::uintptr_t limit; // above start; where the code around it ends, nothing goes beyond it
  const char *name;
  unsigned char binding; // of the ELF symbol: STB_GLOBAL, STB_WEAK, STB_LOCAL or another
};

struct Range {
  std::uintptr_t begin;
  std::uintptr_t end;
  const Function *function;
};

// Appends the ranges in ascending order; they do not overlap. An address belongs to the function of
// known size that contains it and starts last; of several that start there, to the global before
// the weak before the others, then to the longest, then to the name that is last in byte order (the
// plain one before the one with underscores in front). An address that none contains belongs to
// the function of unknown size before it, unless another starts or a known one ends in between.
//
// Sorts the functions; the ranges point at them. False when memory ran out.
bool resolve(Buffer<Function> &functions, Buffer<Range> *ranges);

} // namespace vorn::symbol

#endif
