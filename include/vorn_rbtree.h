/* The intrusive red-black tree in the kernel's style. A record embeds a node; its owner searches
 * for the place of a new node, links it there, and calls the library to rebalance, to erase and to
 * walk. The library never compares: the order is the owner's, records of equal keys included.
 *
 *   int insert(vorn_rb_root_s *root, struct record *record) {
 *     vorn_rb_node_s **link = &root->node;
 *     vorn_rb_node_s *parent = NULL;
 *     while (*link != NULL) {
 *       parent = *link;
 *       const struct record *other = vorn_rb_entry(parent, struct record, node);
 *       if (record->key == other->key) return -1;
 *       link = record->key < other->key ? &parent->left : &parent->right;
 *     }
 *     vorn_rb_link_node(&record->node, parent, link);
 *     vorn_rb_insert_color(&record->node, root);
 *     return 0;
 *   }
 *
 * Nothing here locks, allocates, logs, or tests an argument for NULL unless it says so. The owner
 * of a tree serialises all access to it: changes against each other and against walks; walks alone
 * may run side by side. No call blocks, and each may be made in a signal handler if the tree's
 * owner keeps other threads away from it meanwhile. Calls take O(log n) time in a tree of n nodes
 * at most, and the helpers written out below constant time.
 *
 * The semantics are those of the Linux kernel's red-black tree (Documentation/core-api/rbtree.rst),
 * with the calls rb_augment_insert, rb_augment_erase_begin and rb_augment_erase_end for augmented
 * trees that the kernel had in versions 2.6.35 to 3.6. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_RBTREE_H
#define VORN_RBTREE_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Bit 0 of parent_color where the node is black; a red one has 0 there. */
#define VORN_RB_BLACK 1ul

/* The bits of parent_color that are no part of the parent's address. Bit 1 is kept 0. */
#define VORN_RB_COLOR_MASK 3ul

/* A node: at an address divisible by 4, which its natural alignment sees to. Read by the owner's
 * search; written by the library and by the helpers below alone. */
typedef struct vorn_rb_node_s {
  unsigned long parent_color;   /* address of the parent, 0 in the top node, with the colour */
  struct vorn_rb_node_s *right; /* child after, NULL for none */
  struct vorn_rb_node_s *left;  /* child before, NULL for none */
} vorn_rb_node_s;

/* A tree. */
typedef struct vorn_rb_root_s {
  vorn_rb_node_s *node; /* the top node, NULL in an empty tree */
} vorn_rb_root_s;

/* Initial value of an empty tree; so is one of zero bytes. */
#define VORN_RB_ROOT_INIT                                                                          \
  { NULL }

/* The record of the given type whose member is node.
 *   node: the node
 *   type: type of the record
 *   member: name of the node in the record
 * Returns the address of the record. */
#define vorn_rb_entry(node, type, member) ((type *)((char *)(node)-offsetof(type, member)))

/* Computes the augmented value of node's record (a maximum below it, say) anew from the record
 * itself and the values of its two children, which are right already. data is what the caller gave.
 * May change that value alone: neither links nor keys, and it calls nothing that changes the tree.
 * Must do with being called for a node more than once. */
typedef void (*vorn_rb_augment_f)(vorn_rb_node_s *node, void *data);

/* Returns the parent of a node in a tree, NULL for the top node.
 *   node: the node */
static inline vorn_rb_node_s *vorn_rb_parent(const vorn_rb_node_s *node) {
  return (vorn_rb_node_s *)(node->parent_color & ~VORN_RB_COLOR_MASK);
}

/* Returns whether the tree has no node.
 *   root: the tree */
static inline int vorn_rb_is_empty(const vorn_rb_root_s *root) { return root->node == NULL; }

/* Makes node one that is outside any tree, without looking at what it held. Erasing a node does not
 * do this: a caller that wants to ask later calls it after the erase.
 *   node: the node */
static inline void vorn_rb_clear_node(vorn_rb_node_s *node) {
  node->parent_color = (unsigned long)node;
}

/* Returns whether node was marked as outside any tree.
 *   node: the node */
static inline int vorn_rb_is_clear(const vorn_rb_node_s *node) {
  return vorn_rb_parent(node) == node;
}

/* Links node into the empty place that link points to, as a red leaf: parent's left or right, or
 * the root's node where parent is NULL. vorn_rb_insert_color comes next.
 *   node: the node
 *   parent: parent of the new node, or NULL in an empty tree
 *   link: empty place that the node goes to */
static inline void vorn_rb_link_node(vorn_rb_node_s *node, vorn_rb_node_s *parent,
                                     vorn_rb_node_s **link) {
  node->parent_color = (unsigned long)parent;
  node->right = NULL;
  node->left = NULL;
  *link = node;
}

/* Rebalances the tree after node was linked as a red leaf. Amortised constant time.
 *   node: the node
 *   root: the tree */
VORN_API void vorn_rb_insert_color(vorn_rb_node_s *node, vorn_rb_root_s *root);

/* Takes node, which must be in the tree, out of it and rebalances. The node's own fields stay as
 * they are; its record is the caller's again.
 *   node: the node
 *   root: the tree */
VORN_API void vorn_rb_erase(vorn_rb_node_s *node, vorn_rb_root_s *root);

/* Returns the first node in order, NULL in an empty tree.
 *   root: the tree */
VORN_API vorn_rb_node_s *vorn_rb_first(const vorn_rb_root_s *root);

/* Returns the last node in order, NULL in an empty tree.
 *   root: the tree */
VORN_API vorn_rb_node_s *vorn_rb_last(const vorn_rb_root_s *root);

/* Returns the node after node, NULL for the last and for one marked as outside any tree. A walk
 * over the whole tree takes O(n) time.
 *   node: the node */
VORN_API vorn_rb_node_s *vorn_rb_next(const vorn_rb_node_s *node);

/* Returns the node before node, NULL for the first and for one marked as outside any tree.
 *   node: the node */
VORN_API vorn_rb_node_s *vorn_rb_prev(const vorn_rb_node_s *node);

/* Puts fresh, which is in no tree, in victim's place, with victim's colour and children and without
 * rebalancing: the caller sees to it that it belongs there in order. victim's own fields stay as
 * they are. Constant time.
 *   victim: node that leaves the tree
 *   fresh: node that takes its place
 *   root: the tree */
VORN_API void vorn_rb_replace_node(vorn_rb_node_s *victim, vorn_rb_node_s *fresh,
                                   vorn_rb_root_s *root);

/* In an augmented tree, after vorn_rb_insert_color: brings the values up to date. Calls fn from
 * below node up to the top node, the other child of each parent on the way included.
 *   node: the node
 *   fn: function that computes a value anew
 *   data: second argument of fn */
VORN_API void vorn_rb_augment_insert(vorn_rb_node_s *node, vorn_rb_augment_f fn, void *data);

/* Prepares an erase in an augmented tree, before vorn_rb_erase of node.
 *   node: the node
 * Returns the deepest node whose value the erase will touch, for vorn_rb_augment_erase_end; NULL
 * where node is the only one. */
VORN_API vorn_rb_node_s *vorn_rb_augment_erase_begin(vorn_rb_node_s *node);

/* After the erase: brings the values from node up to date, as vorn_rb_augment_insert does. node is
 * what vorn_rb_augment_erase_begin returned; with NULL nothing is done.
 *   node: the node
 *   fn: function that computes a value anew
 *   data: second argument of fn */
VORN_API void vorn_rb_augment_erase_end(vorn_rb_node_s *node, vorn_rb_augment_f fn, void *data);

VORN_END_DECLS

#endif
