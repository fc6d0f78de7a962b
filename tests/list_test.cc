// test-objects: the checked list is not exported
#include "list/vorn_list.hpp"

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

struct Record {
  int value;
  vorn_list_head_s node;
};

std::vector<vorn_list_head_s *> dumped;
void dump(vorn_list_head_s *node) { dumped.push_back(node); }

// "0x1(0x2,0x3)": a node and its links, as the records show it.
std::string shown(const vorn_list_head_s *node) {
  const auto hex = [](const void *address) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%p", address);
    return std::string(buffer);
  };
  return hex(node) + "(" + hex(node->next) + "," + hex(node->prev) + ")";
}

std::vector<int> values(const vorn_list_head_s &head) {
  std::vector<int> found;
  for (auto *node = vorn_list_first(&head); node != nullptr; node = vorn_list_next(&head, node)) {
    found.push_back(vorn_list_entry(node, Record, node)->value);
  }
  return found;
}

// From now on a fault shows the records on standard error and ends the process.
vorn::list::Show shown_at_fault() {
  signal(SIGSEGV, [](int) {
    for (const auto &record : capture::take()) {
      std::fprintf(stderr, "%d %s %u %s\n", record.level, record.file.c_str(), record.line,
                   record.text.c_str());
    }
    _exit(1);
  });
  return dump;
}

class List : public testing::Test {
protected:
  void SetUp() override {
    vorn_list_init_head(&head_);
    for (int i = 0; i < 4; ++i) {
      records_[i].value = i;
      vorn_list_poison(&records_[i].node);
    }
  }
  void fill(int count) {
    for (int i = 0; i < count; ++i)
      insert_tail(&head_, &records_[i].node, dump, VORN_FILE);
  }
  vorn_list_head_s head_;
  Record records_[4];
};

TEST_F(List, AgreesWithAQueueUnderRandomOperations) {
  std::mt19937 random(1);
  std::vector<Record> pool(40);
  std::deque<int> model;
  for (int i = 0; i < 40; ++i) {
    pool[static_cast<size_t>(i)].value = i;
    vorn_list_poison(&pool[static_cast<size_t>(i)].node);
  }
  for (int step = 0; step < 5000; ++step) {
    const int pick = static_cast<int>(random() % pool.size());
    Record &record = pool[static_cast<size_t>(pick)];
    const auto at = std::find(model.begin(), model.end(), pick);
    if (random() % 8 == 0) {
      auto *first = take_first(&head_, dump, VORN_FILE);
      ASSERT_EQ(first == nullptr, model.empty());
      if (first == nullptr) continue;
      ASSERT_EQ(vorn_list_entry(first, Record, node)->value, model.front());
      model.pop_front();
    } else if (at == model.end()) {
      ASSERT_TRUE(vorn_list_is_poisoned(&record.node));
      insert_tail(&head_, &record.node, dump, VORN_FILE);
      model.push_back(pick);
    } else {
      remove(&record.node, dump, VORN_FILE);
      model.erase(at);
    }
    ASSERT_EQ(values(head_), std::vector<int>(model.begin(), model.end()));
  }
  EXPECT_NO_RECORD();
  EXPECT_TRUE(dumped.empty());
}

TEST_F(List, InsertionReportsAnOverwrittenTailAndStillLinks) {
  fill(1);
  auto *stranger = &records_[3].node;
  vorn_list_init_head(stranger);
  head_.prev = stranger;
  const std::string wanted =
      "Abnormal list node prev:" + shown(stranger) + " is not point to cur:" + shown(&head_);
  insert_tail(&head_, &records_[1].node, dump, VORN_FILE);
  EXPECT_ONE_RECORD(vorn::kError, "list_test.c", "TestBody", wanted);
  EXPECT_EQ(dumped, (std::vector{&head_, stranger}));
  EXPECT_EQ(head_.prev, &records_[1].node);
  EXPECT_EQ(stranger->next, &records_[1].node);
  EXPECT_EQ(records_[1].node.prev, stranger);
}

TEST_F(List, RemovalReportsBothNeighboursAndRelinksThem) {
  fill(3);
  auto *node = &records_[1].node;
  records_[0].node.next = &records_[3].node;
  records_[2].node.prev = &records_[3].node;
  remove(node, dump, VORN_FILE);
  EXPECT_EQ(capture::take().size(), 2u);
  EXPECT_EQ(dumped, (std::vector{node, &records_[0].node, node, &records_[2].node}));
  EXPECT_TRUE(vorn_list_is_poisoned(node));
  EXPECT_EQ(values(head_), (std::vector{0, 2}));
}

TEST_F(List, MissingTailIsNotedInTheCallersPlace) {
  for (vorn_list_head_s *tail : {static_cast<vorn_list_head_s *>(nullptr), VORN_LIST_POISON_PREV}) {
    head_.prev = tail;
    const unsigned int line = __LINE__ + 1;
    EXPECT_DEATH(insert_tail(&head_, &records_[0].node, shown_at_fault(), VORN_FILE), // here
                 "6 list_test.c " + std::to_string(line) + " List node prev:\\(");
  }
}

} // namespace
