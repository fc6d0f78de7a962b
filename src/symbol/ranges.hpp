// Turns the functions of a symbol table, which may be nested, overlap and have several names, into
// ranges of addresses that belong to one function each.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYMBOL_RANGES_HPP
#define VORN_SYMBOL_RANGES_HPP

#include <cstdint>

#include "symbol/memory.hpp"

namespace vorn::symbol {

struct Function {
  std::uintptr_t start;
  std::uintptr_t size;  // 0 if unknown
  std::uintptr_t limit; // above start: the end of the surrounding code
  const char *name;
  unsigned char binding; // of the ELF symbol: STB_GLOBAL, STB_WEAK, STB_LOCAL or another
};

struct Range {
  std::uintptr_t begin;
  std::uintptr_t end;
  const Function *function;
};

// Appends the ranges in ascending order, without overlap. An address belongs to the function of
// known size that contains it and starts last. Of several that start there, a global one precedes a
// weak one, and a weak one all others; then the longest one precedes; then the one whose name is
// last in byte order. An address that no such function contains belongs to the function of unknown
// size before it, unless another function starts or ends in between.
//
// Sorts the functions; the ranges point to them. Returns false if memory runs out.
bool resolve(Buffer<Function> &functions, Buffer<Range> *ranges);

} // namespace vorn::symbol

#endif
