// test-objects: the checked list is not exported
// Tests the checked list.
// SPDX-License-Identifier: Apache-2.0
#include "list/vorn_list.hpp"

#include <algorithm>
#include <csignal>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/log.hpp"
#include "support/log_capture.hpp"

namespace {

using vorn::list::insert_tail;
using vorn::list::remove;
using vorn::list::take_first;

struct Numbered {
  int value;
  vorn_list_head_s node;
};

std::vector<vorn_list_head_s *> dumped;
void dump(vorn_list_head_s *node) { dumped.push_back(node); }

// Returns a node and its links as the log messages show them: "0x1(0x2,0x3)".
std::string shown(const vorn_list_head_s *node) {
  char text[80];
  std::snprintf(text, sizeof text, "%p(%p,%p)", static_cast<const void *>(node),
                static_cast<const void *>(node->next), static_cast<const void *>(node->prev));
  return text;
}

class List : public testing::Test {
protected:
  List() : items_(40) {
    vorn_list_init_head(&head_);
    for (int i = 0; i < 40; ++i) {
      items_[static_cast<std::size_t>(i)].value = i;
      vorn_list_poison(node(i));
    }
  }

  vorn_list_head_s *node(int i) { return &items_[static_cast<std::size_t>(i)].node; }

  std::vector<int> values() const {
    std::vector<int> found;
    for (auto *at = vorn_list_first(&head_); at != nullptr; at = vorn_list_next(&head_, at))
      found.push_back(vorn_list_entry(at, Numbered, node)->value);
    return found;
  }

  vorn_list_head_s head_;
  std::vector<Numbered> items_;
};

TEST_F(List, AgreesWithAQueueUnderRandomOperations) {
  std::mt19937 random(1);
  std::deque<int> model;
  for (int step = 0; step < 5000; ++step) {
    const int pick = static_cast<int>(random() % items_.size());
    const auto at = std::find(model.begin(), model.end(), pick);
    if (random() % 8 == 0) {
      auto *first = take_first(&head_, dump, VORN_FILE);
      ASSERT_EQ(first, model.empty() ? nullptr : node(model.front()));
      if (first != nullptr) model.pop_front();
    } else if (at == model.end()) {
      ASSERT_TRUE(vorn_list_is_poisoned(node(pick)));
      insert_tail(&head_, node(pick), dump, VORN_FILE);
      model.push_back(pick);
    } else {
      remove(node(pick), dump, VORN_FILE);
      model.erase(at);
    }
    ASSERT_EQ(values(), std::vector<int>(model.begin(), model.end()));
  }
  EXPECT_NO_MESSAGE();
  EXPECT_TRUE(dumped.empty());
}

// Three nodes are in the list; a neighbour of one is made to point to a fourth.
class DamagedList : public List {
protected:
  DamagedList() {
    for (int i = 0; i < 3; ++i)
      insert_tail(&head_, node(i), dump, VORN_FILE);
    vorn_list_init_head(stranger_);
  }

  // Expects exactly this report of an operation, and that it shows these nodes.
  static void expect(const std::string &text, const std::vector<vorn_list_head_s *> &shown) {
    EXPECT_ONE_MESSAGE(vorn::kError, "list_test.c", "Owner", "Abnormal list node " + text);
    EXPECT_EQ(std::exchange(dumped, {}), shown);
  }

  vorn_list_head_s *const stranger_ = node(3);
};

TEST_F(DamagedList, InsertionReportsTheTailAndStillLinks) {
  head_.prev = stranger_;
  const std::string text = "prev:" + shown(stranger_) + " is not point to cur:" + shown(&head_);
  insert_tail(&head_, node(4), dump, VORN_FILE, "Owner");
  expect(text, {&head_, stranger_});
  EXPECT_TRUE(head_.prev == node(4) && stranger_->next == node(4) && node(4)->prev == stranger_);
}

TEST_F(DamagedList, RemovalReportsEachNeighbourAndRelinksThem) {
  node(0)->next = stranger_;
  std::string text = "prev:" + shown(node(0)) + " is not point to cur:" + shown(node(1));
  remove(node(1), dump, VORN_FILE, "Owner");
  expect(text, {node(1), node(0)});
  EXPECT_EQ(values(), (std::vector{0, 2}));
  node(0)->prev = stranger_;
  text = "next:" + shown(node(0)) + " is not point to cur:" + shown(&head_);
  remove(&head_, dump, VORN_FILE, "Owner");
  expect(text, {&head_, node(0)});
  EXPECT_TRUE(vorn_list_is_poisoned(&head_));
}

TEST_F(DamagedList, TakingTheFirstReportsThatItDoesNotPointBack) {
  node(0)->prev = stranger_;
  stranger_->next = node(0);
  const std::string head = shown(&head_), text = "cur:" + shown(node(0));
  take_first(&head_, dump, VORN_FILE, "Owner");
  expect(text + ", is not point to last:" + head.substr(0, head.find('(')), {node(0)});
}

// From now on, a fault writes the log messages to standard error and ends the process.
vorn::list::Show shown_at_fault() {
  signal(SIGSEGV, [](int) {
    for (const auto &message : capture::take())
      std::fprintf(stderr, "%d %s %u %s\n", message.level, message.file.c_str(), message.line,
                   message.text.c_str());
    _exit(1);
  });
  return dump;
}

TEST_F(List, BadLinkIsLoggedWithTheCallersPlaceAndFaults) {
  for (vorn_list_head_s *tail : {static_cast<vorn_list_head_s *>(nullptr), VORN_LIST_POISON_PREV}) {
    head_.prev = tail;
    const unsigned int line = __LINE__ + 1;
    EXPECT_DEATH(insert_tail(&head_, node(0), shown_at_fault(), VORN_FILE), // here
                 "6 list_test.c " + std::to_string(line) + " List node prev:\\(");
  }
  EXPECT_DEATH(remove(node(0), shown_at_fault(), VORN_FILE), "List node prev:\\(0x200200\\), cur");
}

} // namespace
