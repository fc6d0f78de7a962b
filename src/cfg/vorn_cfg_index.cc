#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_index.hpp"

#include <cstring>

#include "cfg/vorn_cfg_text.hpp"

namespace vorn::cfg {
namespace {

using Index = vorn_cfg_index;
using Slot = vorn_cfg_index::Slot;

constexpr std::uint32_t kFirstSize = 64;

// The hash of a section's own slot starts from here, that of an item's from its section's address.
constexpr std::uint64_t kSectionSeed = 0;

std::uint32_t hash_of(std::uint64_t seed, std::string_view name) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15; // 2^64 divided by the golden ratio
  std::uint64_t hash = (seed ^ name.size()) * kFactor;
  const char *at = name.data();
  std::size_t left = name.size();
  for (; left >= sizeof(std::uint64_t);
       left -= sizeof(std::uint64_t), at += sizeof(std::uint64_t)) {
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    hash = (hash ^ word) * kFactor;
    hash ^= hash >> 32;
  }
  for (; left > 0; --left, ++at)
    hash = (hash ^ static_cast<unsigned char>(*at)) * kFactor;
  return static_cast<std::uint32_t>(hash >> 32);
}

std::uint64_t seed_of(const vorn_cfg_section_node_s *section) {
  return reinterpret_cast<std::uintptr_t>(section);
}

bool is_equal(const char *text, std::string_view name) {
  return std::strncmp(text, name.data(), name.size()) == 0 && text[name.size()] == '\0';
}

// The slot that matches, or the free one where it would be.
template <class Match> Slot *probe(const Index &index, std::uint32_t hash, Match match) {
  std::uint32_t at = hash;
  for (;; ++at) {
    Slot *slot = &index.slots[at & (index.size - 1)];
    if (slot->section == nullptr || (slot->hash == hash && match(*slot))) return slot;
  }
}

Slot *probe_section(const Index &index, std::uint32_t hash, std::string_view name) {
  return probe(index, hash, [&](const Slot &slot) {
    return slot.item == nullptr && is_equal(slot.section->name, name);
  });
}

Slot *probe_item(const Index &index, std::uint32_t hash, const vorn_cfg_section_node_s *section,
                 std::string_view name) {
  return probe(index, hash, [&](const Slot &slot) {
    return slot.section == section && slot.item != nullptr && is_equal(slot.item->name, name);
  });
}

Slot *new_slots(std::uint32_t size) {
  auto *slots = static_cast<Slot *>(allocate(size * sizeof(Slot)));
  if (slots != nullptr) std::memset(static_cast<void *>(slots), 0, size * sizeof(Slot));
  return slots;
}

bool grow(Index *index) {
  const Index old = *index;
  index->slots = new_slots(old.size * 2);
  if (index->slots == nullptr) {
    index->slots = old.slots;
    return false;
  }
  index->size = old.size * 2;
  for (std::uint32_t i = 0; i < old.size; ++i) {
    const Slot &slot = old.slots[i];
    if (slot.section == nullptr) continue;
    *probe(*index, slot.hash, [](const Slot &) { return false; }) = slot;
  }
  vorn_free(old.slots);
  return true;
}

// Half of the slots stay free. An index that cannot grow is given up.
Index *with_room(vorn_cfg_file_node_s *node) {
  Index *index = node->index;
  if (index == nullptr || index->used < index->size / 2 || grow(index)) return index;
  index_drop(node);
  return nullptr;
}

void fill(Index *index, Slot *slot, const Slot &content) {
  if (slot->section == nullptr) ++index->used;
  *slot = content;
}

} // namespace

void index_start(vorn_cfg_file_node_s *node) {
  auto *index = static_cast<Index *>(allocate(sizeof(Index)));
  if (index == nullptr) return;
  *index = {new_slots(kFirstSize), kFirstSize, 0};
  if (index->slots == nullptr) {
    vorn_free(index);
    return;
  }
  node->index = index;
}

void index_drop(vorn_cfg_file_node_s *node) {
  if (node->index == nullptr) return;
  vorn_free(node->index->slots);
  vorn_free(node->index);
  node->index = nullptr;
}

// From the end, so that the first of equal names comes last and stays.
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
  return probe_section(*node->index, hash_of(kSectionSeed, name), name)->section;
}

vorn_cfg_item_node_s *index_find_item(const vorn_cfg_file_node_s *node,
                                      const vorn_cfg_section_node_s *section,
                                      std::string_view name) {
  return probe_item(*node->index, hash_of(seed_of(section), name), section, name)->item;
}

void index_enter_section(vorn_cfg_file_node_s *node, vorn_cfg_section_node_s *section) {
  Index *index = with_room(node);
  if (index == nullptr) return;
  const std::string_view name = section->name;
  const std::uint32_t hash = hash_of(kSectionSeed, name);
  fill(index, probe_section(*index, hash, name), {section, nullptr, hash});
}

void index_enter_item(vorn_cfg_file_node_s *node, vorn_cfg_section_node_s *section,
                      vorn_cfg_item_node_s *item) {
  Index *index = with_room(node);
  if (index == nullptr) return;
  const std::string_view name = item->name;
  const std::uint32_t hash = hash_of(seed_of(section), name);
  fill(index, probe_item(*index, hash, section, name), {section, item, hash});
}

} // namespace vorn::cfg
