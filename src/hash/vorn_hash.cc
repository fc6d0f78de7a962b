// Implements the hash table: lists of nodes in a fixed number of buckets, a power of two.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_hash.h"

#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "base/log.hpp"

namespace vorn::hash {
namespace {

using Attr = vorn_hash_attr_s;
using Link = vorn_list_head_s;
using Node = vorn_hash_node_s;
using Table = vorn_hash_table_s;

static_assert(offsetof(Attr, alloc) == 0 && offsetof(Attr, free) == 8 && sizeof(Attr) == 16);
static_assert(offsetof(Table, buckets) == 0 && offsetof(Table, bucket_count) == 8 &&
              offsetof(Table, bits) == 12 && offsetof(Table, attr) == 16 && sizeof(Table) == 24);
static_assert(offsetof(Node, link) == 0 && offsetof(Node, key) == 16 &&
              offsetof(Node, key2) == 24 && sizeof(Node) == 32);

constexpr std::uint64_t kGoldenRatioPrime = 0x9e37fffffffc0001;
constexpr unsigned int kWordBits = 64;
constexpr std::uint8_t kMaxPower = 30;
constexpr int kAbsent = -1;

Node *node_of(Link *link) { return vorn_list_entry(link, Node, link); }

void link_first(Link *head, Link *link) {
  Link *first = head->next;
  link->next = first;
  link->prev = head;
  first->prev = link;
  head->next = link;
}

void unlink(Node *node) {
  Link *link = &node->link;
  link->next->prev = link->prev;
  link->prev->next = link->next;
  vorn_list_init_head(link);
}

std::uint32_t bucket_index(std::uint32_t key2, std::uint64_t key, std::uint8_t bits) {
  const std::uint64_t word = std::uint64_t{key2} << 32 | static_cast<std::uint32_t>(key);
  return static_cast<std::uint32_t>(word * kGoldenRatioPrime >> (kWordBits - bits) % kWordBits);
}

Link *bucket_of(const Table *table, std::uint32_t key2, std::uint64_t key) {
  return &table->buckets[bucket_index(key2, key, table->bits)];
}

Node *find(Link *bucket, std::uint32_t key2, std::uint64_t key) {
  for (Link *link = bucket->next; link != bucket; link = link->next) {
    Node *node = node_of(link);
    if (node->key == key && node->key2 == key2) return node;
  }
  return nullptr;
}

template <class Visit> int for_each(const Table *table, Visit visit, bool stop) {
  for (std::uint32_t i = 0; i < table->bucket_count; ++i) {
    Link *bucket = &table->buckets[i];
    for (Link *link = bucket->next, *next; link != bucket; link = next) {
      next = link->next;
      const int result = visit(node_of(link));
      if (result != 0 && stop) return result;
    }
  }
  return 0;
}

} // namespace
} // namespace vorn::hash

using namespace vorn::hash;

uint8_t hash_get_pow(uint32_t n) { return n < 2 ? 0 : static_cast<uint8_t>(std::bit_width(n) - 1); }

uint32_t hash_pow(uint8_t p) { return p > kMaxPower ? 0 : uint32_t{1} << p; }

uint32_t hash_func(uint32_t key2, uint64_t key, uint8_t bits) {
  return bucket_index(key2, key, bits);
}

int vorn_hash_attr_init(vorn_hash_attr_s *attr) {
  if (attr == nullptr) return -1;
  *attr = {nullptr, nullptr};
  return 0;
}

void *vorn_hash_malloc(const vorn_hash_attr_s *attr, size_t size) {
  if (attr == nullptr || (attr->alloc == nullptr && attr->free == nullptr))
    return std::malloc(size);
  if (attr->alloc == nullptr || attr->free == nullptr) {
    VORN_LOG(vorn::kInfo, "attr malloc(%p) and free(%p) must be matched",
             reinterpret_cast<void *>(attr->alloc), reinterpret_cast<void *>(attr->free));
    return nullptr;
  }
  return attr->alloc(size);
}

void vorn_hash_free(const vorn_hash_attr_s *attr, void *ptr) {
  if (attr == nullptr || attr->free == nullptr) return std::free(ptr);
  attr->free(ptr);
}

int vorn_hash_create_ex(uint32_t count, vorn_hash_table_s **table, uint32_t limit,
                        const vorn_hash_attr_s *attr) {
  if (limit > VORN_HASH_LIMIT_MAX || table == nullptr || count == 0) return -EINVAL;
  const uint8_t bits = hash_get_pow(count);
  const uint32_t bucket_count = hash_pow(bits);
  if (bucket_count == 0) return -EINVAL;

  *table = nullptr;
  auto *made = static_cast<Table *>(vorn_hash_malloc(attr, sizeof(Table)));
  if (made == nullptr) return -ENOMEM;
  auto *buckets = static_cast<Link *>(vorn_hash_malloc(attr, size_t{bucket_count} * sizeof(Link)));
  if (buckets == nullptr) {
    vorn_hash_free(attr, made);
    return -ENOMEM;
  }
  for (uint32_t i = 0; i < bucket_count; ++i)
    vorn_list_init_head(&buckets[i]);
  *made = {buckets, bucket_count, bits, attr};
  *table = made;
  return 0;
}

int vorn_hash_create(uint32_t count, vorn_hash_table_s **table, uint32_t limit) {
  return vorn_hash_create_ex(count, table, limit, nullptr);
}

int vorn_hash_destory(vorn_hash_table_s *table, void (*fn)(vorn_hash_node_s *node)) {
  if (table == nullptr) return -EINVAL;
  const auto take_out = [fn](vorn_hash_node_s *node) {
    unlink(node);
    if (fn != nullptr) fn(node);
    return 0;
  };
  for_each(table, take_out, false);
  const vorn_hash_attr_s *attr = table->attr;
  vorn_hash_free(attr, table->buckets);
  vorn_hash_free(attr, table);
  return 0;
}

int vorn_hash_insert(vorn_hash_table_s *table, vorn_hash_node_s *node) {
  if (table == nullptr || node == nullptr) return -EINVAL;
  Link *bucket = bucket_of(table, node->key2, node->key);
  if (find(bucket, node->key2, node->key) != nullptr) return -EEXIST;
  link_first(bucket, &node->link);
  return 0;
}

int vorn_hash_delete(vorn_hash_table_s *table, uint32_t key2, uint64_t key,
                     vorn_hash_node_s **out) {
  if (table == nullptr) return -EINVAL;
  Node *node = find(bucket_of(table, key2, key), key2, key);
  if (node == nullptr) return kAbsent;
  unlink(node);
  if (out != nullptr) *out = node;
  return 0;
}

int vorn_hash_search(vorn_hash_table_s *table, uint32_t key2, uint64_t key,
                     vorn_hash_node_s **out) {
  if (table == nullptr || out == nullptr) return -EINVAL;
  *out = find(bucket_of(table, key2, key), key2, key);
  return *out != nullptr ? 0 : kAbsent;
}

int vorn_hash_for_each_ex(vorn_hash_table_s *table, int (*fn)(vorn_hash_node_s *node, void *arg),
                          void *arg, int8_t stop) {
  if (table == nullptr || fn == nullptr) return -EINVAL;
  const auto visit = [fn, arg](vorn_hash_node_s *node) { return fn(node, arg); };
  return for_each(table, visit, stop != 0);
}

int vorn_hash_for_each(vorn_hash_table_s *table, int (*fn)(vorn_hash_node_s *node), int8_t stop) {
  if (table == nullptr || fn == nullptr) return -EINVAL;
  return for_each(table, fn, stop != 0);
}
