// Holds the symbols of the objects that are loaded at one moment. It does not change after it is
// published.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYMBOL_TABLE_HPP
#define VORN_SYMBOL_TABLE_HPP

#include <cstdint>

#include "symbol/memory.hpp"
#include "symbol/object.hpp"
#include "symbol/vorn_symbol.hpp"

namespace vorn::symbol {

class Table {
public:
  Table() = default;
  Table(const Table &) = delete;
  Table &operator=(const Table &) = delete;
  ~Table();

  // Fills an empty table from the objects that are loaded now. Shares those that previous, which
  // may be NULL, already has. Returns false if memory runs out.
  bool fill(const Table *previous);

  bool lookup(std::uintptr_t address, Symbol *out) const;
  bool find_object(std::uintptr_t address, Symbol *out) const;

  Table *next_retired = nullptr;

private:
  bool take_loaded();
  bool add(const dl_phdr_info &info, bool is_program);
  bool read(const Table *previous);
  void sort();
  Object *object_at(std::uintptr_t address) const;
  Object *find_same(const Image &image) const;

  Buffer<Object *> objects_; // ascending by the address of their code
};

} // namespace vorn::symbol

#endif
