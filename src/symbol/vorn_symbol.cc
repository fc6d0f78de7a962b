// How a table goes while signal handlers may be looking into it:
//
// A reader first counts itself in, then takes the published table; it counts itself out when it has
// done with what it found. Who changes the table first takes it off the published pointer, then
// looks at the count. All four are sequentially consistent, so when the count is seen as 0, every
// reader that came before has gone (and its accesses are over), and every later one finds the new
// table: nobody has the old one, and it is freed. Otherwise it is kept, and the next change that
// finds the count at 0 frees it.
//
// So nobody ever waits for a reader. Waiting would deadlock where the reader is the waiting
// thread's own, below it on the stack, or one that never gets done: a thread that ended in its
// handler, or, in the child of a fork, any thread that was reading in the parent. Such a reader
// costs memory only, and little of it: tables share the objects that did not change between them.
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
constinit Table *retired = nullptr; // under change

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

// A text of bounded size that takes what fits.
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
  char *last_; // room for the NUL
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
