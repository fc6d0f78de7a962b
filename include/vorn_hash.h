/* An intrusive, chained hash table whose keys are pairs of integers. The caller's records embed a
 * node, which the table links into its buckets. The table allocates only its header and its bucket
 * array, at its creation. The number of buckets never changes.
 *
 * Nothing here locks: the caller must serialise all calls on one table, but searches may run
 * concurrently with each other. Calls on different tables are independent. No call blocks or logs
 * by itself, except that vorn_hash_malloc may log a message; the caller's functions may do either.
 * Calls that neither create nor destroy a table are safe in a signal handler if the handler did not
 * interrupt a call on the same table.
 *
 * The caller owns each node. It sets key and key2 before the insertion, and while the node is in a
 * table it must not change them or move the record. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_HASH_H
#define VORN_HASH_H

#include "vorn_api.h"
#include "vorn_list.h"

VORN_BEGIN_DECLS

/* The allocator of a table. Both functions must be set, or both NULL; if they are NULL, the table
 * uses malloc(3) and free(3). */
typedef struct vorn_hash_attr {
  void *(*alloc)(size_t size); /* returns size bytes aligned as by malloc; NULL: out of memory */
  void (*free)(void *ptr);     /* frees what alloc returned */
} vorn_hash_attr_s;

/* A table, as vorn_hash_create creates it. */
typedef struct vorn_hash_table {
  vorn_list_head_s *buckets;    /* each is a list of nodes */
  uint32_t bucket_count;        /* a power of two */
  uint8_t bits;                 /* log2 of bucket_count */
  const vorn_hash_attr_s *attr; /* as passed, or NULL; the caller's, must outlive the table */
} vorn_hash_table_s;

/* The node that a record embeds. Two nodes are equal if both key2 and key are equal. */
typedef struct vorn_hash_node {
  vorn_list_head_s link; /* points to itself after the node was removed from a table */
  uint64_t key;          /* its lower half selects the bucket; the whole key is compared */
  uint32_t key2;         /* selects the bucket and is compared */
} vorn_hash_node_s;

/* The largest limit that vorn_hash_create accepts. */
#define VORN_HASH_LIMIT_MAX 1023u

/* Returns floor(log2(n)); 0 if n is below 2.
 *   n: number to take the logarithm of */
VORN_API uint8_t hash_get_pow(uint32_t n);

/* Returns 1 << p; 0 if p is above 30.
 *   p: exponent */
VORN_API uint32_t hash_pow(uint8_t p);

/* Returns the bucket of (key2, key) in a table of 2^bits buckets. This is the multiplicative hash
 * of the Linux kernel's hash_64, with the prime 0x9e37fffffffc0001, of the word whose high half is
 * key2 and whose low half is the low half of key. The upper half of key is ignored. If bits is 0,
 * the result is the low half of the product, which is not a valid index into a single bucket.
 *   key2: first key
 *   key: second key
 *   bits: log2 of the number of buckets */
VORN_API uint32_t hash_func(uint32_t key2, uint64_t key, uint8_t bits);

/* Sets both functions to NULL.
 *   attr: allocator pair to clear
 * Returns 0; -1 if attr is NULL. */
VORN_API int vorn_hash_attr_init(vorn_hash_attr_s *attr);

/* Allocates size bytes with the alloc function of attr; with malloc(3) if attr is NULL or has
 * neither function.
 *   attr: allocator pair, or NULL for malloc and free
 *   size: bytes to allocate
 * Returns the block; NULL if memory runs out. If attr has only one of the functions, logs
 * information and returns NULL. */
VORN_API void *vorn_hash_malloc(const vorn_hash_attr_s *attr, size_t size);

/* Frees ptr with the free function of attr; with free(3) if attr is NULL or has none.
 *   attr: allocator pair, or NULL for malloc and free
 *   ptr: block to free */
VORN_API void vorn_hash_free(const vorn_hash_attr_s *attr, void *ptr);

/* Creates an empty table with memory from attr (NULL: from malloc(3)) and stores it in *table. The
 * number of buckets is the largest power of two that is not above count. count must be at least 2:
 * a table of one bucket can be created and destroyed, but the behaviour of every other call is
 * undefined, because hash_func returns no valid index into it. limit is checked and otherwise
 * ignored.
 *   count: requested number of buckets
 *   table: where the address of the table goes
 *   limit: at most VORN_HASH_LIMIT_MAX
 *   attr: allocator pair, or NULL for malloc and free
 * Returns 0; -22 if limit is above VORN_HASH_LIMIT_MAX, table is NULL, or count is 0 or is 2^31 or
 * more; -12 with *table set to NULL if memory runs out. Takes time proportional to count. */
VORN_API int vorn_hash_create_ex(uint32_t count, vorn_hash_table_s **table, uint32_t limit,
                                 const vorn_hash_attr_s *attr);

/* Creates a table as vorn_hash_create_ex does, with memory from malloc(3).
 *   count: requested number of buckets
 *   table: where the address of the table goes
 *   limit: at most VORN_HASH_LIMIT_MAX
 * Returns what vorn_hash_create_ex returns. */
VORN_API int vorn_hash_create(uint32_t count, vorn_hash_table_s **table, uint32_t limit);

/* Removes every node, bucket by bucket and from head to tail, and calls fn with it, unless fn is
 * NULL; then frees the table. fn may free the node's record. It must not use the table.
 *   table: the table
 *   fn: function to call with each node, or NULL
 * Returns 0; -22 if table is NULL. Takes time proportional to buckets and nodes. */
VORN_API int vorn_hash_destory(vorn_hash_table_s *table, void (*fn)(vorn_hash_node_s *node));

/* Inserts node at the head of its bucket.
 *   table: the table
 *   node: node to insert
 * Returns 0; -17 if the table already has an equal node, which changes nothing; -22 if table or
 * node is NULL. Insertion, deletion and search take time proportional to the number of nodes in the
 * bucket: constant time if there are about as many buckets as nodes and the keys are evenly
 * spread. */
VORN_API int vorn_hash_insert(vorn_hash_table_s *table, vorn_hash_node_s *node);

/* Removes the node with this pair of keys and stores it in *out, unless out is NULL.
 *   table: the table
 *   key2: first key
 *   key: second key
 *   out: where the address of the node goes, or NULL
 * Returns 0; -1 with *out unchanged if there is none; -22 if table is NULL. */
VORN_API int vorn_hash_delete(vorn_hash_table_s *table, uint32_t key2, uint64_t key,
                              vorn_hash_node_s **out);

/* Finds the node with this pair of keys and stores it in *out.
 *   table: the table
 *   key2: first key
 *   key: second key
 *   out: where the address of the node goes
 * Returns 0; -1 with *out set to NULL if there is none; -22 if table or out is NULL. */
VORN_API int vorn_hash_search(vorn_hash_table_s *table, uint32_t key2, uint64_t key,
                              vorn_hash_node_s **out);

/* Calls fn(node, arg) with every node, bucket by bucket and from head to tail. fn may remove the
 * node that it gets and free its record, but must not remove another node. The walk may or may not
 * reach a node that fn inserts. If stop is not 0, the walk ends at the first result of fn that is
 * not 0. Takes time proportional to buckets and nodes.
 *   table: the table
 *   fn: function to call with each node
 *   arg: second argument of fn
 *   stop: 0 to visit every node, another value to stop at the first result that is not 0
 * Returns 0; the result that ended the walk; -22 if table or fn is NULL. */
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
