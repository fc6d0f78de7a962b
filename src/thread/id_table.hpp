// Holds the kernel ids of the threads in the slots, and finds the slots of an id.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_THREAD_ID_TABLE_HPP
#define VORN_THREAD_ID_TABLE_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vorn_thrd.h"

namespace vorn::thread {

// The ids are side by side, in the order of the slots. Buckets say where an id was last stored: a
// find that reads one cache line has its slot. A bucket has no room for an id if the ids of 8 other
// present threads have the same remainder; then, and if a bucket has lost an id, a find searches
// all slots. An entry of a bucket becomes stale when its slot gets another id; a thread that stores
// its id takes the place of such an entry.
class IdTable {
public:
  // Called by the owner of the slot. An id of 0 belongs to no thread yet.
  void store(std::size_t slot, std::int64_t id) {
    ids_[slot].store(id, std::memory_order_relaxed);
    if (id != 0) enter(slot, id);
  }

  // Calls test with each slot that may have this id until it returns one, and returns that. Only
  // the test decides: a slot may get another id meanwhile. So all loads may be relaxed.
  template <class Test> auto find(std::int64_t id, Test test) const -> decltype(test(0)) {
    for (const std::atomic<std::uint64_t> &entry : bucket(id).entries) {
      const std::uint64_t word = entry.load(std::memory_order_relaxed);
      if (id_bits(word) != word_of(0, id)) continue;
      if (auto found = test(slot_of(word))) return found;
    }
    for (std::size_t slot = 0; slot < VORN_THRD_SLOT_COUNT; ++slot) {
      if (ids_[slot].load(std::memory_order_relaxed) != id) continue;
      if (auto found = test(slot)) return found;
    }
    return {};
  }

private:
  static constexpr std::size_t kBuckets = 512;
  static constexpr unsigned int kSlotBits = 10;
  static constexpr std::uint64_t kSlotMask = (1 << kSlotBits) - 1;
  static_assert(VORN_THRD_SLOT_COUNT <= kSlotMask + 1);

  // An entry is the id above the slot, or 0.
  struct alignas(64) Bucket {
    std::atomic<std::uint64_t> entries[8];
  };

  static std::uint64_t word_of(std::size_t slot, std::int64_t id) {
    return static_cast<std::uint64_t>(id) << kSlotBits | slot;
  }
  static std::uint64_t id_bits(std::uint64_t word) { return word & ~kSlotMask; }
  static std::size_t slot_of(std::uint64_t word) { return word & kSlotMask; }

  Bucket &bucket(std::int64_t id) { return buckets_[static_cast<std::uint64_t>(id) % kBuckets]; }
  const Bucket &bucket(std::int64_t id) const {
    return buckets_[static_cast<std::uint64_t>(id) % kBuckets];
  }

  // A thread stores the id of its slot before it enters it in the bucket with release. So a thread
  // that loads the entry with acquire loads that id or a later one of the slot.
  bool stale(std::uint64_t word) const {
    return word_of(slot_of(word), ids_[slot_of(word)].load(std::memory_order_relaxed)) != word;
  }

  void enter(std::size_t slot, std::int64_t id) {
    const std::uint64_t own = word_of(slot, id);
    for (std::atomic<std::uint64_t> &entry : bucket(id).entries) {
      std::uint64_t word = entry.load(std::memory_order_acquire);
      if (word == own) return;
      if (word != 0 && !stale(word)) continue;
      if (entry.compare_exchange_strong(word, own, std::memory_order_release,
                                        std::memory_order_relaxed))
        return;
    }
  }

  std::atomic<std::int64_t> ids_[VORN_THRD_SLOT_COUNT];
  Bucket buckets_[kBuckets];
};

} // namespace vorn::thread

#endif
