// Implements the hash index of a parsed file.
//
// 1. The table has open addressing. A name is in the first slot, from that of its hash on, that is
//    free or has the name already.
// 2. If three quarters of the slots are used, the next name first moves all entries to a table of
//    four times the size.
// 3. If memory for that runs out, the library drops the index, and lookups walk the lists.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_index.hpp"

#include <cstring>
#include <utility>

#include "mem/owned.hpp"

namespace vorn::cfg {
namespace {

using Index = vorn_cfg_index;
using Slot = vorn_cfg_index::Slot;

constexpr std::uint32_t kFirstSize = 64;
constexpr std::uint32_t kGrowth = 4;
constexpr std::uint64_t kNoSection = 0; // the seed of the hash of a section's name

// Returns the seed of the hash of an item's name.
std::uint64_t seed_of(const vorn_cfg_section_node_s *section) {
  return reinterpret_cast<std::uintptr_t>(section);
}

std::uint64_t load(const char *at) {
  std::uint64_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

// Each step is reversible, so that different seeds give different hashes for the same name: if the
// hash and the name are equal, the section is equal too.
std::uint64_t mix(std::uint64_t hash, std::uint64_t word) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15; // odd
  hash = (hash ^ word) * kFactor;
  return hash ^ (hash >> 32);
}

// The last step mixes the last characters into the low bits.
std::uint64_t hash_of(std::uint64_t seed, std::string_view name) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  std::uint64_t hash = mix(seed, name.size());
  const char *at = name.data();
  const char *end = at + name.size();
  for (; end - at > static_cast<std::ptrdiff_t>(kWord); at += kWord)
    hash = mix(hash, load(at));
  std::uint64_t last = 0;
  if (name.size() >= kWord) {
    last = load(end - kWord);
  } else {
    for (; at != end; ++at)
      last = last << 8 | static_cast<unsigned char>(*at);
  }
  return mix(mix(hash, last), 0);
}

bool is_equal(const char *text, std::string_view name) {
  return std::strncmp(text, name.data(), name.size()) == 0 && text[name.size()] == '\0';
}

// Returns the slot of the name, or the free slot where it belongs.
Slot *probe(const Index &index, std::uint64_t hash, std::string_view name) {
  for (std::uint64_t at = hash;; ++at) {
    Slot *slot = &index.slots[at & (index.size - 1)];
    if (slot->name == nullptr || (slot->hash == hash && is_equal(slot->name, name))) return slot;
  }
}

Slot *new_slots(std::uint32_t size) {
  auto *slots = static_cast<Slot *>(mem::allocate(size * sizeof(Slot)));
  if (slots != nullptr) std::memset(static_cast<void *>(slots), 0, size * sizeof(Slot));
  return slots;
}

bool grow(Index *index) {
  const Index old = *index;
  Slot *slots = new_slots(old.size * kGrowth);
  if (slots == nullptr) return false;
  index->slots = slots;
  index->size = old.size * kGrowth;
  for (std::uint32_t i = 0; i < old.size; ++i) {
    if (old.slots[i].name == nullptr) continue;
    std::uint64_t at = old.slots[i].hash;
    while (slots[at & (index->size - 1)].name != nullptr)
      ++at;
    slots[at & (index->size - 1)] = old.slots[i];
  }
  vorn_free(old.slots);
  return true;
}

// Returns the node that had the name before, or null. If the index cannot grow, drops the index.
char *enter(vorn_cfg_file_node_s *node, std::uint64_t seed, char *name) {
  Index *index = node->index;
  if (index->used >= index->size / 4 * 3 && !grow(index)) {
    char *old = probe(*index, hash_of(seed, name), name)->name;
    index_drop(node);
    return old;
  }
  const std::uint64_t hash = hash_of(seed, name);
  Slot *slot = probe(*index, hash, name);
  if (slot->name == nullptr) ++index->used;
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
  *index = {new_slots(kFirstSize), kFirstSize, 0};
  if (index->slots != nullptr) node->index = index.release();
}

void index_drop(vorn_cfg_file_node_s *node) {
  if (node->index == nullptr) return;
  vorn_free(node->index->slots);
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

vorn_cfg_section_node_s *index_find_section(const vorn_cfg_file_node_s *node,
                                            std::string_view name) {
  return section_of(probe(*node->index, hash_of(kNoSection, name), name)->name);
}

vorn_cfg_item_node_s *index_find_item(const vorn_cfg_file_node_s *node,
                                      const vorn_cfg_section_node_s *section,
                                      std::string_view name) {
  return item_of(probe(*node->index, hash_of(seed_of(section), name), name)->name);
}

vorn_cfg_section_node_s *index_enter_section(vorn_cfg_file_node_s *node,
                                             vorn_cfg_section_node_s *section) {
  if (node->index == nullptr) return nullptr;
  return section_of(enter(node, kNoSection, section->name));
}

vorn_cfg_item_node_s *index_enter_item(vorn_cfg_file_node_s *node,
                                       const vorn_cfg_section_node_s *section,
                                       vorn_cfg_item_node_s *item) {
  if (node->index == nullptr) return nullptr;
  return item_of(enter(node, seed_of(section), item->name));
}

} // namespace vorn::cfg
