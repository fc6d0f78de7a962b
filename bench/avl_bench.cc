// Compares the AVL tree with other balanced trees of records. An operation inserts all records,
// then looks up each by its key, then removes each, in three different orders. A record of every
// tree has 32 bytes of links and state, and a key. The records are in one array, in the order of
// insertion, and all trees use the same memory, because the place of an array affects the times
// more than the tree does.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_avl.h"

#include <bsd/sys/tree.h>

#include <algorithm>
#include <boost/intrusive/avl_set.hpp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "support/bench.hpp"
#include "support/keys.hpp"

namespace {

namespace intrusive = boost::intrusive;
using Key = std::uint64_t;

// The input of one round.
struct Batch {
  std::vector<Key> keys;            // keys of the records, in the order of insertion
  std::vector<Key> sought;          // the same keys in another order
  std::vector<std::size_t> removed; // indexes of the records in a third order
};

// Returns rounds of count keys each. There are so many rounds that the branch predictor cannot
// learn the paths of the searches, as it does within a few rounds over the same 1 Ki keys.
std::vector<Batch> batches(std::size_t count) {
  constexpr std::size_t kKeys = 1 << 18;
  std::mt19937_64 random{2};
  const std::vector<Key> keys = bench::random_keys(kKeys);
  std::vector<Batch> made(kKeys / count);
  for (std::size_t i = 0; i < made.size(); ++i) {
    Batch &batch = made[i];
    const auto first = keys.begin() + static_cast<std::ptrdiff_t>(i * count);
    batch.keys.assign(first, first + static_cast<std::ptrdiff_t>(count));
    batch.sought = batch.keys;
    std::shuffle(batch.sought.begin(), batch.sought.end(), random);
    batch.removed.resize(count);
    std::iota(batch.removed.begin(), batch.removed.end(), std::size_t{0});
    std::shuffle(batch.removed.begin(), batch.removed.end(), random);
  }
  return made;
}

// Returns the CPU time of this thread: a round may be longer than a time slice.
bench::Nanoseconds now() {
  timespec time;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

// Runs one round. The tree's records are in memory; insert and find return whether they succeeded.
// Leaves the tree empty.
template <class Tree> bench::Nanoseconds round(const Batch &batch, std::vector<std::byte> &memory) {
  const std::size_t count = batch.keys.size();
  auto *records = reinterpret_cast<typename Tree::Record *>(memory.data());
  std::uninitialized_default_construct_n(records, count);
  for (std::size_t i = 0; i < count; ++i)
    records[i].key = batch.keys[i];
  Tree tree;
  bool done = true;
  const bench::Nanoseconds start = now();
  for (std::size_t i = 0; i < count; ++i)
    done &= tree.insert(records[i]);
  for (const Key key : batch.sought)
    done &= tree.find(key);
  for (const std::size_t i : batch.removed)
    tree.erase(records[i]);
  const bench::Nanoseconds took = now() - start;
  if (done) return took;
  std::fputs("a tree has lost a key\n", stderr);
  std::exit(EXIT_FAILURE);
}

template <class Tree>
auto rounds(const std::vector<Batch> &batches, std::vector<std::byte> &memory) {
  return [&batches, &memory, at = std::size_t{0}](std::uint64_t count) mutable {
    bench::pin(0, 1);
    bench::Nanoseconds took{0};
    for (; count > 0; --count)
      took += round<Tree>(batches[at++ % batches.size()], memory);
    return took;
  };
}

struct Ours {
  struct Record {
    vorn_avl_node_s node;
    Key key;
  };

  Ours() {
    vorn_create_avl_new(&tree, compare_records, compare_key, sizeof(Record),
                        offsetof(Record, node));
  }
  bool insert(Record &record) {
    vorn_add_avl_node(&tree, &record);
    return true;
  }
  bool find(Key key) { return vorn_find_avl_node(&tree, &key, nullptr) != nullptr; }
  void erase(Record &record) { vorn_remove_avl_node(&tree, &record); }

  static int compare(Key left, Key right) { return (left > right) - (left < right); }
  static int compare_records(const void *value, const void *record) {
    return compare(static_cast<const Record *>(value)->key,
                   static_cast<const Record *>(record)->key);
  }
  static int compare_key(const void *value, const void *record) {
    return compare(*static_cast<const Key *>(value), static_cast<const Record *>(record)->key);
  }

  vorn_avl_tree_s tree;
};

struct BoostAvl {
  struct Record : intrusive::avl_set_base_hook<intrusive::link_mode<intrusive::normal_link>> {
    Key key;
  };
  struct KeyOf {
    using type = Key;
    const Key &operator()(const Record &record) const { return record.key; }
  };

  bool insert(Record &record) { return tree.insert(record).second; }
  bool find(Key key) { return tree.find(key) != tree.end(); }
  void erase(Record &record) { tree.erase(tree.iterator_to(record)); }

  intrusive::avl_set<Record, intrusive::key_of_value<KeyOf>> tree;
};

struct BsdRecord {
  RB_ENTRY(BsdRecord) links;
  Key key;
};

int compare_bsd(const BsdRecord *left, const BsdRecord *right) {
  return (left->key > right->key) - (left->key < right->key);
}

RB_HEAD(BsdTree, BsdRecord);
RB_PROTOTYPE_INTERNAL(BsdTree, BsdRecord, links, compare_bsd, [[maybe_unused]] static)
RB_GENERATE_INTERNAL(BsdTree, BsdRecord, links, compare_bsd, [[maybe_unused]] static)

struct LibbsdRb {
  using Record = BsdRecord;

  bool insert(BsdRecord &record) { return RB_INSERT(BsdTree, &tree, &record) == nullptr; }
  bool find(Key key) {
    BsdRecord sought;
    sought.key = key;
    return RB_FIND(BsdTree, &tree, &sought) != nullptr;
  }
  void erase(BsdRecord &record) { RB_REMOVE(BsdTree, &tree, &record); }

  BsdTree tree = RB_INITIALIZER(&tree);
};

static_assert(sizeof(Ours::Record) == 40 && sizeof(BoostAvl::Record) == 40 &&
              sizeof(BsdRecord) == 40);

// The trees of count records.
struct Trees {
  explicit Trees(std::size_t count) : keys(batches(count)), memory(count * sizeof(Ours::Record)) {}
  std::vector<bench::Contender> contenders() {
    return {bench::ours(rounds<Ours>(keys, memory)),
            bench::peer("Boost avl_set", rounds<BoostAvl>(keys, memory)),
            bench::peer("libbsd RB tree", rounds<LibbsdRb>(keys, memory))};
  }
  std::vector<Batch> keys;
  std::vector<std::byte> memory;
};

void measure(const bench::Table &table, const char *name, std::size_t count) {
  table.row(name, Trees{count}.contenders());
}

void measure_curve(const bench::Table &table) {
  const bench::Curve curve{
      table, {"avl", "AVL tree: insert, find and erase", "records in the tree", "record"}};
  for (std::size_t count = 16; count <= 1 << 18; count *= 4)
    curve.point(count, count, Trees{count}.contenders());
}

} // namespace

int main(int argc, char **argv) {
  const bench::Table table{argc, argv, "AVL tree"};
  if (bench::wants_curves()) {
    measure_curve(table);
    return 0;
  }
  measure(table, "insert, find and erase, 1 Ki random keys", 1 << 10);
  measure(table, "insert, find and erase, 64 Ki random keys", 1 << 16);
}
