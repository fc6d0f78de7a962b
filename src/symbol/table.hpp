// The symbols of the objects that were loaded at one moment. Once it is published nothing in it
// changes.
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

  // Fills an empty table from the objects that are loaded now; of those that previous (may be NULL)
  // has already, it shares what was read. False when memory ran out.
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

  Buffer<Object *> objects_; // ascending by their code
};

} // namespace vorn::symbol

#endif
