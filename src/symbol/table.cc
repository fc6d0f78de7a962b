// Fills the table of symbols and searches it.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_symbol.c"

#include "symbol/table.hpp"

#include <algorithm>
#include <cstring>
#include <link.h>

#include "base/log.hpp"

namespace vorn::symbol {
namespace {

void drop(Object *object) {
  if (object != nullptr && --object->holders == 0) mem::Release()(object);
}

// The program is the first object and has no name. Any other object whose name is no path, such as
// the one that the kernel maps into every process, has no file.
bool has_file(const dl_phdr_info &info, bool is_program) {
  return is_program || std::strchr(info.dlpi_name, '/') != nullptr;
}

} // namespace

Table::~Table() {
  for (Object *object : objects_)
    drop(object);
}

bool Table::fill(const Table *previous) {
  if (!take_loaded() || !read(previous)) return false;
  sort();
  return true;
}

bool Table::lookup(std::uintptr_t address, Symbol *out) const {
  const Object *object = object_at(address);
  return object != nullptr && object->lookup(address, out);
}

bool Table::find_object(std::uintptr_t address, Symbol *out) const {
  const Object *object = object_at(address);
  if (object == nullptr) return false;
  const Image &image = object->image();
  if (image.code_at(address - image.base()) == nullptr) return false;
  *out = {nullptr, image.base(), image.name()};
  return true;
}

// The loader holds its lock during the walk, so the table reads files and logs messages later.
bool Table::take_loaded() {
  struct Walk {
    Table *table;
    bool is_program;
  } walk{this, true};
  const auto visit = [](dl_phdr_info *info, std::size_t, void *argument) {
    auto *self = static_cast<Walk *>(argument);
    const bool added = self->table->add(*info, self->is_program);
    self->is_program = false;
    return added ? 0 : -1;
  };
  return dl_iterate_phdr(visit, &walk) == 0;
}

bool Table::add(const dl_phdr_info &info, bool is_program) {
  if (!has_file(info, is_program)) return true;
  mem::Owned<Object> object = mem::create_quietly<Object>();
  if (object == nullptr || !object->take(info, is_program)) return false;
  if (!object->image().has_code()) return true;
  if (!objects_.append(object.get())) return false;
  object.release();
  return true;
}

bool Table::read(const Table *previous) {
  for (Object *&object : objects_) {
    Object *same = previous == nullptr ? nullptr : previous->find_same(object->image());
    if (same != nullptr) {
      ++same->holders;
      drop(object);
      object = same;
      continue;
    }
    const Outcome outcome = object->read();
    if (outcome == Outcome::kNoMemory) return false;
    if (outcome == Outcome::kRead) continue;
    VORN_LOG_AS("vorn_symbol_init", kInfo, "Symbols of %s are not known.", object->image().name());
    drop(object);
    object = nullptr;
  }
  return true;
}

void Table::sort() {
  Object **end = std::remove(objects_.begin(), objects_.end(), nullptr);
  objects_.truncate(static_cast<std::size_t>(end - objects_.begin()));
  std::sort(objects_.begin(), objects_.end(), [](const Object *a, const Object *b) {
    return a->image().code_begin() < b->image().code_begin();
  });
}

Object *Table::object_at(std::uintptr_t address) const {
  const auto starts_behind = [](std::uintptr_t at, const Object *object) {
    return at < object->image().code_begin();
  };
  Object *const *next = std::upper_bound(objects_.begin(), objects_.end(), address, starts_behind);
  if (next == objects_.begin()) return nullptr;
  Object *object = next[-1];
  return address < object->image().code_end() ? object : nullptr;
}

Object *Table::find_same(const Image &image) const {
  Object *object = object_at(image.code_begin());
  return object != nullptr && object->image().same_as(image) ? object : nullptr;
}

} // namespace vorn::symbol
