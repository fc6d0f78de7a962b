// Tests the hash table.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_hash.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "support/log_capture.hpp"

namespace {

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

// Checks the links in both directions, and returns the pairs of all buckets from head to tail.
std::vector<Pair> pairs_in(const vorn_hash_table_s &table) {
  std::vector<Pair> pairs;
  for (uint32_t i = 0; i < table.bucket_count; ++i) {
    vorn_list_head_s *head = &table.buckets[i];
    for (vorn_list_head_s *link = head->next; link != head; link = link->next) {
      EXPECT_EQ(link->next->prev, link);
      pairs.push_back(pair_of(vorn_list_entry(link, vorn_hash_node_s, link)));
      EXPECT_EQ(hash_func(pairs.back().first, pairs.back().second, table.bits), i);
    }
    EXPECT_EQ(head->next->prev, head);
  }
  return pairs;
}

// The blocks that a table may still allocate, and those that it has.
int left_to_take;
int taken;

void *counted_alloc(size_t size) {
  if (taken == left_to_take) return nullptr;
  ++taken;
  return std::malloc(size);
}

void counted_free(void *ptr) {
  --taken;
  std::free(ptr);
}

// Computed with integers of unlimited length.
TEST(HashFunction, Indices) {
  const struct {
    uint32_t key2;
    uint64_t key;
    uint8_t bits;
    uint32_t index;
  } rows[] = {
      {0, 0x100000001, 10, 0x278}, // the upper half of key does not count
      {0, 0x80000000, 10, 0x3ff},  // nor does the sign of the lower
      {0xffffffff, 0xffffffffffffffff, 30, 0x18720000},
      {3, 5, 0, 0xffec0005}, // a shift by 64 is one by 0
      {0, 1, 64, 0xfffc0001},
  };
  for (const auto &row : rows)
    EXPECT_EQ(hash_func(row.key2, row.key, row.bits), row.index) << row.key << " " << +row.bits;
}

TEST(HashCreation, BucketsAreThePowerOfTwoNotAboveTheCount) {
  const struct {
    uint32_t count, limit;
    int left, result;
    uint32_t buckets;
  } rows[] = {
      {1, 0, 2, 0, 1},          {3, 0, 2, 0, 2},      {1000, 0, 2, 0, 512},
      {8, 1023, 2, 0, 8},       {8, 1024, 2, -22, 0}, {0, 0, 2, -22, 0},
      {1u << 31, 0, 2, -22, 0}, {4, 0, 0, -12, 0},    {4, 0, 1, -12, 0},
  };
  const vorn_hash_attr_s counted{counted_alloc, counted_free};
  const vorn_hash_attr_s half{counted_alloc, nullptr};
  vorn_hash_table_s *table = nullptr;
  for (const auto &row : rows) {
    left_to_take = row.left;
    ASSERT_EQ(vorn_hash_create_ex(row.count, &table, row.limit, &counted), row.result) << row.count;
    if (row.result == 0) {
      EXPECT_EQ(table->bucket_count, row.buckets);
      EXPECT_EQ(vorn_hash_destory(table, nullptr), 0);
    }
    EXPECT_EQ(taken, 0);
  }
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(vorn_hash_create_ex(4, &table, 0, &half), -12);
  EXPECT_EQ(capture::take().at(0).function, "vorn_hash_malloc");
}

class Hash : public testing::Test {
protected:
  Hash() { EXPECT_EQ(vorn_hash_create(16, &table_, 0), 0); }

  vorn_hash_table_s *table_ = nullptr;
};

// Many keys differ only above bit 31, or only in key2. At the end, every remaining node is returned
// unlinked.
TEST_F(Hash, AgreesWithAMapUnderRandomOperations) {
  std::mt19937 random{1};
  std::map<Pair, vorn_hash_node_s *> model;
  std::vector<vorn_hash_node_s> nodes(200);
  for (auto &node : nodes)
    node = node_with(random() % 2, (uint64_t{random() % 2} << 32) + random() % 20);

  for (int step = 0; step < 6000; ++step) {
    vorn_hash_node_s *node = &nodes[random() % nodes.size()];
    const Pair pair = pair_of(node);
    const auto at = model.find(pair);
    vorn_hash_node_s *found = node;
    const int there = at != model.end() ? 0 : -1;
    ASSERT_EQ(vorn_hash_search(table_, pair.first, pair.second, &found), there);
    ASSERT_EQ(found, there == 0 ? at->second : nullptr);
    if (random() % 2 == 0) {
      ASSERT_EQ(vorn_hash_insert(table_, node), there == 0 ? -17 : 0);
      model.emplace(pair, node);
    } else {
      vorn_hash_node_s *out = node;
      ASSERT_EQ(vorn_hash_delete(table_, pair.first, pair.second, &out), there);
      ASSERT_EQ(out, there == 0 ? found : node); // left alone
      if (there == 0) {
        ASSERT_TRUE(is_self_linked(*out));
        model.erase(at);
      }
    }
    std::vector<Pair> wanted;
    for (const auto &[each, held] : model)
      wanted.push_back(each);
    std::vector<Pair> pairs = pairs_in(*table_);
    std::ranges::sort(pairs);
    ASSERT_EQ(pairs, wanted);
    if (HasFailure()) return;
  }

  const auto drop = [](vorn_hash_node_s *node) {
    EXPECT_TRUE(is_self_linked(*node));
    node->key = 99;
  };
  EXPECT_EQ(vorn_hash_destory(table_, drop), 0);
  EXPECT_EQ(std::ranges::count(nodes, 99u, &vorn_hash_node_s::key), std::ssize(model));
  EXPECT_EQ(vorn_hash_destory(nullptr, nullptr), -22);
}

TEST_F(Hash, WalksVisitBucketsFromTheLatestInsertionAndMayFreeNodes) {
  for (uint64_t key = 0; key < 60; ++key)
    ASSERT_EQ(vorn_hash_insert(table_, new auto(node_with(0, key))), 0);
  const std::vector<Pair> all = pairs_in(*table_);
  EXPECT_TRUE(std::ranges::is_sorted(all, {}, [this](const Pair &pair) {
    return std::pair(hash_func(0, pair.second, table_->bits), ~pair.second);
  }));

  static std::vector<Pair> met;
  const auto stop_at_third = [](vorn_hash_node_s *node) {
    met.push_back(pair_of(node));
    return met.size() == 3 ? 42 : 0;
  };
  for (const int8_t stop : {int8_t{1}, int8_t{-1}}) {
    met.clear();
    EXPECT_EQ(vorn_hash_for_each(table_, stop_at_third, stop), 42);
    EXPECT_EQ(met, (std::vector<Pair>{all.begin(), all.begin() + 3}));
  }
  met.clear();
  const auto free_it = [](vorn_hash_node_s *node, void *from) {
    met.push_back(pair_of(node));
    vorn_hash_delete(static_cast<vorn_hash_table_s *>(from), 0, node->key, nullptr);
    delete node;
    return 1;
  };
  EXPECT_EQ(vorn_hash_for_each_ex(table_, free_it, table_, 0), 0);
  EXPECT_EQ(met, all);
  EXPECT_EQ(vorn_hash_destory(table_, nullptr), 0);
}

} // namespace
