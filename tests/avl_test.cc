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

// Neither the node nor the key is first, so that no address passes for another.
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

// Sends every value to the right, and fails at record 3.
int compare_badly(const void *, const void *record) {
  return static_cast<const Record *>(record)->key == 3 ? 2 : 1;
}

const Record *record_of(const vorn_avl_node_s *node) {
  return reinterpret_cast<const Record *>(reinterpret_cast<const char *>(node) -
                                          offsetof(Record, node));
}

// Appends the keys below node in order and returns the height, having checked every field.
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
    for (int key = 0; key < kRecords; ++key)
      records_[key].key = key;
    capture::take();
  }

  void add(std::initializer_list<int> keys) {
    for (const int key : keys)
      vorn_add_avl_node(&tree_, &records_[key]);
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

// Beside std::map, with the tree checked after each step. Each way to insert and to remove is taken
// at every size from none to nearly all.
class AvlModel : public Avl {
protected:
  using Model = std::map<int, Record *>;

  // Pairs of records have equal keys.
  AvlModel() {
    for (int i = 0; i < kRecords; ++i)
      records_[i].key = i / 2;
  }

  void insert(Record *record, std::mt19937 &random) {
    const auto [at, inserted] = model_.emplace(record->key, record);
    const auto next = std::next(at);
    switch (random() % 4) {
    case 0:
      if (!inserted) break;
      ASSERT_EQ(vorn_insert_avl_node(&tree_, record, where_of(record->key)), 0);
      return;
    case 1:
      if (!inserted || at == model_.begin()) break;
      ASSERT_EQ(vorn_insert_avl_node_specified(&tree_, record, std::prev(at)->second, 1), 0);
      return;
    case 2:
      if (!inserted || next == model_.end()) break;
      ASSERT_EQ(vorn_insert_avl_node_specified(&tree_, record, next->second, 0), 0);
      return;
    }
    vorn_add_avl_node(&tree_, record); // of an equal one too: nothing happens
  }

  void remove(Model::iterator at) {
    ASSERT_EQ(vorn_remove_avl_node(&tree_, at->second), 0);
    model_.erase(at);
  }

  Record *record_at(Model::iterator at) { return at == model_.end() ? nullptr : at->second; }
  Record *record_before(Model::iterator at) {
    return at == model_.begin() ? nullptr : std::prev(at)->second;
  }

  void compare_lookups(int key) {
    const auto at = model_.lower_bound(key);
    unsigned long where = 2;
    Record *found = find(key, &where);
    if (at != model_.end() && at->first == key) {
      ASSERT_EQ(found, at->second);
      ASSERT_EQ(where, 2u);
      ASSERT_EQ(vorn_walk_avl_node(&tree_, found, 1), record_at(std::next(at)));
      ASSERT_EQ(vorn_walk_avl_node(&tree_, found, 0), record_before(at));
    } else {
      ASSERT_EQ(found, nullptr);
      ASSERT_EQ(vorn_find_avl_nearest_node(&tree_, where, 1), record_at(at));
      ASSERT_EQ(vorn_find_avl_nearest_node(&tree_, where, 0), record_before(at));
    }
    ASSERT_EQ(vorn_get_avl_first_node(&tree_), record_at(model_.begin()));
    ASSERT_EQ(vorn_get_avl_last_node(&tree_), record_before(model_.end()));
  }

  void compare_trees() {
    std::vector<int> keys;
    for (const auto &[key, record] : model_)
      keys.push_back(key);
    ASSERT_EQ(checked_keys(), keys);
  }

  Model model_;
};

TEST_F(AvlModel, AgreesWithAMapUnderRandomOperations) {
  capture::set_level(vorn::kError); // records by the thousand otherwise
  std::mt19937 random{1};
  for (unsigned int step = 0; step < 6000; ++step) {
    Record *record = &records_[random() % kRecords];
    const auto at = model_.find(record->key);
    const bool filling = step / 500 % 2 == 0;
    if (random() % 4 == 0 ? !filling : filling) {
      insert(record, random);
    } else if (at != model_.end()) {
      remove(at);
    }
    ASSERT_NO_FATAL_FAILURE(compare_trees());
    ASSERT_NO_FATAL_FAILURE(compare_lookups(static_cast<int>(random() % (kRecords / 2))));
    if (HasFailure()) return;
  }
  EXPECT_NO_RECORD();
}

// The heir of a node with two children comes from the higher side, and from the left when both are
// equally high.
TEST_F(Avl, RemovalTakesTheHeirFromTheHigherSide) {
  add({4, 2, 6});
  vorn_remove_avl_node(&tree_, &records_[4]);
  EXPECT_EQ(tree_.root, &records_[2].node);
  add({8, 1, 9}); // 2 with 1 on the left, and 8 above 6 and 9 on the right
  vorn_remove_avl_node(&tree_, &records_[2]);
  EXPECT_EQ(tree_.root, &records_[6].node);
  EXPECT_EQ(checked_keys(), (std::vector{1, 6, 8, 9}));
}

TEST_F(Avl, PositionsNameParentAndSide) {
  EXPECT_EQ(where_of(5), 0u);
  EXPECT_EQ(vorn_find_avl_nearest_node(&tree_, 0, 1), nullptr);
  EXPECT_EQ(vorn_find_avl_nearest_node(&tree_, 1, 0), nullptr);
  EXPECT_EQ(vorn_get_avl_first_node(&tree_), nullptr);
  EXPECT_EQ(vorn_get_avl_last_node(&tree_), nullptr);
  add({4, 2, 6});
  const auto parent = reinterpret_cast<unsigned long>(&records_[6].node);
  EXPECT_EQ(where_of(5), parent);
  EXPECT_EQ(where_of(7), parent | 1);
  EXPECT_EQ(find(5, nullptr), nullptr);
}

TEST_F(Avl, AComparisonOutOfRangeFindsNothingAndMakesARootAlone) {
  add({1, 2, 3});
  tree_.add_compare = tree_.find_compare = compare_badly;
  EXPECT_EQ(where_of(2), 0u);
  add({4});
  EXPECT_EQ(tree_.root, &records_[4].node);
  EXPECT_EQ(tree_.root->children[0], nullptr);
  EXPECT_EQ(vorn_get_avl_node_num(&tree_), 4);
}

TEST_F(Avl, BadArgumentsAreReportedByTheFunctionThatGotThem) {
  vorn_add_avl_node(&tree_, nullptr);
  EXPECT_ONE_RECORD(vorn::kError, "vorn_avl.c", "vorn_add_avl_node", "NULL POINTER");
  EXPECT_EQ(vorn_insert_avl_node_specified(&tree_, &records_[2], &records_[2], 2), -1);
  EXPECT_ONE_RECORD(vorn::kError, "vorn_avl.c", "vorn_insert_avl_node_specified", "Invalid Param");
  EXPECT_EQ(vorn_remove_avl_node(nullptr, &records_[0]), 0);
  EXPECT_EQ(vorn_find_avl_node(nullptr, &records_[0].key, nullptr), nullptr);
  EXPECT_EQ(vorn_walk_avl_node(&tree_, nullptr, 1), nullptr);
  EXPECT_EQ(vorn_find_avl_nearest_node(nullptr, 0, 1), nullptr);
  EXPECT_EQ(vorn_get_avl_node_num(nullptr), -1);
  EXPECT_TRUE(checked_keys().empty());
}

} // namespace
