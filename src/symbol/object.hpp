// Describes a loaded object and its functions. It does not change after it was read, so that
// several tables may share it.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYMBOL_OBJECT_HPP
#define VORN_SYMBOL_OBJECT_HPP

#include <cstdint>
#include <link.h>

#include "symbol/image.hpp"
#include "symbol/memory.hpp"
#include "symbol/ranges.hpp"
#include "symbol/vorn_symbol.hpp"

namespace vorn::symbol {

enum class Outcome { kRead, kUnreadable, kNoMemory };

class Object {
public:
  bool take(const dl_phdr_info &info, bool is_program) { return image_.take(info, is_program); }
  const Image &image() const { return image_; }

  // Reads the functions from the object's file.
  Outcome read();

  bool lookup(std::uintptr_t address, Symbol *out) const;

  // The number of tables that contain it. Guarded by the mutex for changes of the table.
  unsigned int holders = 1;

private:
  struct Entry {
    std::uintptr_t begin;
    std::uintptr_t end;
    std::uintptr_t start; // of the function; it may have several ranges
    std::size_t name;     // the index of the name in names_
  };

  bool keep(const Buffer<Range> &ranges);
  bool keep_name(const char *name);

  Image image_;
  Buffer<Entry> entries_; // ascending, without overlap
  Buffer<char> names_;
};

} // namespace vorn::symbol

#endif
