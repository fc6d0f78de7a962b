/* An intrusive, chained hash table under pairs of integers. The caller's records embed a node; the
 * table links them into its buckets and allocates nothing but its own header and bucket array, when
 * it is created. The number of buckets never changes.
 *
 * Nothing here locks: the caller serialises all calls on one table against each other (searches may
 * run beside each other). Calls on different tables are independent. No call blocks by itself or
 * writes a log message, but for the log message of vorn_hash_malloc and whatever the caller's own
 * functions do; those that neither create nor destroy a table are safe in a signal handler as far
 * as the handler has no part in a call that it interrupted.
 *
 * A node belongs to the caller, which fills in its key and key2 before insertion and leaves them
 * alone, and the record in place, while the node is in a table. No function here is a cancellation
 * point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_HASH_H
#define VORN_HASH_H

#include "vorn_api.h"
#include "vorn_list.h"

VORN_BEGIN_DECLS

/* Where the memory of a table comes from. The functions are both present or both NULL; then the
 * standard malloc and free are used. */
typedef struct vorn_hash_attr {
  void *(*alloc)(size_t size); /* size bytes, aligned as malloc aligns them; NULL: none are left */
  void (*free)(void *ptr);     /* takes back what alloc returned */
} vorn_hash_attr_s;

/* A table, as vorn_hash_create made it. */
typedef struct vorn_hash_table {
  vorn_list_head_s *buckets;    /* one list of nodes each */
  uint32_t bucket_count;        /* a power of two */
  uint8_t bits;                 /* log2 of bucket_count */
  const vorn_hash_attr_s *attr; /* as given, or NULL: the caller's, which outlives the table */
} vorn_hash_table_s;

/* What a record embeds. Two nodes are equal when both key2 and key are. */
typedef struct vorn_hash_node {
  vorn_list_head_s link; /* points at itself once the node was taken out of a table */
  uint64_t key;          /* its lower half chooses the bucket, the whole of it is compared */
  uint32_t key2;         /* chooses the bucket and is compared */
} vorn_hash_node_s;

/* The largest limit that vorn_hash_create takes. */
#define VORN_HASH_LIMIT_MAX 1023u

/* Returns floor(log2(n)), and 0 for n below 2.
 *   n: number to take the logarithm of */
VORN_API uint8_t hash_get_pow(uint32_t n);

/* Returns 1 << p, and 0 for p above 30.
 *   p: exponent */
VORN_API uint32_t hash_pow(uint8_t p);

/* Returns the bucket of (key2, key) in a table of 2^bits buckets: the multiplicative hash that the
 * Linux kernel's hash_64 is, with the prime 0x9e37fffffffc0001, of the word whose high half is key2
 * and whose low half is that of key. The upper half of key does not count. With bits 0 the result
 * is the low half of the product, which is no index into a single bucket.
 *   key2: first key
 *   key: second key
 *   bits: log2 of the number of buckets */
VORN_API uint32_t hash_func(uint32_t key2, uint64_t key, uint8_t bits);

/* Makes both functions NULL.
 *   attr: allocator pair to clear
 * Returns 0; -1 when attr is NULL. */
VORN_API int vorn_hash_attr_init(vorn_hash_attr_s *attr);

/* Allocates size bytes by attr's alloc; by malloc where attr is NULL or has neither function.
 *   attr: allocator pair, or NULL for malloc and free
 *   size: bytes to allocate
 * Returns the block; NULL when there is no memory, and after an information message when attr has
 * only one of the functions. */
VORN_API void *vorn_hash_malloc(const vorn_hash_attr_s *attr, size_t size);

/* Gives ptr to attr's free; to the standard free where attr is NULL or has none.
 *   attr: allocator pair, or NULL for malloc and free
 *   ptr: block to free */
VORN_API void vorn_hash_free(const vorn_hash_attr_s *attr, void *ptr);

