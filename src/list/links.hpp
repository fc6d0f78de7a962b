// Follows and changes the links of a circular list without checks. The owner holds the list's lock.
//
// The links are stored with release and allow one test without the lock: a thread that sees its own
// node unlinked knows that the thread that unlinked it no longer uses the node.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_LIST_LINKS_HPP
#define VORN_LIST_LINKS_HPP

#include "base/atomic_word.hpp"
#include "vorn_list.h"

namespace vorn::list {

inline void store_link(vorn_list_head_s *&link, vorn_list_head_s *to) {
  atomic_word(link).store(to, std::memory_order_release);
}

inline void make_alone(vorn_list_head_s *node) {
  store_link(node->next, node);
  store_link(node->prev, node);
}

inline bool is_alone(const vorn_list_head_s *node) {
  return atomic_word(node->next).load(std::memory_order_acquire) == node &&
         atomic_word(node->prev).load(std::memory_order_acquire) == node;
}

// A NULL neighbour faults on purpose; the sanitizers must not report it.
__attribute__((no_sanitize("null"))) inline void
insert_between(vorn_list_head_s *prev, vorn_list_head_s *node, vorn_list_head_s *next) {
  store_link(next->prev, node);
  store_link(node->next, next);
  store_link(node->prev, prev);
  store_link(prev->next, node);
}

inline void insert_after(vorn_list_head_s *place, vorn_list_head_s *node) {
  insert_between(place, node, place->next);
}

// Does not change the node's own links.
inline void unlink(vorn_list_head_s *node) {
  store_link(node->next->prev, node->prev);
  store_link(node->prev->next, node->next);
}

} // namespace vorn::list

#endif
