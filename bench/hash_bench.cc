// Compares the hash table with others, with as many buckets as records. An operation inserts all
// records, each unless its key is present, then looks up each by its key, then removes each by its
// key, in three different orders. A record has 40 bytes (the links of uthash take 56). All tables
// use the same memory for the records, and for the buckets if the user of the table can place them,
// because the place of an array affects the times more than the table does.
//
// The peers use their usual hash functions: Boost.Intrusive uses boost::hash of the pair and a
// power of two of buckets, uthash its default (Jenkins). std::unordered_map has no hash of pairs,
// and gets the sum of the two; it keeps the key and the address of a record in its own nodes from
// malloc(3). As in our table, a node of Boost.Intrusive knows whether it is in a table, which is
// its default.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_hash.h"

#include <algorithm>
#include <boost/functional/hash.hpp>
#include <boost/intrusive/unordered_set.hpp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <unordered_map>
#include <utility>
#include <vector>

#include "support/bench.hpp"
#include "support/keys.hpp"

// The initial number of buckets of uthash, which grows from there.
namespace {
unsigned int uthash_buckets;
}
#define HASH_INITIAL_NUM_BUCKETS uthash_buckets
#define HASH_INITIAL_NUM_BUCKETS_LOG2 static_cast<unsigned int>(__builtin_ctz(uthash_buckets))
#include <uthash.h>

