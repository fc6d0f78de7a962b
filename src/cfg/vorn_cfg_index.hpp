// Finds sections and items by their names without walking: what a file of 100,000 items needs while
// it is parsed, and a lookup afterwards. The index answers as a walk along the lists would, with
// the first of several equal names. It exists only while the library alone changes the lists:
// during a parse and in the registry. Without memory for it there is none, and the lists are
// walked.
#ifndef VORN_CFG_INDEX_HPP
#define VORN_CFG_INDEX_HPP

#include <cstdint>
#include <string_view>

#include "vorn_cfg.h"

// A hash table with open addressing over the names in the nodes.
struct vorn_cfg_index {
  struct Slot {
    std::uint64_t hash;
    char *name; // the name of a section or an item, null: the slot is free
  };

  Slot *slots;
  std::uint32_t size; // a power of 2
  std::uint32_t used;
};

namespace vorn::cfg {

// Gives a node without sections an index, if there is memory.
void index_start(vorn_cfg_file_node_s *node);

// Gives node, whatever it holds, an index, if there is memory.
void index_build(vorn_cfg_file_node_s *node);

// Before a caller may change the lists.
void index_drop(vorn_cfg_file_node_s *node);

// The lookups; null when there is no such name. node has an index.
vorn_cfg_section_node_s *index_find_section(const vorn_cfg_file_node_s *node,
                                            std::string_view name);
vorn_cfg_item_node_s *index_find_item(const vorn_cfg_file_node_s *node,
                                      const vorn_cfg_section_node_s *section,
                                      std::string_view name);

// Enter a section or an item, if node has an index. One of the same name, which must still exist,
// makes room for it and is returned.
vorn_cfg_section_node_s *index_enter_section(vorn_cfg_file_node_s *node,
                                             vorn_cfg_section_node_s *section);
vorn_cfg_item_node_s *index_enter_item(vorn_cfg_file_node_s *node,
                                       const vorn_cfg_section_node_s *section,
                                       vorn_cfg_item_node_s *item);

} // namespace vorn::cfg

#endif