/* Creates an empty table of the largest power of two of buckets that is not above count, with
 * memory from attr (NULL: from malloc), and stores it in *table. count is 2 at least: a table of
 * one bucket can be created and destroyed, but using it is the caller's error and undefined, as
 * hash_func yields no index into it. limit is tested and otherwise ignored.
 *   count: number of buckets that is asked for
 *   table: where the address of the table goes
 *   limit: at most VORN_HASH_LIMIT_MAX
 *   attr: allocator pair, or NULL for malloc and free
 * Returns 0; -22 when limit is above VORN_HASH_LIMIT_MAX, table is NULL, or count is 0 or from 2^31
 * on; -12 with *table set to NULL when memory runs out. Takes time proportional to count. */
VORN_API int vorn_hash_create_ex(uint32_t count, vorn_hash_table_s **table, uint32_t limit,
                                 const vorn_hash_attr_s *attr);

/* Creates a table as vorn_hash_create_ex does, with memory from malloc.
 *   count: number of buckets that is asked for
 *   table: where the address of the table goes
 *   limit: at most VORN_HASH_LIMIT_MAX
 * Returns what vorn_hash_create_ex returns. */
VORN_API int vorn_hash_create(uint32_t count, vorn_hash_table_s **table, uint32_t limit);

/* Takes out every node, bucket by bucket and from head to tail, and calls fn, unless it is NULL,
 * with each; then frees the table. fn may free the node's record, and must not use the table.
 *   table: the table
 *   fn: function to call with each node, or NULL
 * Returns 0; -22 when table is NULL. Takes time proportional to buckets and nodes. */
VORN_API int vorn_hash_destory(vorn_hash_table_s *table, void (*fn)(vorn_hash_node_s *node));

/* Puts node at the head of its bucket.
 *   table: the table
 *   node: node to insert
 * Returns 0; -17 without any change when an equal one is there; -22 when table or node is NULL.
 * Insertion, deletion and search take constant time while keys are spread over at least about as
 * many buckets as there are nodes, and in general time proportional to the nodes of the bucket. */
VORN_API int vorn_hash_insert(vorn_hash_table_s *table, vorn_hash_node_s *node);

/* Takes out the node with that pair and stores it in *out, unless out is NULL.
 *   table: the table
 *   key2: first key
 *   key: second key
 *   out: where the address of the node goes, or NULL
 * Returns 0; -1 with *out left alone when there is none; -22 when table is NULL. */
VORN_API int vorn_hash_delete(vorn_hash_table_s *table, uint32_t key2, uint64_t key,
                              vorn_hash_node_s **out);

/* Stores the node with that pair in *out.
 *   table: the table
 *   key2: first key
 *   key: second key
 *   out: where the address of the node goes
 * Returns 0; -1 with *out set to NULL when there is none; -22 when table or out is NULL. */
VORN_API int vorn_hash_search(vorn_hash_table_s *table, uint32_t key2, uint64_t key,
                              vorn_hash_node_s **out);

/* Calls fn(node, arg) with every node, bucket by bucket and from head to tail. fn may take out the
 * node that it is given, and free its record, but no other node; one that it inserts is met or not.
 * With stop other than 0 the walk ends at the first result of fn that is not 0. Takes time
 * proportional to buckets and nodes.
 *   table: the table
 *   fn: function to call with each node
 *   arg: second argument of fn
 *   stop: 0 to visit every node, another value to stop at the first result that is not 0
 * Returns 0; the result that ended the walk; -22 when table or fn is NULL. */
VORN_API int vorn_hash_for_each_ex(vorn_hash_table_s *table,
                                   int (*fn)(vorn_hash_node_s *node, void *arg), void *arg,
                                   int8_t stop);

/* Calls fn(node) with every node, as vorn_hash_for_each_ex does.
 *   table: the table
 *   fn: function to call with each node
 *   stop: 0 to visit every node, another value to stop at the first result that is not 0
 * Returns what vorn_hash_for_each_ex returns. */
VORN_API int vorn_hash_for_each(vorn_hash_table_s *table, int (*fn)(vorn_hash_node_s *node),
                                int8_t stop);

VORN_END_DECLS

#endif
