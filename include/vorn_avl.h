/* An intrusive height-balanced binary search tree (AVL). The caller's records embed a node, each at
 * the same offset; the tree links them in the order of a comparison function and allocates nothing.
 *
 * Nothing here locks: the caller serialises all calls on one tree against each other (calls that
 * change nothing - find, walk, nearest, first, last, node_num - may run beside each other). Calls
 * on different trees are independent. No call blocks by itself, and none is safe in a signal
 * handler, because of the log messages that it may write.
 *
 * Directions are 0, before, and 1, after. Where nothing else is said any other counts as 1.
 *
 * A comparison function runs inside the call. It may do anything but change this tree.
 *
 * Every function that is given a NULL tree or record writes the error message "NULL POINTER" and
 * returns what is said below. Whatever else a call is given must be valid: a record that is added
 * is in no tree, one that is removed or walked from is in this tree. A record stays the caller's,
 * and in place, until it is removed or the tree is destroyed. No function here is a cancellation
 * point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_AVL_H
#define VORN_AVL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* What a record embeds. The fields are the tree's. */
typedef struct vorn_avl_node {
  struct vorn_avl_node *children[2]; /* [0] sorts before this node, [1] after it */
  struct vorn_avl_node *parent;      /* NULL at the root */
  uint32_t child_index;              /* which child of its parent this is: 0 or 1 */
  int32_t balance;                   /* height of children[1] less that of children[0]: -1 to 1 */
} vorn_avl_node_s;

/* Compares a value with a record of the tree and returns exactly -1, 0 or 1: the value sorts before
 * the record, is equal to it, or sorts after it. What a value is, is a matter between the caller
 * and this function; where records are added it is a record too.
 *
 * Another result is the caller's error. The search ends there, finds nothing and stores position 0;
 * a record that is being added becomes the root with no children, the records that were in the tree
 * are no longer reached from it, and the count grows by 1. */
typedef int (*vorn_avl_compare_f)(const void *value, const void *record);

/* A tree. The caller owns the structure and changes none of its fields. */
typedef struct vorn_avl_tree {
  vorn_avl_node_s *root;           /* NULL when empty */
  vorn_avl_compare_f add_compare;  /* (record, record): finds the place of a new record */
  vorn_avl_compare_f find_compare; /* (value, record): for lookups */
  uint32_t node_offset;            /* bytes from the start of a record to its node */
  uint32_t record_size;            /* as the caller gave it; the tree does not use it */
  uint64_t node_count;             /* records in the tree */
} vorn_avl_tree_s;

/* Makes tree an empty one, whatever it held. Records are size bytes long and have their node offset
 * bytes from their start; cmp serves for adding and for finding.
 *   tree: the tree
 *   cmp: comparison for adding and for finding
 *   size: bytes of a record
 *   offset: bytes from the start of a record to its node
 * Returns 0; -1 when tree or cmp is NULL. Constant time. */
VORN_API int vorn_create_avl(vorn_avl_tree_s *tree, vorn_avl_compare_f cmp, uint32_t size,
                             uint32_t offset);

/* Makes tree an empty one as vorn_create_avl does, with one comparison for adding and one for
 * finding. Both must order the records alike.
 *   tree: the tree
 *   add_cmp: comparison that finds the place of a new record
 *   find_cmp: comparison that lookups use
 *   size: bytes of a record
 *   offset: bytes from the start of a record to its node
 * Returns 0; -1 when tree, add_cmp or find_cmp is NULL. Constant time. */
VORN_API int vorn_create_avl_new(vorn_avl_tree_s *tree, vorn_avl_compare_f add_cmp,
                                 vorn_avl_compare_f find_cmp, uint32_t size, uint32_t offset);

/* Empties the tree without touching its records.
 *   tree: the tree
 * Returns 0; -1 for a NULL tree. Constant time. */
VORN_API int vorn_destroy_avl(vorn_avl_tree_s *tree);

/* Returns the record for which the find comparison says 0. When there is none, NULL, and the
 * position where it would stand in *where, unless where is NULL: the address of the parent-to-be
 * plus the side in bit 0, or 0 in an empty tree. A position is good until the tree changes. *where
 * is left alone when a record is found, and when tree is NULL (the result is NULL then).
 * Logarithmic time.
 *   tree: the tree
 *   value: first argument of the find comparison
 *   where: where the position goes, or NULL */
VORN_API void *vorn_find_avl_node(vorn_avl_tree_s *tree, const void *value, unsigned long *where);

/* Adds record in its place, unless one that is equal by the add comparison is there already: then
 * nothing happens. Logarithmic time.
 *   tree: the tree
 *   record: record to add */
VORN_API void vorn_add_avl_node(vorn_avl_tree_s *tree, void *record);

/* Adds record at the position that a failed search stored; a position without a parent (below 2)
 * makes it the root with no children, which is right for an empty tree alone.
 *   tree: the tree
 *   record: record to add
 *   where: position that a failed search stored
 * Returns 0; -1 when tree or record is NULL. Logarithmic time at most, constant on average;
 * compares nothing. */
VORN_API int vorn_insert_avl_node(vorn_avl_tree_s *tree, void *record, unsigned long where);

/* Adds record next to here, a record of the tree: after it with direction 1, before it with
 * direction 0. Compares nothing: that the order is right is the caller's word.
 *   tree: the tree
 *   record: record to add
 *   here: record of the tree, beside which the new one goes
 *   direction: 0 for before, 1 for after
 * Returns 0; -1 when tree, record or here is NULL; -1 after the error message "Invalid Param" when
 * direction is above 1. Logarithmic time. */
VORN_API int vorn_insert_avl_node_specified(vorn_avl_tree_s *tree, void *record, void *here,
                                            unsigned int direction);

/* Takes record out of the tree; its node keeps stale links.
 *   tree: the tree
 *   record: record of the tree
 * Returns 0, also when tree or record is NULL. Logarithmic time at most, constant on average;
 * compares nothing. */
VORN_API int vorn_remove_avl_node(vorn_avl_tree_s *tree, void *record);

/* Returns the record after (direction 1) or before (direction 0) record; NULL at the end, and when
 * tree or record is NULL. Logarithmic time; a walk over all records takes linear time. The next
 * record is to be asked for before this one is removed.
 *   tree: the tree
 *   record: record of the tree
 *   direction: 0 for before, 1 for after */
VORN_API void *vorn_walk_avl_node(vorn_avl_tree_s *tree, void *record, unsigned int direction);

/* Finds the nearest record from the position that a failed search stored: the first record after
 * the value (direction 1) or the last one before it (direction 0). Logarithmic time.
 *   tree: the tree
 *   where: position that a failed search stored
 *   direction: 0 for before, 1 for after
 * Returns the record; NULL when there is none, when the position has no parent, and when tree is
 * NULL. */
VORN_API void *vorn_find_avl_nearest_node(vorn_avl_tree_s *tree, unsigned long where,
                                          unsigned int direction);

/* Returns the first record in order; NULL when the tree is empty or NULL. Logarithmic time.
 *   tree: the tree */
VORN_API void *vorn_get_avl_first_node(vorn_avl_tree_s *tree);

/* Returns the last record in order; NULL when the tree is empty or NULL. Logarithmic time.
 *   tree: the tree */
VORN_API void *vorn_get_avl_last_node(vorn_avl_tree_s *tree);

/* Returns the number of records, -1 when tree is NULL. Constant time.
 *   tree: the tree */
VORN_API int64_t vorn_get_avl_node_num(vorn_avl_tree_s *tree);

VORN_END_DECLS

#endif
