// Links of a circular list, followed and changed without any check; who owns the list holds its
// lock. They are stored with release, so that one thing can be told without the lock: whoever sees
// his own node alone knows that the last one who had to do with it is done with it.
#ifndef VORN_SCHED_LINKS_HPP
#define VORN_SCHED_LINKS_HPP

#include "vorn_list.h"

namespace vorn::sched {

inline void store_link(vorn_list_head_s *&link, vorn_list_head_s *to) {
  __atomic_store_n(&link, to, __ATOMIC_RELEASE);
}

inline void make_alone(vorn_list_head_s *node) {
  store_link(node->next, node);
  store_link(node->prev, node);
}

inline bool is_alone(const vorn_list_head_s *node) {
  return __atomic_load_n(&node->next, __ATOMIC_ACQUIRE) == node &&
         __atomic_load_n(&node->prev, __ATOMIC_ACQUIRE) == node;
}

inline void insert_behind(vorn_list_head_s *place, vorn_list_head_s *node) {
  vorn_list_head_s *next = place->next;
  store_link(node->next, next);
  store_link(node->prev, place);
  store_link(next->prev, node);
  store_link(place->next, node);
}

// Leaves the node's own links as they are.
inline void unlink(vorn_list_head_s *node) {
  store_link(node->next->prev, node->prev);
  store_link(node->prev->next, node->next);
}

} // namespace vorn::sched

#endif
