/* A circular doubly linked list in the style of the Linux kernel, whose nodes are embedded in the
 * caller's structures. A head is a node by itself; the head of an empty list points to itself. The
 * operations neither check nor lock: the owner of a list must serialise all access to it. All take
 * constant time. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_LIST_H
#define VORN_LIST_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A node, or a head. */
typedef struct vorn_list_head {
  struct vorn_list_head *next; /* the node after; in a head, the first */
  struct vorn_list_head *prev; /* the node before; in a head, the last */
} vorn_list_head_s;

/* The value of next in a node that is on no list. Following it causes a fault. */
#define VORN_LIST_POISON_NEXT ((vorn_list_head_s *)0x100100)

/* The value of prev in a node that is on no list. Following it causes a fault. */
#define VORN_LIST_POISON_PREV ((vorn_list_head_s *)0x200200)

/* Makes head an empty list.
 *   head: head of the list */
static inline void vorn_list_init_head(vorn_list_head_s *head) {
  head->next = head;
  head->prev = head;
}

/* Marks node as being on no list, whatever it held.
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

/* Returns the first node; NULL if there is none.
 *   head: head of the list */
static inline vorn_list_head_s *vorn_list_first(const vorn_list_head_s *head) {
  return vorn_list_is_empty(head) ? NULL : head->next;
}

/* Returns the node after node; NULL at the end.
 *   head: head of the list
 *   node: the node */
static inline vorn_list_head_s *vorn_list_next(const vorn_list_head_s *head,
                                               const vorn_list_head_s *node) {
  return node->next == head ? NULL : node->next;
}

/* Gets the structure of the given type whose member is node.
 *   node: the node
 *   type: type of the structure
 *   member: name of the node in the structure
 * Returns the address of the structure. */
#define vorn_list_entry(node, type, member) ((type *)((char *)(node)-offsetof(type, member)))

VORN_END_DECLS

#endif
