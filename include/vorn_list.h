/* The circular doubly linked list in the kernel's style that records embed a node of. A head is a
 * bare node; an empty one points at itself. The operations here check nothing and lock nothing:
 * the owner of a list serialises all access to it. All take constant time. No function here is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_LIST_H
#define VORN_LIST_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A node, or a head. */
typedef struct vorn_list_head {
  struct vorn_list_head *next; /* the node after; of a head the first */
  struct vorn_list_head *prev; /* the node before; of a head the last */
} vorn_list_head_s;

/* What next of a node that is on no list holds. The address faults when followed. */
#define VORN_LIST_POISON_NEXT ((vorn_list_head_s *)0x100100)

/* What prev of a node that is on no list holds. The address faults when followed. */
#define VORN_LIST_POISON_PREV ((vorn_list_head_s *)0x200200)

/* Makes head an empty list.
 *   head: head of the list */
static inline void vorn_list_init_head(vorn_list_head_s *head) {
  head->next = head;
  head->prev = head;
}

/* Makes node one that is on no list, without looking at what it held.
 *   node: the node */
static inline void vorn_list_poison(vorn_list_head_s *node) {
  node->next = VORN_LIST_POISON_NEXT;
  node->prev = VORN_LIST_POISON_PREV;
}

/* Returns whether node holds the poison values.
 *   node: the node */
static inline int vorn_list_is_poisoned(const vorn_list_head_s *node) {
  return node->next == VORN_LIST_POISON_NEXT && node->prev == VORN_LIST_POISON_PREV;
}

/* Returns whether the list has no node.
 *   head: head of the list */
static inline int vorn_list_is_empty(const vorn_list_head_s *head) { return head->next == head; }

/* Returns the first node, NULL when there is none.
 *   head: head of the list */
static inline vorn_list_head_s *vorn_list_first(const vorn_list_head_s *head) {
  return vorn_list_is_empty(head) ? NULL : head->next;
}

/* Returns the node after node, NULL at the end.
 *   head: head of the list
 *   node: the node */
static inline vorn_list_head_s *vorn_list_next(const vorn_list_head_s *head,
                                               const vorn_list_head_s *node) {
  return node->next == head ? NULL : node->next;
}

/* The record of the given type whose member is node.
 *   node: the node
 *   type: type of the record
 *   member: name of the node in the record
 * Returns the address of the record. */
#define vorn_list_entry(node, type, member) ((type *)((char *)(node)-offsetof(type, member)))

VORN_END_DECLS

#endif
