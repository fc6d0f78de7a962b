// Tests the AVL tree.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_avl.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "base/log.hpp"
#include "support/log_capture.hpp"

namespace {

// Neither the node nor the key is first, so that their addresses differ from the record's.
struct Record {
  long value;
  vorn_avl_node_s node;
  int key;
};

int order(int left, int right) { return (left > right) - (left < right); }

int compare_records(const void *value, const void *record) {
  return order(static_cast<const Record *>(value)->key, static_cast<const Record *>(record)->key);
}

int compare_key(const void *value, const void *record) {
  return order(*static_cast<const int *>(value), static_cast<const Record *>(record)->key);
}

const Record *record_of(const vorn_avl_node_s *node) {
  return reinterpret_cast<const Record *>(reinterpret_cast<const char *>(node) -
                                          offsetof(Record, node));
}

// Checks every field, appends the keys below node in order, and returns the height.
int check_subtree(const vorn_avl_node_s *node, const vorn_avl_node_s *parent,
                  std::vector<int> &keys) {
  if (node == nullptr) return 0;
  EXPECT_EQ(node->parent, parent);
  if (parent != nullptr) {
    EXPECT_EQ(parent->children[node->child_index], node);
  }
  const int left = check_subtree(node->children[0], node, keys);
  keys.push_back(record_of(node)->key);
  const int right = check_subtree(node->children[1], node, keys);
  EXPECT_EQ(node->balance, right - left);
  EXPECT_LE(std::abs(node->balance), 1);
  return 1 + std::max(left, right);
}

class Avl : public testing::Test {
protected:
  Avl() {
    EXPECT_EQ(vorn_create_avl_new(&tree_, compare_records, compare_key, sizeof(Record),
                                  offsetof(Record, node)),
              0);
    for (int i = 0; i < kRecords; ++i)
      records_[i].key = i / 2;
    capture::take();
  }

  Record *find(int key, unsigned long *where) {
    return static_cast<Record *>(vorn_find_avl_node(&tree_, &key, where));
  }
  unsigned long where_of(int key) {
    unsigned long where = ~0ul;
    EXPECT_EQ(find(key, &where), nullptr);
    return where;
  }
  std::vector<int> checked_keys() {
    std::vector<int> keys;
    check_subtree(tree_.root, nullptr, keys);
    EXPECT_EQ(vorn_get_avl_node_num(&tree_), static_cast<int64_t>(keys.size()));
    return keys;
  }

  static constexpr int kRecords = 160;
  Record records_[kRecords];
  vorn_avl_tree_s tree_;
};

// Compares with std::map, and checks the tree after each step. Uses each way to insert and to
// remove at every size from none to nearly all. Pairs of records have equal keys.
TEST_F(Avl, AgreesWithAMapUnderRandomOperations) {
  capture::set_level(vorn::kError); // else there are thousands of log messages
  std::map<int, Record *> model;
  const auto after = [&](auto at) { return at == model.end() ? nullptr : at->second; };
  const auto before = [&](auto at) {
    return at == model.begin() ? nullptr : std::prev(at)->second;
  };
  const auto insert = [&](Record *record, unsigned int way) {
    const unsigned long where = model.contains(record->key) ? 0 : where_of(record->key);
    const auto [at, inserted] = model.emplace(record->key, record);
    if (!inserted || way == 0) return vorn_add_avl_node(&tree_, record); // refuses an equal one
    Record *left = before(at), *right = after(std::next(at));
    if (way == 1 && left != nullptr) {
      EXPECT_EQ(vorn_insert_avl_node_specified(&tree_, record, left, 1), 0);
    } else if (way == 2 && right != nullptr) {
      EXPECT_EQ(vorn_insert_avl_node_specified(&tree_, record, right, 0), 0);
    } else {
      EXPECT_EQ(vorn_insert_avl_node(&tree_, record, where), 0);
    }
  };
  const auto compare = [&](int key) {
    std::vector<int> keys;
    for (const auto &[each, record] : model)
      keys.push_back(each);
    EXPECT_EQ(checked_keys(), keys);
    EXPECT_EQ(vorn_get_avl_first_node(&tree_), after(model.begin()));
    EXPECT_EQ(vorn_get_avl_last_node(&tree_), before(model.end()));
    const auto at = model.lower_bound(key);
    if (at == model.end() || at->first != key) {
      EXPECT_EQ(vorn_find_avl_nearest_node(&tree_, where_of(key), 1), after(at));
      EXPECT_EQ(vorn_find_avl_nearest_node(&tree_, where_of(key), 0), before(at));
      return;
    }
    EXPECT_EQ(find(key, nullptr), at->second);
    EXPECT_EQ(vorn_walk_avl_node(&tree_, at->second, 1), after(std::next(at)));
    EXPECT_EQ(vorn_walk_avl_node(&tree_, at->second, 0), before(at));
  };

  std::mt19937 random{1};
  for (unsigned int step = 0; step < 6000 && !HasFailure(); ++step) {
    Record *record = &records_[random() % kRecords];
    const auto at = model.find(record->key);
    const bool filling = step / 500 % 2 == 0;
    if (random() % 4 == 0 ? !filling : filling) {
      insert(record, random() % 4);
    } else if (at != model.end()) {
      EXPECT_EQ(vorn_remove_avl_node(&tree_, at->second), 0);
      model.erase(at);
    }
    compare(static_cast<int>(random() % (kRecords / 2)));
  }
  EXPECT_NO_MESSAGE();
}

TEST_F(Avl, BadArgumentsAreReportedByTheFunctionThatGotThem) {
  EXPECT_EQ(vorn_insert_avl_node_specified(&tree_, &records_[2], &records_[2], 2), -1);
  EXPECT_ONE_MESSAGE(vorn::kError, "vorn_avl.c", "vorn_insert_avl_node_specified", "Invalid Param");
  EXPECT_EQ(vorn_get_avl_node_num(nullptr), -1);
  EXPECT_TRUE(checked_keys().empty());
}

} // namespace
