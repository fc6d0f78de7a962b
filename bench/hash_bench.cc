// The hash table beside others of the same records, with as many buckets as there are records. An
// operation inserts all records, each unless its key is there, then looks each up by its key, then
// removes each by its key, in three different orders.
//
// The peers hash as they usually do: Boost.Intrusive with boost::hash of the pair, into a power of
// two of buckets and with nodes that can be told when they are removed, as ours can, uthash with
// its default (Jenkins). std::unordered_map has no hash of pairs, and gets the sum of the two; it
// keeps key and address of a record in nodes of its own, from malloc.
#include "vorn_hash.h"

#include <sys/prctl.h>

#include <algorithm>
#include <boost/functional/hash.hpp>
#include <boost/intrusive/unordered_set.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <unordered_map>
#include <utility>
#include <vector>

#include "support/bench.hpp"
#include "support/keys.hpp"

// uthash grows from these by itself.
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

// What one round takes through a table.
struct Batch {
  std::vector<Key> keys; // of the records, in order of insertion
  std::vector<Key> sought;
  std::vector<Key> removed;
};

// Rounds of count keys each. So many that no processor learns by heart how long the chains are.
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

// Hash holds the records, and has set, insert, find and erase; the last three say whether they did.
template <class Hash> bench::Nanoseconds round(Hash &hash, const Batch &batch) {
  for (std::size_t i = 0; i < batch.keys.size(); ++i)
    hash.set(hash.records[i], batch.keys[i]);
  bool done = true;
  const auto start = bench::Clock::now();
  for (auto &record : hash.records)
    done &= hash.insert(record);
  for (const Key &key : batch.sought)
    done &= hash.find(key);
  for (const Key &key : batch.removed)
    done &= hash.erase(key);
  const auto took = bench::Clock::now() - start;
  if (done) return took;
  std::fputs("a table has lost a key\n", stderr);
  std::exit(EXIT_FAILURE);
}

template <class Hash> auto rounds(const std::vector<Batch> &batches) {
  auto hash = std::make_shared<Hash>(batches.front().keys.size());
  return [&batches, hash, at = std::size_t{0}](std::uint64_t count) mutable {
    bench::Nanoseconds took{0};
    for (; count > 0; --count)
      took += round(*hash, batches[at++ % batches.size()]);
    return took;
  };
}

struct Ours {
  struct Record {
    vorn_hash_node_s node;
    std::uint64_t value;
  };

  explicit Ours(std::size_t count) : records(count) {
    vorn_hash_create(static_cast<std::uint32_t>(count), &table, 0);
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

  std::vector<Record> records;
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

  explicit BoostSet(std::size_t count)
      : records(count), buckets(count), set_of(Set::bucket_traits(buckets.data(), count)) {}
  static void set(Record &record, const Key &key) { record.key = key; }
  bool insert(Record &record) { return set_of.insert(record).second; }
  bool find(const Key &key) { return set_of.find(key) != set_of.end(); }
  bool erase(const Key &key) { return set_of.erase(key) == 1; }

  std::vector<Record> records;
  std::vector<Set::bucket_type> buckets;
  Set set_of;
};

// One record is always there: uthash frees its buckets with the last.
struct Uthash {
  struct Record {
    UT_hash_handle hh;
    Key key;
  };
  static constexpr unsigned int kKeyBytes = offsetof(Key, key2) + sizeof(Key::key2);

  explicit Uthash(std::size_t count) : records(count) {
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

  std::vector<Record> records;
  Record resident{};
  Record *first = nullptr;
};

struct StdMap {
  struct Record {
    Key key;
    std::uint64_t value[3];
  };

  explicit StdMap(std::size_t count) : records(count) { map.reserve(count); }
  static void set(Record &record, const Key &key) { record.key = key; }
  bool insert(Record &record) { return map.emplace(record.key, &record).second; }
  bool find(const Key &key) { return map.find(key) != map.end(); }
  bool erase(const Key &key) { return map.erase(key) == 1; }

  std::vector<Record> records;
  std::unordered_map<Key, Record *, KeySum> map;
};

// uthash's own links take 56 bytes.
static_assert(sizeof(Ours::Record) == 40 && sizeof(BoostSet::Record) == 40 &&
              sizeof(StdMap::Record) == 40);

void measure(const bench::Table &table, const char *name, std::size_t count) {
  const std::vector<Batch> keys = batches(count);
  table.row(name,
            {bench::ours(rounds<Ours>(keys)), bench::peer("Boost set", rounds<BoostSet>(keys)),
             bench::peer("uthash", rounds<Uthash>(keys)),
             bench::peer("unordered_map", rounds<StdMap>(keys))});
}

} // namespace

int main(int argc, char **argv) {
  // Else luck decides whose records lie in huge pages, and that is worth more than the container.
  prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
  const bench::Table table{argc, argv, "Hash table"};
  measure(table, "insert, find and erase, 1 Ki random keys", 1 << 10);
  measure(table, "insert, find and erase, 64 Ki random keys", 1 << 16);
}
