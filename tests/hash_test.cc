#include "vorn_hash.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/log.hpp"
#include "support/log_capture.hpp"

namespace {

struct Record {
  vorn_hash_node_s node;
  int visits;
};

using Pair = std::pair<uint32_t, uint64_t>; // key2, key

Pair pair_of(const vorn_hash_node_s *node) { return {node->key2, node->key}; }

bool is_self_linked(const vorn_hash_node_s &node) {
  return node.link.next == &node.link && node.link.prev == &node.link;
}

vorn_hash_node_s node_with(uint32_t key2, uint64_t key) {
  vorn_hash_node_s node{};
  node.key2 = key2;
  node.key = key;
  return node;
}

// The pairs of a bucket from head to tail, having checked the links both ways.
std::vector<Pair> bucket_pairs(const vorn_hash_table_s &table, uint32_t index) {
  std::vector<Pair> pairs;
  vorn_list_head_s *head = &table.buckets[index];
  for (vorn_list_head_s *link = head->next; link != head; link = link->next) {
    EXPECT_EQ(link->next->prev, link);
    pairs.push_back(pair_of(vorn_list_entry(link, vorn_hash_node_s, link)));
  }
  EXPECT_EQ(head->next->prev, head);
  return pairs;
}

// Memory of a table, with the sizes that were asked for and a count down to failure.
struct Memory {
  int left = 100;
  int used = 0;
  std::vector<size_t> sizes;
} memory;

void *counted_alloc(size_t size) {
  memory.sizes.push_back(size);
  if (memory.left == 0) return nullptr;
  --memory.left;
  ++memory.used;
  return std::malloc(size);
}

void counted_free(void *ptr) {
  --memory.used;
  std::free(ptr);
}

constexpr vorn_hash_attr_s kCounted{counted_alloc, counted_free};

// A table of 16 buckets. What is in it outlives it.
class Table {
public:
  Table() { EXPECT_EQ(vorn_hash_create(16, &table_, 0), 0); }
  Table(const Table &) = delete;
  Table &operator=(const Table &) = delete;
  ~Table() { EXPECT_EQ(vorn_hash_destory(table_, nullptr), 0); }
  operator vorn_hash_table_s *() const { return table_; }
  vorn_hash_table_s *operator->() const { return table_; }

private:
  vorn_hash_table_s *table_ = nullptr;
};

TEST(HashFunction, Powers) {
  const std::pair<uint32_t, unsigned int> logs[] = {
      {0, 0}, {1, 0}, {2, 1}, {3, 1}, {0x7fffffff, 30}, {0x80000000, 31}, {~0u, 31}};
  for (const auto &[n, log] : logs)
    EXPECT_EQ(hash_get_pow(n), log) << n;
  const std::pair<uint8_t, uint32_t> powers[] = {{0, 1}, {30, 1u << 30}, {31, 0}, {255, 0}};
  for (const auto &[p, power] : powers)
    EXPECT_EQ(hash_pow(p), power) << unsigned{p};
}

// Worked out with integers of any length.
TEST(HashFunction, Indices) {
  const struct {
    uint32_t key2;
    uint64_t key;
    uint8_t bits;
    uint32_t index;
  } rows[] = {
      {0, 1, 10, 0x278},
      {1, 0, 30, 0x3fff0000},
      {0, 0x100000001, 10, 0x278}, // the upper half of key does not count
      {7, 0xdeadbeef12345678, 16, 0xfa23},
      {0xffffffff, 0xffffffffffffffff, 30, 0x18720000},
      {3, 5, 0, 0xffec0005}, // a shift by 64 is one by 0
      {0, 1, 63, 0xfffe0000},
      {0, 1, 64, 0xfffc0001},
  };
  for (const auto &row : rows)
    EXPECT_EQ(hash_func(row.key2, row.key, row.bits), row.index) << row.key << " " << +row.bits;
}

TEST(HashCreation, BucketsAreThePowerOfTwoNotAboveTheCount) {
  const struct {
    uint32_t count, limit;
    int result;
    uint32_t buckets;
    unsigned int bits;
  } rows[] = {
      {1, 0, 0, 1, 0},      {3, 0, 0, 2, 1},   {1000, 0, 0, 512, 9},     {8, 1023, 0, 8, 3},
      {8, 1024, -22, 0, 0}, {0, 0, -22, 0, 0}, {1u << 31, 0, -22, 0, 0},
  };
  memory = {};
  vorn_hash_table_s untouched{};
  for (const auto &row : rows) {
    vorn_hash_table_s *table = &untouched;
    ASSERT_EQ(vorn_hash_create_ex(row.count, &table, row.limit, &kCounted), row.result)
        << row.count;
    if (row.result != 0) {
      EXPECT_EQ(table, &untouched);
      continue;
    }
    EXPECT_EQ(table->bucket_count, row.buckets);
    EXPECT_EQ(table->bits, row.bits);
    EXPECT_EQ(table->attr, &kCounted);
    for (uint32_t i = 0; i < row.buckets; ++i)
      EXPECT_TRUE(bucket_pairs(*table, i).empty());
    EXPECT_EQ(memory.used, 2);
    EXPECT_EQ(vorn_hash_destory(table, nullptr), 0);
    EXPECT_EQ(memory.used, 0);
  }
  EXPECT_EQ(vorn_hash_create(8, nullptr, 0), -22);
}

TEST(HashCreation, GivesBackWhatItTookWhenMemoryRunsOut) {
  for (int left = 0; left < 2; ++left) {
    memory = {};
    memory.left = left;
    vorn_hash_table_s *table = reinterpret_cast<vorn_hash_table_s *>(1);
    EXPECT_EQ(vorn_hash_create_ex(4, &table, 0, &kCounted), -12);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(memory.used, 0);
  }
  memory.left = 1;
  memory.sizes.clear();
  vorn_hash_table_s *table;
  EXPECT_EQ(vorn_hash_create_ex(1u << 30, &table, 0, &kCounted), -12);
  EXPECT_EQ(memory.sizes, (std::vector<size_t>{sizeof(vorn_hash_table_s), size_t{16} << 30}));
}

TEST(HashMemory, FunctionsComeInPairs) {
  memory = {};
  vorn_hash_attr_s attr = kCounted;
  EXPECT_EQ(vorn_hash_attr_init(nullptr), -1);
  EXPECT_EQ(vorn_hash_attr_init(&attr), 0);
  void *block = vorn_hash_malloc(&attr, 10);
  EXPECT_NE(block, nullptr);
  vorn_hash_free(&attr, block);
  EXPECT_NO_RECORD();

  for (const vorn_hash_attr_s half :
       {vorn_hash_attr_s{counted_alloc, nullptr}, vorn_hash_attr_s{nullptr, counted_free}}) {
    char wanted[128];
    std::snprintf(wanted, sizeof wanted, "attr malloc(%p) and free(%p) must be matched",
                  reinterpret_cast<void *>(half.alloc), reinterpret_cast<void *>(half.free));
    vorn_hash_table_s *table;
    EXPECT_EQ(vorn_hash_create_ex(4, &table, 0, &half), -12);
    EXPECT_ONE_RECORD(vorn::kInfo, "vorn_hash.c", "vorn_hash_malloc", wanted);
  }
  EXPECT_TRUE(memory.sizes.empty());
}

// Keys of which many differ only above bit 31, or only in key2.
TEST(Hash, AgreesWithAMapUnderRandomOperations) {
  std::mt19937 random{1};
  std::map<Pair, vorn_hash_node_s *> model;
  std::vector<Record> records(200);
  for (Record &record : records) {
    record.node = node_with(random() % 2, (uint64_t{random() % 2} << 32) + random() % 20);
    vorn_list_init_head(&record.node.link);
  }

  const Table table;
  for (int step = 0; step < 6000; ++step) {
    vorn_hash_node_s *node = &records[random() % records.size()].node;
    const Pair pair = pair_of(node);
    const auto at = model.find(pair);
    vorn_hash_node_s *found = node;
    const int there = at != model.end() ? 0 : -1;
    ASSERT_EQ(vorn_hash_search(table, pair.first, pair.second, &found), there);
    ASSERT_EQ(found, there == 0 ? at->second : nullptr);
    if (random() % 2 == 0) {
      ASSERT_EQ(vorn_hash_insert(table, node), there == 0 ? -17 : 0);
      model.emplace(pair, node);
    } else {
      vorn_hash_node_s *out = node;
      ASSERT_EQ(vorn_hash_delete(table, pair.first, pair.second, &out), there);
      ASSERT_EQ(out, there == 0 ? found : node); // left alone
      if (there == 0) {
        ASSERT_TRUE(is_self_linked(*out));
        model.erase(at);
      }
    }

    size_t linked = 0;
    for (uint32_t i = 0; i < table->bucket_count; ++i) {
      for (const Pair &met : bucket_pairs(*table, i)) {
        ASSERT_EQ(hash_func(met.first, met.second, table->bits), i);
        ASSERT_EQ(model.count(met), 1u);
        ++linked;
      }
    }
    ASSERT_EQ(linked, model.size());
    if (HasFailure()) return;
  }
}

std::vector<Pair> met;

int note(vorn_hash_node_s *node) {
  met.push_back(pair_of(node));
  return static_cast<int>(met.size()) == 3 ? 42 : 7 * (node->key2 != 0);
}

// Every pair in the order in which all walks meet it.
std::vector<Pair> walk_order(const vorn_hash_table_s &table) {
  std::vector<Pair> pairs;
  for (uint32_t i = 0; i < table.bucket_count; ++i) {
    const auto more = bucket_pairs(table, i);
    pairs.insert(pairs.end(), more.begin(), more.end());
  }
  return pairs;
}

TEST(Hash, WalksGoByBucketAndFromTheLatestInsertion) {
  std::vector<vorn_hash_node_s> nodes;
  for (uint64_t key = 0; key < 60; ++key)
    nodes.push_back(node_with(0, key));
  const Table table;
  for (auto &node : nodes)
    ASSERT_EQ(vorn_hash_insert(table, &node), 0);

  met.clear();
  EXPECT_EQ(vorn_hash_for_each(table, note, 0), 0);
  const std::vector<Pair> all = walk_order(*table);
  EXPECT_EQ(met, all);
  for (uint32_t i = 0; i < table->bucket_count; ++i) {
    const auto pairs = bucket_pairs(*table, i);
    EXPECT_TRUE(std::is_sorted(pairs.rbegin(), pairs.rend())) << i;
  }

  for (const int8_t stop : {int8_t{1}, int8_t{-1}}) {
    met.clear();
    EXPECT_EQ(vorn_hash_for_each(table, note, stop), 42);
    EXPECT_EQ(met, (std::vector<Pair>{all.begin(), all.begin() + 3}));
  }
  const auto passed_on = [](vorn_hash_node_s *, void *arg) { return ++*static_cast<int *>(arg); };
  int calls = 0;
  EXPECT_EQ(vorn_hash_for_each_ex(table, passed_on, &calls, -1), 1);
  EXPECT_EQ(vorn_hash_for_each_ex(table, passed_on, &calls, 0), 0);
  EXPECT_EQ(calls, 61);
}

vorn_hash_node_s *allocated(uint64_t key) {
  auto *node = static_cast<vorn_hash_node_s *>(std::malloc(sizeof(vorn_hash_node_s)));
  *node = node_with(0, key);
  return node;
}

TEST(Hash, AWalkMayFreeTheNodesThatItVisits) {
  const Table table;
  for (uint64_t key = 0; key < 60; ++key)
    ASSERT_EQ(vorn_hash_insert(table, allocated(key)), 0);
  const auto free_it = [](vorn_hash_node_s *node, void *from) {
    vorn_hash_delete(static_cast<vorn_hash_table_s *>(from), 0, node->key, nullptr);
    std::free(node);
    return 0;
  };
  EXPECT_EQ(vorn_hash_for_each_ex(table, free_it, table, 1), 0);
  EXPECT_TRUE(walk_order(*table).empty());
}

TEST(HashDestruction, HandsOutEveryNodeInOrder) {
  memory = {};
  met.clear();
  vorn_hash_table_s *table;
  ASSERT_EQ(vorn_hash_create_ex(4, &table, 0, &kCounted), 0);
  for (uint64_t key = 0; key < 20; ++key)
    ASSERT_EQ(vorn_hash_insert(table, allocated(key)), 0);
  const std::vector<Pair> all = walk_order(*table);
  const auto drop = [](vorn_hash_node_s *node) {
    EXPECT_TRUE(is_self_linked(*node));
    note(node);
    std::free(node);
  };
  EXPECT_EQ(vorn_hash_destory(table, drop), 0);
  EXPECT_EQ(met, all);
  EXPECT_EQ(memory.used, 0);

  vorn_hash_node_s node = node_with(0, 1);
  {
    const Table other;
    vorn_hash_insert(other, &node);
  }
  EXPECT_TRUE(is_self_linked(node)); // without a function too
}

TEST(Hash, NullIsRefusedInSilence) {
  vorn_hash_node_s node = node_with(0, 0);
  const Table table;
  vorn_hash_node_s *out = &node;
  const auto walk_ex = [](vorn_hash_node_s *, void *) { return 0; };
  const int results[] = {vorn_hash_insert(nullptr, &node),
                         vorn_hash_insert(table, nullptr),
                         vorn_hash_delete(nullptr, 0, 0, &out),
                         vorn_hash_search(nullptr, 0, 0, &out),
                         vorn_hash_search(table, 0, 0, nullptr),
                         vorn_hash_for_each(nullptr, note, 0),
                         vorn_hash_for_each(table, nullptr, 0),
                         vorn_hash_for_each_ex(nullptr, walk_ex, nullptr, 0),
                         vorn_hash_for_each_ex(table, nullptr, nullptr, 0),
                         vorn_hash_destory(nullptr, nullptr)};
  EXPECT_EQ(std::ranges::count(results, -22), std::ssize(results));
  EXPECT_EQ(out, &node);
  EXPECT_NO_RECORD();
}

} // namespace
