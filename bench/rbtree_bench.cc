// bench-links: bsd
// Compares the red-black tree with its peers, including the search for the place of a key, which
// either the caller or the library implements. All trees have the same keys in records of the same
// size.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_rbtree.h"

#include <bsd/sys/tree.h>

#include <algorithm>
#include <boost/intrusive/set.hpp>
#include <string>
#include <utility>
#include <vector>

#include "support/bench.hpp"
#include "support/keys.hpp"

namespace {

// Size of a key and the largest node, that of libbsd, which has a word for the colour.
constexpr std::size_t kRecordSize = 40;

struct OurRecord {
  std::uint64_t key;
  vorn_rb_node_s node;
  std::uint64_t unused;
};
static_assert(sizeof(OurRecord) == kRecordSize);

class Ours {
public:
  using Record = OurRecord;

  void insert(Record &record) {
    vorn_rb_node_s **link = &root_.node;
    vorn_rb_node_s *parent = nullptr;
    bool before = false;
    for (vorn_rb_node_s *at = root_.node; at != nullptr; at = before ? at->left : at->right) {
      parent = at;
      before = record.key < vorn_rb_entry(at, Record, node)->key;
    }
    if (parent != nullptr) link = before ? &parent->left : &parent->right;
    vorn_rb_link_node(&record.node, parent, link);
    vorn_rb_insert_color(&record.node, &root_);
  }
  void erase(Record &record) { vorn_rb_erase(&record.node, &root_); }

private:
  vorn_rb_root_s root_ = VORN_RB_ROOT_INIT;
};

struct BoostRecord {
  std::uint64_t key;
  // Compact: keeps the colour in the parent's word, as our tree does.
  boost::intrusive::set_member_hook<boost::intrusive::link_mode<boost::intrusive::normal_link>,
                                    boost::intrusive::optimize_size<true>>
      node;
  std::uint64_t unused;
  bool operator<(const BoostRecord &other) const { return key < other.key; }
};
static_assert(sizeof(BoostRecord) == kRecordSize);

class Boost {
public:
  using Record = BoostRecord;

  void insert(Record &record) { set_.insert(record); }
  void erase(Record &record) { set_.erase(set_.iterator_to(record)); }

private:
  using Hook = boost::intrusive::member_hook<Record, decltype(Record::node), &Record::node>;
  boost::intrusive::set<Record, Hook, boost::intrusive::constant_time_size<false>> set_;
};

struct BsdRecord {
  std::uint64_t key;
  RB_ENTRY(BsdRecord) node;
};
static_assert(sizeof(BsdRecord) == kRecordSize);

int compare(const BsdRecord *a, const BsdRecord *b) {
  return a->key < b->key ? -1 : a->key > b->key;
}

RB_HEAD(BsdTree, BsdRecord);
RB_GENERATE_INTERNAL(BsdTree, BsdRecord, node, compare, [[maybe_unused]] static)

class Bsd {
public:
  using Record = BsdRecord;

  void insert(Record &record) { RB_INSERT(BsdTree, &tree_, &record); }
  void erase(Record &record) { RB_REMOVE(BsdTree, &tree_, &record); }

private:
  BsdTree tree_ = RB_INITIALIZER(&tree_);
};

constexpr std::size_t kKeys = 65536; // of the rounds of a row

// Inserts size keys, and then erases all of them in the order of insertion. Each round uses other
// keys, so that the branch predictor cannot learn the results of the comparisons.
template <class Tree> auto fill_and_empty(std::size_t size) {
  std::vector<typename Tree::Record> records(size);
  return [records = std::move(records), keys = bench::random_keys(std::max(size, kKeys)),
          at = std::size_t{0}]() mutable {
    if (at == keys.size()) at = 0;
    Tree tree;
    for (auto &record : records) {
      record.key = keys[at++];
      tree.insert(record);
    }
    for (auto &record : records)
      tree.erase(record);
  };
}

std::vector<bench::Contender> contenders(std::size_t size) {
  return {bench::ours(fill_and_empty<Ours>(size)),
          bench::peer("Boost.Intrusive", fill_and_empty<Boost>(size)),
          bench::peer("libbsd", fill_and_empty<Bsd>(size))};
}

void measure_curve(const bench::Table &table) {
  const bench::Curve curve{
      table, {"rbtree", "Red-black tree: insert and erase", "records in the tree", "record"}};
  for (std::size_t size = 16; size <= 1 << 18; size *= 4)
    curve.point(size, size, contenders(size));
}

} // namespace

int main(int argc, char **argv) {
  const bench::Table table{argc, argv, "Red-black tree"};
  if (bench::wants_curves()) {
    measure_curve(table);
    return 0;
  }
  for (const std::size_t size : {std::size_t{1024}, kKeys})
    table.row(("insert and erase " + std::to_string(size / 1024) + " Ki keys").c_str(),
              contenders(size));
}