namespace {

namespace intrusive = boost::intrusive;

struct Key {
  std::uint64_t key;
  std::uint32_t key2;
  bool operator==(const Key &other) const { return key == other.key && key2 == other.key2; }
};

std::size_t hash_value(const Key &key) {
  std::size_t seed = 0;
  boost::hash_combine(seed, key.key2);
  boost::hash_combine(seed, key.key);
  return seed;
}

struct KeySum {
  std::size_t operator()(const Key &key) const {
    return std::hash<std::uint64_t>{}(key.key) + std::hash<std::uint32_t>{}(key.key2);
  }
};

// The input of one round.
struct Batch {
  std::vector<Key> keys; // keys of the records, in the order of insertion
  std::vector<Key> sought;
  std::vector<Key> removed;
};

// Returns rounds of count keys each. There are so many rounds that the branch predictor cannot
// learn the lengths of the chains.
std::vector<Batch> batches(std::size_t count) {
  constexpr std::size_t kKeys = 1 << 18;
  constexpr std::uint32_t kVolumes = 16;
  std::mt19937_64 random{2};
  const std::vector<std::uint64_t> keys = bench::random_keys(kKeys);
  std::vector<Batch> made(kKeys / count);
  for (std::size_t i = 0; i < keys.size(); ++i)
    made[i / count].keys.push_back({keys[i], static_cast<std::uint32_t>(i) % kVolumes});
  for (Batch &batch : made) {
    batch.sought = batch.removed = batch.keys;
    std::shuffle(batch.sought.begin(), batch.sought.end(), random);
    std::shuffle(batch.removed.begin(), batch.removed.end(), random);
  }
  return made;
}

// The memory that the tables use in turn.
struct Memory {
  explicit Memory(std::size_t count) : records(count * 80), buckets(count * 16) {}
  std::vector<std::byte> records;
  std::vector<std::byte> buckets;
};

// Returns the CPU time of this thread: a round may be longer than a time slice.
bench::Nanoseconds now() {
  timespec time;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

// Runs one round. set stores the key of a record; insert, find and erase return whether they
// succeeded. Leaves the table empty.
template <class Hash> bench::Nanoseconds round(const Batch &batch, Memory &memory) {
  const std::size_t count = batch.keys.size();
  auto *records = reinterpret_cast<typename Hash::Record *>(memory.records.data());
  std::uninitialized_default_construct_n(records, count);
  for (std::size_t i = 0; i < count; ++i)
    Hash::set(records[i], batch.keys[i]);
  Hash hash{count, memory};
  bool done = true;
  const bench::Nanoseconds start = now();
  for (std::size_t i = 0; i < count; ++i)
    done &= hash.insert(records[i]);
  for (const Key &key : batch.sought)
    done &= hash.find(key);
  for (const Key &key : batch.removed)
    done &= hash.erase(key);
  const bench::Nanoseconds took = now() - start;
  if (done) return took;
  std::fputs("a table has lost a key\n", stderr);
  std::exit(EXIT_FAILURE);
}

template <class Hash> auto rounds(const std::vector<Batch> &batches, Memory &memory) {
  return [&batches, &memory, at = std::size_t{0}](std::uint64_t count) mutable {
    bench::pin(0, 1);
    bench::Nanoseconds took{0};
    for (; count > 0; --count)
      took += round<Hash>(batches[at++ % batches.size()], memory);
    return took;
  };
}

// A table allocates two blocks, its header and its buckets.
void *next_buckets;

void *alloc(std::size_t size) {
  return size == sizeof(vorn_hash_table_s) ? std::malloc(size) : next_buckets;
}

void release(void *ptr) {
  if (ptr != next_buckets) std::free(ptr);
}

constexpr vorn_hash_attr_s kPlaced{alloc, release};

struct Ours {
  struct Record {
    vorn_hash_node_s node;
    std::uint64_t value;
  };

  Ours(std::size_t count, Memory &memory) {
    next_buckets = memory.buckets.data();
    vorn_hash_create_ex(static_cast<std::uint32_t>(count), &table, 0, &kPlaced);
  }
  ~Ours() { vorn_hash_destory(table, nullptr); }
  static void set(Record &record, const Key &key) {
    record.node.key = key.key;
    record.node.key2 = key.key2;
  }
  bool insert(Record &record) { return vorn_hash_insert(table, &record.node) == 0; }
  bool find(const Key &key) {
    vorn_hash_node_s *node;
    return vorn_hash_search(table, key.key2, key.key, &node) == 0;
  }
  bool erase(const Key &key) { return vorn_hash_delete(table, key.key2, key.key, nullptr) == 0; }

  vorn_hash_table_s *table = nullptr;
};

struct BoostSet {
  struct Record : intrusive::unordered_set_base_hook<> {
    Key key;
    std::uint64_t value[2];
  };
  struct KeyOf {
    using type = Key;
    const Key &operator()(const Record &record) const { return record.key; }
  };
  using Set = intrusive::unordered_set<Record, intrusive::key_of_value<KeyOf>,
                                       intrusive::power_2_buckets<true>>;

  static Set::bucket_type *buckets(std::size_t count, Memory &memory) {
    auto *made = reinterpret_cast<Set::bucket_type *>(memory.buckets.data());
    std::uninitialized_value_construct_n(made, count);
    return made;
  }

  BoostSet(std::size_t count, Memory &memory)
      : records(Set::bucket_traits(buckets(count, memory), count)) {}
  static void set(Record &record, const Key &key) { record.key = key; }
  bool insert(Record &record) { return records.insert(record).second; }
  bool find(const Key &key) { return records.find(key) != records.end(); }
  bool erase(const Key &key) { return records.erase(key) == 1; }

  Set records;
};

// Always holds one more record, because uthash allocates its buckets with the first record and
// frees them with the last one.
struct Uthash {
  struct Record {
    UT_hash_handle hh;
    Key key;
  };
  static constexpr unsigned int kKeyBytes = offsetof(Key, key2) + sizeof(Key::key2);

  Uthash(std::size_t count, Memory &) {
    uthash_buckets = static_cast<unsigned int>(count);
    insert(resident);
  }
  ~Uthash() { HASH_CLEAR(hh, first); }
  static void set(Record &record, const Key &key) { record.key = key; }
  bool insert(Record &record) {
    Record *found;
    unsigned int hash;
    HASH_VALUE(&record.key, kKeyBytes, hash);
    HASH_FIND_BYHASHVALUE(hh, first, &record.key, kKeyBytes, hash, found);
    if (found != nullptr) return false;
    HASH_ADD_BYHASHVALUE(hh, first, key, kKeyBytes, hash, &record);
    return true;
  }
  Record *get(const Key &key) {
    Record *found;
    HASH_FIND(hh, first, &key, kKeyBytes, found);
    return found;
  }
  bool find(const Key &key) { return get(key) != nullptr; }
  bool erase(const Key &key) {
    Record *found = get(key);
    if (found == nullptr) return false;
    HASH_DELETE(hh, first, found);
    return true;
  }

  Record resident{};
  Record *first = nullptr;
};

struct StdMap {
  struct Record {
    Key key;
    std::uint64_t value[3];
  };

  StdMap(std::size_t count, Memory &) { map.reserve(count); }
  static void set(Record &record, const Key &key) { record.key = key; }
  bool insert(Record &record) { return map.emplace(record.key, &record).second; }
  bool find(const Key &key) { return map.find(key) != map.end(); }
  bool erase(const Key &key) { return map.erase(key) == 1; }

  std::unordered_map<Key, Record *, KeySum> map;
};

static_assert(sizeof(Ours::Record) == 40 && sizeof(BoostSet::Record) == 40 &&
              sizeof(StdMap::Record) == 40 && sizeof(Uthash::Record) == 72 &&
              sizeof(BoostSet::Set::bucket_type) <= 16);

// The tables of count records.
struct Tables {
  explicit Tables(std::size_t count) : keys(batches(count)), memory(count) {}
  std::vector<bench::Contender> contenders() {
    return {bench::ours(rounds<Ours>(keys, memory)),
            bench::peer("Boost set", rounds<BoostSet>(keys, memory)),
            bench::peer("uthash", rounds<Uthash>(keys, memory)),
            bench::peer("unordered_map", rounds<StdMap>(keys, memory))};
  }
  std::vector<Batch> keys;
  Memory memory;
};

void measure(const bench::Table &table, const char *name, std::size_t count) {
  table.row(name, Tables{count}.contenders());
}

void measure_curve(const bench::Table &table) {
  const bench::Curve curve{
      table, {"hash", "Hash table: insert, find and erase", "records in the table", "record"}};
  for (std::size_t count = 16; count <= 1 << 18; count *= 4)
    curve.point(count, count, Tables{count}.contenders());
}

} // namespace

int main(int argc, char **argv) {
  const bench::Table table{argc, argv, "Hash table"};
  if (bench::wants_curves()) {
    measure_curve(table);
    return 0;
  }
  measure(table, "insert, find and erase, 1 Ki random keys", 1 << 10);
  measure(table, "insert, find and erase, 64 Ki random keys", 1 << 16);
}
