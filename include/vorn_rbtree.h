/* An intrusive red-black tree in the style of the Linux kernel. A record embeds a node. The owner
 * of the tree searches for the place of a new node, links the node there, and calls the library to
 * rebalance, to erase and to walk. The library never compares records: the owner defines their
 * order, also for equal keys.
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
 * Unless a function says otherwise, nothing here locks, allocates, logs, or checks an argument for
 * NULL. The owner of a tree must serialise changes with each other and with walks; walks may run
 * concurrently with each other. No call blocks. A signal handler may make any call if the owner
 * keeps other threads away from the tree during it. A call takes at most O(log n) time in a tree of
 * n nodes; the inline functions below take constant time.
 *
 * The functions behave as those of the Linux kernel's red-black tree
 * (Documentation/core-api/rbtree.rst); those for augmented trees, as rb_augment_insert,
 * rb_augment_erase_begin and rb_augment_erase_end of Linux 2.6.35 to 3.6. No function here is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_RBTREE_H
#define VORN_RBTREE_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Bit 0 of parent_color: set in a black node, clear in a red node. */
#define VORN_RB_BLACK 1ul

/* The bits of parent_color that are not part of the parent's address. Bit 1 is always 0. */
#define VORN_RB_COLOR_MASK 3ul

/* A node. Its address is divisible by 4, which its natural alignment ensures. The owner's search
 * reads it; only the library and the inline functions below write it. */
typedef struct vorn_rb_node_s {
  unsigned long parent_color;   /* address of the parent (0 in the top node) and colour */
  struct vorn_rb_node_s *right; /* the child after this node, or NULL */
  struct vorn_rb_node_s *left;  /* the child before this node, or NULL */
} vorn_rb_node_s;

/* A tree. */
typedef struct vorn_rb_root_s {
  vorn_rb_node_s *node; /* the top node; NULL in an empty tree */
} vorn_rb_root_s;

/* Initialiser of an empty tree. A tree of zero bytes is also empty. */
#define VORN_RB_ROOT_INIT                                                                          \
  { NULL }

/* Gets the record of the given type whose member is node.
 *   node: the node
 *   type: type of the record
 *   member: name of the node in the record
 * Returns the address of the record. */
#define vorn_rb_entry(node, type, member) ((type *)((char *)(node)-offsetof(type, member)))

/* Recomputes the augmented value of node's record (for example, the maximum of its subtree) from
 * the record itself and the values of its two children, which are already correct. data is the
 * pointer that the caller passed. The function may change only that value: no links and no keys. It
 * must not call a function that changes the tree. It may be called more than once for a node. */
typedef void (*vorn_rb_augment_f)(vorn_rb_node_s *node, void *data);

/* Returns the parent of a node in a tree; NULL for the top node.
 *   node: the node */
static inline vorn_rb_node_s *vorn_rb_parent(const vorn_rb_node_s *node) {
  return (vorn_rb_node_s *)(node->parent_color & ~VORN_RB_COLOR_MASK);
}

/* Returns whether the tree has no node.
 *   root: the tree */
static inline int vorn_rb_is_empty(const vorn_rb_root_s *root) { return root->node == NULL; }

/* Marks node as being in no tree, whatever it held. An erase does not mark the node: a caller that
 * uses vorn_rb_is_clear later must call this function after the erase.
 *   node: the node */
static inline void vorn_rb_clear_node(vorn_rb_node_s *node) {
  node->parent_color = (unsigned long)node;
}

/* Returns whether node is marked as being in no tree.
 *   node: the node */
static inline int vorn_rb_is_clear(const vorn_rb_node_s *node) {
  return vorn_rb_parent(node) == node;
}

/* Links node as a red leaf into the empty place that link points to: parent's left or right, or the
 * root's node if parent is NULL. Call vorn_rb_insert_color next.
 *   node: the node
 *   parent: parent of the new node, or NULL in an empty tree
 *   link: empty place for the node */
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

/* Removes node, which must be in the tree, and rebalances the tree. Leaves the fields of node
 * unchanged. The caller may then reuse its record.
 *   node: the node
 *   root: the tree */
VORN_API void vorn_rb_erase(vorn_rb_node_s *node, vorn_rb_root_s *root);

/* Returns the first node in order; NULL in an empty tree.
 *   root: the tree */
VORN_API vorn_rb_node_s *vorn_rb_first(const vorn_rb_root_s *root);

/* Returns the last node in order; NULL in an empty tree.
 *   root: the tree */
VORN_API vorn_rb_node_s *vorn_rb_last(const vorn_rb_root_s *root);

/* Returns the node after node; NULL for the last node and for a node marked as being in no tree. A
 * walk over the whole tree takes O(n) time.
 *   node: the node */
VORN_API vorn_rb_node_s *vorn_rb_next(const vorn_rb_node_s *node);

/* Returns the node before node; NULL for the first node and for a node marked as being in no tree.
 *   node: the node */
VORN_API vorn_rb_node_s *vorn_rb_prev(const vorn_rb_node_s *node);

/* Replaces victim with fresh, which is in no tree. fresh takes the colour and the children of
 * victim, and the tree is not rebalanced: the caller must ensure that fresh belongs there in the
 * order. Leaves the fields of victim unchanged. Constant time.
 *   victim: node that leaves the tree
 *   fresh: node that takes its place
 *   root: the tree */
VORN_API void vorn_rb_replace_node(vorn_rb_node_s *victim, vorn_rb_node_s *fresh,
                                   vorn_rb_root_s *root);

/* Updates the values of an augmented tree after vorn_rb_insert_color. Calls fn from below node up
 * to the top node, and for the other child of each parent on the way.
 *   node: the node
 *   fn: function that recomputes a value
 *   data: second argument of fn */
VORN_API void vorn_rb_augment_insert(vorn_rb_node_s *node, vorn_rb_augment_f fn, void *data);

/* Prepares an erase in an augmented tree, before vorn_rb_erase of node.
 *   node: the node
 * Returns the deepest node whose value the erase changes, for vorn_rb_augment_erase_end; NULL if
 * node is the only node. */
VORN_API vorn_rb_node_s *vorn_rb_augment_erase_begin(vorn_rb_node_s *node);

/* Updates the values of an augmented tree after vorn_rb_erase, as vorn_rb_augment_insert does. node
 * is the result of vorn_rb_augment_erase_begin. Does nothing if node is NULL.
 *   node: the node
 *   fn: function that recomputes a value
 *   data: second argument of fn */
VORN_API void vorn_rb_augment_erase_end(vorn_rb_node_s *node, vorn_rb_augment_f fn, void *data);

VORN_END_DECLS

#endif
