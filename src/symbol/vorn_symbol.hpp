// Declares lookups in the symbol table for the library's own post-mortem code.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYMBOL_HPP
#define VORN_SYMBOL_HPP

#include <cstdint>

namespace vorn::symbol {

class Table;

struct Symbol {
  const char *name;     // of the function; demangled
  std::uintptr_t start; // its first address
  const char *object;   // the file it was loaded from
};

// Keeps the current table for the lifetime of this object, so that the results of its lookups stay
// valid, whatever vorn_symbol_init and vorn_symbol_fini do meanwhile. Any thread and any signal
// handler may use it; it does not block, allocate or change errno. Keep it only for one report: the
// memory of old tables is freed only while no reader exists.
class Reader {
public:
  Reader();
  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;
  ~Reader();

  // Returns false before start-up and after shutdown: no address is known then.
  bool has_table() const { return table_ != nullptr; }

  // Finds the function that contains address. Returns false and leaves *out alone if none is known.
  bool lookup(std::uintptr_t address, Symbol *out) const;

  // Finds the object whose code contains address. Sets its file, the address that the file's
  // addresses are relative to as start, and no name. Returns false as above.
  bool find_object(std::uintptr_t address, Symbol *out) const;

private:
  const Table *table_;
};

} // namespace vorn::symbol

#endif
