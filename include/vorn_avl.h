/* An intrusive height-balanced binary search tree (AVL). The caller's records embed a node, each at
 * the same offset; the tree links them in the order of a comparison function and allocates nothing.
 *
 * Nothing here locks: the caller must serialise all calls on one tree. Calls that change nothing
 * (find, walk, nearest, first, last, node_num) may run concurrently with each other, and calls on
 * different trees are independent. No call blocks by itself. None is safe in a signal handler,
 * because it may write log messages.
 *
 * A direction is 0 for before or 1 for after. Unless a function says otherwise, any other value
 * counts as 1.
 *
 * A comparison function runs inside the call. It must not change this tree.
 *
 * If tree or record is NULL, every function logs the error "NULL POINTER" and returns the value
 * given below. Every other argument must be valid: a record to add must not be in any tree, and a
 * record to remove or to walk from must be in this tree. The caller owns each record, and must keep
 * it in place until it is removed or the tree is destroyed. No function here is a cancellation
 * point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_AVL_H
#define VORN_AVL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The node that a record embeds. Only the tree uses its fields. */
typedef struct vorn_avl_node {
  struct vorn_avl_node *children[2]; /* [0] sorts before this node, [1] after it */
  struct vorn_avl_node *parent;      /* NULL at the root */
  uint32_t child_index;              /* which child of its parent this is: 0 or 1 */
  int32_t balance;                   /* height of children[1] less that of children[0]: -1 to 1 */
} vorn_avl_node_s;

/* Compares a value with a record of the tree and returns exactly -1, 0 or 1: the value sorts before
 * the record, is equal to it, or sorts after it. The caller and this function decide what a value
 * is; when a record is added, the value is that record.
 *
 * Another result is an error of the caller. The search then ends, finds nothing and stores position
 * 0. If a record is being added, it becomes the root with no children, the previous records are no
 * longer reachable from the tree, and the count grows by 1. */
typedef int (*vorn_avl_compare_f)(const void *value, const void *record);

/* A tree. The caller owns the structure and must not change its fields. */
typedef struct vorn_avl_tree {
  vorn_avl_node_s *root;           /* NULL when empty */
  vorn_avl_compare_f add_compare;  /* (record, record): finds the place of a new record */
  vorn_avl_compare_f find_compare; /* (value, record): for lookups */
  uint32_t node_offset;            /* bytes from the start of a record to its node */
  uint32_t record_size;            /* as passed by the caller; the tree does not use it */
  uint64_t node_count;             /* records in the tree */
} vorn_avl_tree_s;

/* Makes tree an empty tree, whatever it held. A record is size bytes long and has its node offset
 * bytes from its start. cmp is used for adding and for finding.
 *   tree: the tree
 *   cmp: comparison for adding and for finding
 *   size: bytes of a record
 *   offset: bytes from the start of a record to its node
 * Returns 0; -1 if tree or cmp is NULL. Constant time. */
VORN_API int vorn_create_avl(vorn_avl_tree_s *tree, vorn_avl_compare_f cmp, uint32_t size,
                             uint32_t offset);

/* Makes tree an empty tree as vorn_create_avl does, with one comparison for adding and one for
 * finding. Both must define the same order.
 *   tree: the tree
 *   add_cmp: comparison that finds the place of a new record
 *   find_cmp: comparison that lookups use
 *   size: bytes of a record
 *   offset: bytes from the start of a record to its node
 * Returns 0; -1 if tree, add_cmp or find_cmp is NULL. Constant time. */
VORN_API int vorn_create_avl_new(vorn_avl_tree_s *tree, vorn_avl_compare_f add_cmp,
                                 vorn_avl_compare_f find_cmp, uint32_t size, uint32_t offset);

/* Empties the tree without touching its records.
 *   tree: the tree
 * Returns 0; -1 if tree is NULL. Constant time. */
