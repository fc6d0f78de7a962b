#include "vorn_avl.h"

#include <dlfcn.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "base/log.hpp"
#include "support/log_capture.hpp"

namespace {

bool insertion_fails = false;

} // namespace

// In front of the library's own, which then calls this one too.
int vorn_insert_avl_node(vorn_avl_tree_s *tree, void *record, unsigned long where) {
  static const auto real =
      reinterpret_cast<decltype(&vorn_insert_avl_node)>(dlsym(RTLD_NEXT, "vorn_insert_avl_node"));
  return insertion_fails ? -7 : real(tree, record, where);
}

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
  while (!model_.empty()) {
    ASSERT_NO_FATAL_FAILURE(remove(std::next(model_.begin(), random() % model_.size())));
    ASSERT_NO_FATAL_FAILURE(compare_trees());
  }
  EXPECT_EQ(tree_.root, nullptr);
  EXPECT_NO_RECORD();
  capture::set_level(vorn::kDebug);
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

TEST_F(Avl, DebugRecordsTellWhereBalancingEnded) {
  add({2, 1});
  EXPECT_NO_RECORD(); // ended at the root
  add({3});
  EXPECT_ONE_RECORD(vorn::kDebug, "vorn_avl.c", "vorn_insert_avl_node", "Set AVL balance done.");
  add({4, 5});
  EXPECT_NO_RECORD(); // a rotation
  for (const int key : {1, 2, 3, 4})
    vorn_remove_avl_node(&tree_, &records_[key]);
  EXPECT_NO_RECORD(); // the root had a child, which took its place
  EXPECT_EQ(tree_.root, &records_[5].node);
  vorn_remove_avl_node(&tree_, &records_[5]);
  EXPECT_ONE_RECORD(vorn::kDebug, "vorn_avl.c", "vorn_remove_avl_node",
                    "Remove node not need set balance.");
  EXPECT_TRUE(checked_keys().empty());
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

TEST_F(Avl, CreationAndDestructionSetEveryField) {
  vorn_avl_tree_s tree = tree_;
  EXPECT_EQ(vorn_create_avl(&tree, compare_records, 100, 8), 0);
  EXPECT_EQ(tree.find_compare, compare_records);
  EXPECT_EQ(vorn_create_avl_new(&tree, compare_records, compare_key, 100, 8), 0);
  tree.root = &records_[0].node;
  tree.node_count = 9;
  EXPECT_EQ(vorn_destroy_avl(&tree), 0);
  EXPECT_EQ(tree.root, nullptr);
  EXPECT_EQ(tree.add_compare, compare_records);
  EXPECT_EQ(tree.find_compare, compare_key);
  EXPECT_EQ(tree.node_offset, 8u);
  EXPECT_EQ(tree.record_size, 100u);
  EXPECT_EQ(tree.node_count, 0u);
}

TEST_F(Avl, BadArgumentsAreReportedByTheFunctionThatGotThem) {
  vorn_avl_tree_s *none = nullptr;
  Record *record = &records_[0];
  const int key = 0;
  const auto is_null = [](const void *result) { return result == nullptr ? 0 : 1; };
  vorn_add_avl_node(none, record);
  vorn_add_avl_node(&tree_, nullptr);
  const struct {
    const char *function;
    int64_t result;
    int64_t wanted;
  } rows[] = {
      {"vorn_add_avl_node", 0, 0},
      {"vorn_add_avl_node", 0, 0},
      {"vorn_create_avl", vorn_create_avl(none, compare_key, 8, 0), -1},
      {"vorn_create_avl", vorn_create_avl(&tree_, nullptr, 8, 0), -1},
      {"vorn_create_avl_new", vorn_create_avl_new(none, compare_key, compare_key, 8, 0), -1},
      {"vorn_create_avl_new", vorn_create_avl_new(&tree_, nullptr, compare_key, 8, 0), -1},
      {"vorn_create_avl_new", vorn_create_avl_new(&tree_, compare_key, nullptr, 8, 0), -1},
      {"vorn_destroy_avl", vorn_destroy_avl(none), -1},
      {"vorn_find_avl_node", is_null(vorn_find_avl_node(none, &key, nullptr)), 0},
      {"vorn_insert_avl_node", vorn_insert_avl_node(none, record, 0), -1},
      {"vorn_insert_avl_node", vorn_insert_avl_node(&tree_, nullptr, 0), -1},
      {"vorn_insert_avl_node_specified", vorn_insert_avl_node_specified(none, record, record, 0),
       -1},
      {"vorn_insert_avl_node_specified", vorn_insert_avl_node_specified(&tree_, nullptr, record, 0),
       -1},
      {"vorn_insert_avl_node_specified", vorn_insert_avl_node_specified(&tree_, record, nullptr, 2),
       -1},
      {"vorn_remove_avl_node", vorn_remove_avl_node(none, record), 0},
      {"vorn_remove_avl_node", vorn_remove_avl_node(&tree_, nullptr), 0},
      {"vorn_walk_avl_node", is_null(vorn_walk_avl_node(none, record, 1)), 0},
      {"vorn_walk_avl_node", is_null(vorn_walk_avl_node(&tree_, nullptr, 1)), 0},
      {"vorn_find_avl_nearest_node", is_null(vorn_find_avl_nearest_node(none, 0, 1)), 0},
      {"vorn_get_avl_first_node", is_null(vorn_get_avl_first_node(none)), 0},
      {"vorn_get_avl_last_node", is_null(vorn_get_avl_last_node(none)), 0},
      {"vorn_get_avl_node_num", vorn_get_avl_node_num(none), -1},
  };
  const auto told = capture::take();
  ASSERT_EQ(told.size(), std::size(rows));
  for (size_t i = 0; i < told.size(); ++i) {
    EXPECT_EQ(rows[i].result, rows[i].wanted) << rows[i].function;
    EXPECT_EQ(told[i].level, vorn::kError);
    EXPECT_EQ(told[i].function, rows[i].function);
    EXPECT_EQ(told[i].text, "NULL POINTER");
  }
  EXPECT_EQ(vorn_insert_avl_node_specified(&tree_, &records_[2], record, 2), -1);
  EXPECT_ONE_RECORD(vorn::kError, "vorn_avl.c", "vorn_insert_avl_node_specified", "Invalid Param");
  EXPECT_TRUE(checked_keys().empty());
}

TEST_F(Avl, AFailedInsertionIsReported) {
  add({1});
  insertion_fails = true;
  add({2});
  EXPECT_ONE_RECORD(vorn::kError, "vorn_avl.c", "vorn_add_avl_node", "InsertAvlNode fail.");
  char wanted[128];
  std::snprintf(wanted, sizeof wanted,
                "InsertAvlNode fail: avl_tree=%p, new_node=%p, here=%p, direction=1.",
                static_cast<void *>(&tree_), static_cast<void *>(&records_[2]),
                static_cast<void *>(&records_[1]));
  EXPECT_EQ(vorn_insert_avl_node_specified(&tree_, &records_[2], &records_[1], 1), -7);
  EXPECT_ONE_RECORD(vorn::kError, "vorn_avl.c", "vorn_insert_avl_node_specified", wanted);
}

} // namespace
