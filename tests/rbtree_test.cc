// Tests the red-black tree.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_rbtree.h"

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Node = vorn_rb_node_s;

struct Record {
  int key = 0;
  int value = 0;
  int max = 0; // value of the record and of all below it
  Node node{};
};

Record *record_of(const Node *node) {
  return vorn_rb_entry(const_cast<Node *>(node), Record, node);
}

int max_below(const Node *node) {
  int max = record_of(node)->value;
  for (const Node *child : {node->left, node->right}) {
    if (child != nullptr) max = std::max(max, record_of(child)->max);
  }
  return max;
}

void update_max(Node *node, void *calls) {
  record_of(node)->max = max_below(node);
  ++*static_cast<int *>(calls);
}

// Checks what is below node and returns its black height. Adds the records in order.
int check_below(const Node *node, const Node *parent, std::vector<Record *> &order) {
  if (node == nullptr) return 0;
  const unsigned long black = node->parent_color & VORN_RB_BLACK;
  EXPECT_EQ(node->parent_color - black, reinterpret_cast<unsigned long>(parent));
  EXPECT_TRUE(black != 0 || (parent != nullptr && (parent->parent_color & VORN_RB_BLACK) != 0))
      << "red below red, or a red top node";
  EXPECT_EQ(record_of(node)->max, max_below(node));
  const int left = check_below(node->left, node, order);
  order.push_back(record_of(node));
  const int right = check_below(node->right, node, order);
  EXPECT_EQ(left, right) << "black heights differ";
  return left + (black != 0 ? 1 : 0);
}

// A tree beside its model, a map from the keys to the records that must be in it.
class RbTree : public testing::Test {
protected:
  void insert(Record &record) {
    Node **link = &root_.node;
    Node *parent = nullptr;
    while (*link != nullptr) {
      parent = *link;
      link = record.key < record_of(parent)->key ? &parent->left : &parent->right;
    }
    vorn_rb_link_node(&record.node, parent, link);
    vorn_rb_insert_color(&record.node, &root_);
    calls_ = 0;
    vorn_rb_augment_insert(&record.node, update_max, &calls_);
    EXPECT_LE(calls_, 32); // one path, and what a rotation moved off it
    model_[record.key] = &record;
  }

  void erase(Record &record) {
    Node *deepest = vorn_rb_augment_erase_begin(&record.node);
    vorn_rb_erase(&record.node, &root_);
    vorn_rb_augment_erase_end(deepest, update_max, &calls_);
    vorn_rb_clear_node(&record.node);
    model_.erase(record.key);
  }

  void replace(Record &victim, Record &fresh) {
    fresh.key = victim.key;
    fresh.value = victim.value;
    fresh.max = victim.max;
    vorn_rb_replace_node(&victim.node, &fresh.node, &root_);
    vorn_rb_clear_node(&victim.node);
    model_[fresh.key] = &fresh;
  }

  void check() const {
    std::vector<Record *> wanted;
    for (const auto &[key, record] : model_)
      wanted.push_back(record);

    std::vector<Record *> order;
    check_below(root_.node, nullptr, order);
    EXPECT_EQ(order, wanted);
    EXPECT_EQ(walked(vorn_rb_first(&root_), vorn_rb_next), wanted);
    std::reverse(wanted.begin(), wanted.end());
    EXPECT_EQ(walked(vorn_rb_last(&root_), vorn_rb_prev), wanted);
    EXPECT_EQ(vorn_rb_is_empty(&root_) != 0, wanted.empty());
  }

  static std::vector<Record *> walked(Node *node, Node *(*step)(const Node *)) {
    std::vector<Record *> records;
    for (; node != nullptr; node = step(node))
      records.push_back(record_of(node));
    return records;
  }

  vorn_rb_root_s root_ = VORN_RB_ROOT_INIT;
  std::map<int, Record *> model_;
  int calls_ = 0; // of update_max
};

TEST_F(RbTree, KeepsItsInvariantsUnderRandomOperations) {
  // In a small pool the shapes near the top come up often, in a large one the deep ones.
  for (const int size : {4, 12, 200}) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::vector<Record> pool(static_cast<std::size_t>(size));
    for (Record &record : pool)
      vorn_rb_clear_node(&record.node);

    for (int step = 0; step < 2000; ++step) {
      Record &record = pool[random() % pool.size()];
      Record &other = pool[random() % pool.size()];
      if (vorn_rb_is_clear(&record.node)) {
        const int key = static_cast<int>(random() % 1000000);
        if (model_.contains(key)) continue;
        record.key = key;
        record.value = static_cast<int>(random() % 1000);
        insert(record);
      } else if (step % 3 == 0 && vorn_rb_is_clear(&other.node)) {
        replace(record, other);
      } else {
        erase(record);
      }
      check();
      ASSERT_FALSE(HasFailure()) << "step " << step << " of " << size << " records";
    }
    while (!model_.empty())
      erase(*model_.begin()->second);
    check();
  }
}

} // namespace
