// Implements the hash index of a parsed file.
//
// 1. The tables have open addressing. A name is in the first slot, from that of its hash on, that
//    is free or has the name already.
// 2. If three quarters of the slots are used, the next name first moves all entries to a table of
//    four times the size.
// 3. If memory for that runs out, the library drops the index, and lookups walk the lists.
// 4. The sections have a separate table, which is small and stays in the cache.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_index.hpp"

#include <bit>
#include <cstring>
#include <utility>

#include "cfg/vorn_cfg_limits.hpp"
#include "mem/owned.hpp"

namespace vorn::cfg {
namespace {

using Index = vorn_cfg_index;
using Slot = vorn_cfg_index::Slot;
using Table = vorn_cfg_index::Table;

constexpr std::uint32_t kFirstSections = 16;
constexpr std::uint32_t kFirstItems = 64;
constexpr std::uint32_t kGrowth = 4;
constexpr std::size_t kWord = sizeof(std::uint64_t);

template <class Word> std::uint64_t load(const char *at) {
  Word word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

// Returns the last 8 characters; all of a shorter text. Texts of the same size that end differently
// have different words.
std::uint64_t last_word(const char *text, std::size_t size) {
  const char *end = text + size;
  if (size >= kWord) return load<std::uint64_t>(end - kWord);
  if (size >= kWord / 2)
    return load<std::uint32_t>(text) | load<std::uint32_t>(end - kWord / 2) << 32;
  if (size == 0) return 0;
  return load<std::uint8_t>(text) | load<std::uint8_t>(text + size / 2) << 8 |
         load<std::uint8_t>(end - 1) << 16;
}

// Each step is reversible. The highest bits depend on all of hash and word.
std::uint64_t mix(std::uint64_t hash, std::uint64_t word) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15; // odd
  hash = (hash ^ word) * kFactor;
  return hash ^ (hash >> 32);
}

std::uint64_t hash_of(std::string_view name) {
  std::uint64_t hash = name.size();
  for (std::size_t at = 0; at + kWord < name.size(); at += kWord)
    hash = mix(hash, load<std::uint64_t>(name.data() + at));
  return mix(hash, last_word(name.data(), name.size()));
}

// For one name, different sections give different hashes: if the hash and the name are equal, the
// section is equal too. The hash of the name does not depend on the section, so that the processor
// computes it while it finds the section.
std::uint64_t hash_of(const vorn_cfg_section_node_s *section, std::string_view name) {
  return mix(reinterpret_cast<std::uintptr_t>(section), hash_of(name));
}

// text is the name of a node, which has room for kNameSize characters.
bool is_equal(const char *text, std::string_view name) {
  if (name.size() >= kNameSize) return false;
  for (std::size_t at = 0; at + kWord < name.size(); at += kWord) {
    if (load<std::uint64_t>(text + at) != load<std::uint64_t>(name.data() + at)) return false;
  }
  return last_word(text, name.size()) == last_word(name.data(), name.size()) &&
         text[name.size()] == '\0';
}

// Returns the first slot from that of the hash on for which test(slot) is true.
template <class Test> Slot *probe(const Table &table, std::uint64_t hash, Test test) {
  for (std::uint64_t at = hash >> table.shift;; ++at) {
    Slot *slot = &table.slots[at & (table.size - 1)];
    if (test(*slot)) return slot;
  }
}

// Returns the slot of the name, or the free slot where it belongs.
Slot *find(const Table &table, std::uint64_t hash, std::string_view name) {
  return probe(table, hash, [=](const Slot &slot) {
    return slot.name == nullptr || (slot.hash == hash && is_equal(slot.name, name));
  });
}

// Returns a table without slots if memory runs out.
Table new_table(std::uint32_t size) {
  auto *slots = static_cast<Slot *>(mem::allocate(size * sizeof(Slot)));
  if (slots != nullptr) std::memset(static_cast<void *>(slots), 0, size * sizeof(Slot));
  return {slots, size, static_cast<std::uint32_t>(64 - std::countr_zero(size)), 0};
}

bool grow(Table *table) {
  Table larger = new_table(table->size * kGrowth);
  if (larger.slots == nullptr) return false;
  for (std::uint32_t i = 0; i < table->size; ++i) {
    const Slot &old = table->slots[i];
    if (old.name != nullptr)
      *probe(larger, old.hash, [](const Slot &slot) { return slot.name == nullptr; }) = old;
  }
  larger.used = table->used;
  vorn_free(table->slots);
  *table = larger;
  return true;
}

// Returns the node that had the name before, or null. If the table cannot grow, drops the index.
char *enter(vorn_cfg_file_node_s *node, Table *table, std::uint64_t hash, char *name) {
  const std::string_view text = name;
  if (table->used >= table->size / 4 * 3 && !grow(table)) {
    char *old = find(*table, hash, text)->name;
    index_drop(node);
    return old;
  }
  Slot *slot = find(*table, hash, text);
  if (slot->name == nullptr) ++table->used;
  slot->hash = hash;
  return std::exchange(slot->name, name);
}

vorn_cfg_section_node_s *section_of(char *name) {
  return name == nullptr ? nullptr : vorn_list_entry(name, vorn_cfg_section_node_s, name);
}

vorn_cfg_item_node_s *item_of(char *name) {
  return name == nullptr ? nullptr : vorn_list_entry(name, vorn_cfg_item_node_s, name);
}

} // namespace

void index_start(vorn_cfg_file_node_s *node) {
  mem::Owned<Index> index = mem::create<Index>();
  if (index == nullptr) return;
  node->index = index.release();
  *node->index = {new_table(kFirstSections), new_table(kFirstItems)};
  if (node->index->sections.slots == nullptr || node->index->items.slots == nullptr)
    index_drop(node);
}

void index_drop(vorn_cfg_file_node_s *node) {
  if (node->index == nullptr) return;
  for (Slot *slots : {node->index->sections.slots, node->index->items.slots}) {
    if (slots != nullptr) vorn_free(slots);
  }
  vorn_free(node->index);
  node->index = nullptr;
}

// Backwards, so that the first of equal names is entered last and stays.
void index_build(vorn_cfg_file_node_s *node) {
  index_drop(node);
  index_start(node);
  for (vorn_list_head_s *at = node->sections.prev; at != &node->sections; at = at->prev) {
    auto *section = vorn_list_entry(at, vorn_cfg_section_node_s, link);
    index_enter_section(node, section);
    for (vorn_list_head_s *of = section->items.prev; of != &section->items; of = of->prev)
      index_enter_item(node, section, vorn_list_entry(of, vorn_cfg_item_node_s, link));
  }
}

[[gnu::flatten]] vorn_cfg_section_node_s *index_find_section(const vorn_cfg_file_node_s *node,
                                                             std::string_view name) {
  return section_of(find(node->index->sections, hash_of(name), name)->name);
}

[[gnu::flatten]] vorn_cfg_item_node_s *index_find_item(const vorn_cfg_file_node_s *node,
                                                       const vorn_cfg_section_node_s *section,
                                                       std::string_view name) {
  return item_of(find(node->index->items, hash_of(section, name), name)->name);
}

vorn_cfg_section_node_s *index_enter_section(vorn_cfg_file_node_s *node,
                                             vorn_cfg_section_node_s *section) {
  if (node->index == nullptr) return nullptr;
  return section_of(enter(node, &node->index->sections, hash_of(section->name), section->name));
}

vorn_cfg_item_node_s *index_enter_item(vorn_cfg_file_node_s *node,
                                       const vorn_cfg_section_node_s *section,
                                       vorn_cfg_item_node_s *item) {
  if (node->index == nullptr) return nullptr;
  return item_of(enter(node, &node->index->items, hash_of(section, item->name), item->name));
}

} // namespace vorn::cfg
