// Publishes the symbol table, and frees old tables while signal handlers may be reading.
//
// 1. A reader increments the count of readers, then loads the published table. It decrements the
//    count when it no longer uses what it found.
// 2. A thread that changes the table replaces the published pointer, then reads the count.
// 3. If the count is 0, the thread frees the old table. Otherwise it keeps the table, and the next
//    change that finds the count at 0 frees it.
//
// All four accesses are sequentially consistent. So if the count is read as 0, every earlier reader
// has finished its accesses, and every later one finds the new table: no thread uses the old one.
//
// No thread waits for a reader. Waiting would deadlock if the waiting thread has interrupted the
// reader by a signal, or if the reader never finishes: a thread that ended in its handler or, in a
// child of fork(), any thread that was reading in the parent. Such a reader only costs memory, and
// little: tables share the objects that did not change between them.
// SPDX-License-Identifier: Apache-2.0
#include "symbol/vorn_symbol.hpp"

#include <atomic>

#include "base/log.hpp"
#include "base/mutex.hpp"
#include "mem/owned.hpp"
#include "symbol/table.hpp"
#include "vorn_symbol.h"

namespace vorn::symbol {
namespace {

constexpr char kUnknown[] = "unknown";

constinit Mutex change;
constinit Table *retired = nullptr; // guarded by change

constinit std::atomic<Table *> published{nullptr};
constinit std::atomic<unsigned int> readers{0};
static_assert(decltype(published)::is_always_lock_free && decltype(readers)::is_always_lock_free);

void free_retired() {
  while (retired != nullptr) {
    Table *table = retired;
    retired = table->next_retired;
    mem::Release()(table);
  }
}

void publish(Table *table) {
  Table *old = published.exchange(table);
  if (old != nullptr) {
    old->next_retired = retired;
    retired = old;
  }
  if (readers.load() == 0) free_retired();
}

mem::Owned<Table> build() {
  mem::Owned<Table> table = mem::create_quietly<Table>();
  if (table != nullptr && !table->fill(published.load())) table = nullptr;
  return table;
}

// A text of bounded size; what does not fit is cut.
class Text {
public:
  Text(char *buffer, std::size_t size) : at_(buffer), last_(buffer + size - 1) { *at_ = '\0'; }

  void append(const char *text) {
    while (*text != '\0' && at_ != last_)
      *at_++ = *text++;
    *at_ = '\0';
  }

  void append_hex(std::uintptr_t value) {
    char digits[2 * sizeof value + 1];
    char *first = digits + sizeof digits - 1;
    *first = '\0';
    do {
      *--first = "0123456789abcdef"[value % 16];
      value /= 16;
    } while (value != 0);
    append(first);
  }

private:
  char *at_;
  char *last_; // where the NUL still fits
};

} // namespace

Reader::Reader() {
  readers.fetch_add(1);
  table_ = published.load();
}

Reader::~Reader() { readers.fetch_sub(1); }

bool Reader::lookup(std::uintptr_t address, Symbol *out) const {
  return table_ != nullptr && table_->lookup(address, out);
}

bool Reader::find_object(std::uintptr_t address, Symbol *out) const {
  return table_ != nullptr && table_->find_object(address, out);
}

} // namespace vorn::symbol

using namespace vorn::symbol;

int vorn_symbol_init() {
  vorn::MutexGuard hold{change};
  vorn::mem::Owned<Table> table = build();
  if (table == nullptr) return VORN_FAIL(-1, "Symbol table init failed, no memory.");
  publish(table.release());
  return 0;
}

void vorn_symbol_fini() {
  vorn::MutexGuard hold{change};
  publish(nullptr);
}

int vorn_symbol_addr_to_string(uintptr_t address, char *buffer, size_t size) {
  if (buffer == nullptr || size == 0) return -1;
  const Reader reader;
  Symbol symbol{kUnknown, 0, nullptr};
  const bool known = reader.lookup(address, &symbol);
  Text text(buffer, size);
  text.append(symbol.name);
  text.append("+0x");
  text.append_hex(address - symbol.start);
  return known ? 0 : -1;
}