VORN_API int vorn_destroy_avl(vorn_avl_tree_s *tree);

/* Returns the record for which the find comparison returns 0. If there is none, returns NULL and,
 * unless where is NULL, stores in *where the position at which such a record would stand: the
 * address of its parent plus the side in bit 0, or 0 in an empty tree. A position is valid until
 * the tree changes. Leaves *where unchanged if a record is found. If tree is NULL, returns NULL and
 * leaves *where unchanged. Logarithmic time.
 *   tree: the tree
 *   value: first argument of the find comparison
 *   where: where the position goes, or NULL */
VORN_API void *vorn_find_avl_node(vorn_avl_tree_s *tree, const void *value, unsigned long *where);

/* Adds record at its place. Does nothing if the tree already has a record that is equal by the add
 * comparison. Logarithmic time.
 *   tree: the tree
 *   record: record to add */
VORN_API void vorn_add_avl_node(vorn_avl_tree_s *tree, void *record);

/* Adds record at the position that a failed search stored. A position without a parent (below 2)
 * makes record the root with no children, which is correct only for an empty tree.
 *   tree: the tree
 *   record: record to add
 *   where: position that a failed search stored
 * Returns 0; -1 if tree or record is NULL. Logarithmic time at most, constant on average; does not
 * call a comparison function. */
VORN_API int vorn_insert_avl_node(vorn_avl_tree_s *tree, void *record, unsigned long where);

/* Adds record next to here, a record of the tree: after it with direction 1, before it with
 * direction 0. Does not call a comparison function: the caller must ensure that the order is
 * correct.
 *   tree: the tree
 *   record: record to add
 *   here: record of the tree, next to which the new one goes
 *   direction: 0 for before, 1 for after
 * Returns 0; -1 if tree, record or here is NULL; logs the error "Invalid Param" and returns -1 if
 * direction is above 1. Logarithmic time. */
VORN_API int vorn_insert_avl_node_specified(vorn_avl_tree_s *tree, void *record, void *here,
                                            unsigned int direction);

/* Removes record from the tree. Its node keeps stale links.
 *   tree: the tree
 *   record: record of the tree
 * Returns 0, also if tree or record is NULL. Logarithmic time at most, constant on average; does
 * not call a comparison function. */
VORN_API int vorn_remove_avl_node(vorn_avl_tree_s *tree, void *record);

/* Returns the record after (direction 1) or before (direction 0) record; NULL at the end, or if
 * tree or record is NULL. Logarithmic time; a walk over all records takes linear time. To remove
 * records during a walk, get the next record before removing this one.
 *   tree: the tree
 *   record: record of the tree
 *   direction: 0 for before, 1 for after */
VORN_API void *vorn_walk_avl_node(vorn_avl_tree_s *tree, void *record, unsigned int direction);

/* Finds the record nearest to the position that a failed search stored: the first record after the
 * value (direction 1) or the last one before it (direction 0). Logarithmic time.
 *   tree: the tree
 *   where: position that a failed search stored
 *   direction: 0 for before, 1 for after
 * Returns the record; NULL if there is none, if the position has no parent or if tree is NULL. */
VORN_API void *vorn_find_avl_nearest_node(vorn_avl_tree_s *tree, unsigned long where,
                                          unsigned int direction);

/* Returns the first record in order; NULL if the tree is empty or NULL. Logarithmic time.
 *   tree: the tree */
VORN_API void *vorn_get_avl_first_node(vorn_avl_tree_s *tree);

/* Returns the last record in order; NULL if the tree is empty or NULL. Logarithmic time.
 *   tree: the tree */
VORN_API void *vorn_get_avl_last_node(vorn_avl_tree_s *tree);

/* Returns the number of records; -1 if tree is NULL. Constant time.
 *   tree: the tree */
VORN_API int64_t vorn_get_avl_node_num(vorn_avl_tree_s *tree);

VORN_END_DECLS

#endif
