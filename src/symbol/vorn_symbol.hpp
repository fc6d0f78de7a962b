// Lookups in the symbol table for the library's own post-mortem code.
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

// Holds the table that is in force while it lives, so that what its lookups yield stays valid until
// it goes, whatever vorn_symbol_init and vorn_symbol_fini do meanwhile. Any thread may use one, and
// a signal handler; nothing here blocks, allocates or changes errno. Keep it for one report: memory
// of older tables is released only when no reader lives.
class Reader {
public:
  Reader();
  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;
  ~Reader();

  // False before start-up and after shutdown: nothing is known of any address.
  bool has_table() const { return table_ != nullptr; }

  // The function that contains address. False, with *out untouched, when none is known.
  bool lookup(std::uintptr_t address, Symbol *out) const;

  // The object whose code contains address, named or not: its file, and as start the address that
  // its file's addresses count from; no name. False as above.
  bool find_object(std::uintptr_t address, Symbol *out) const;

private:
  const Table *table_;
};

} // namespace vorn::symbol

#endif
