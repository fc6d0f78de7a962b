// Declares what the sources of the LWP module share: its configuration, the table of instances, and
// the release of the variables.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_LWP_LWP_HPP
#define VORN_LWP_LWP_HPP

#include <cstddef>
#include <cstdint>

#include "base/atomic_word.hpp"
#include "vorn_lwp.h"

namespace vorn::lwp {

// --- Configuration (lwp.cc) ---

std::uint32_t configured_instances();
std::uint32_t configured_variables();
bool tracing();

// Allocates zeroed memory by the standard allocator; NULL if memory runs out.
void *allocate_zeroed(std::size_t size);

// Bytes 0 and 1 of an id are a tag: kAlive, or kDead in a slot whose instance was deleted.
constexpr std::uint64_t kTagMask = 0xffff;
constexpr std::uint64_t kAlive = 0x4c70;
constexpr std::uint64_t kDead = 0x446c;

// --- Instances (lwp_inst.cc) ---

// The thread handle of an instance without a thread.
constexpr pthread_t kNoThread = ~pthread_t{0};

// size is written after slots and publishes it.
struct Instances {
  lwp_inst_s *slots;
  std::uint32_t size;
};
extern constinit Instances instances;

inline std::uint32_t instance_count() {
  return atomic_word(instances.size).load(std::memory_order_acquire);
}

inline std::uint64_t id_of(const lwp_inst_s &inst) {
  return atomic_word(inst.id).load(std::memory_order_acquire);
}

// Returns the instance with this id; the current instance for id 0. Returns NULL if there is none.
// Calls nothing, so a caller that has no more to do needs no stack frame.
inline lwp_inst_s *look_up(std::uint64_t id) {
  if (id == 0) return g_lwpInstCurrent;
  const std::uint64_t index = id >> 16 & 0xffff;
  if (index >= instance_count()) return nullptr;
  lwp_inst_s *inst = &instances.slots[index];
  // A stale id of the slot has the tag of a deleted instance.
  return id_of(*inst) == id && (id & kTagMask) == kAlive ? inst : nullptr;
}

// Does the same, and logs why no instance has an id other than 0.
lwp_inst_s *find(std::uint64_t id);

// --- Variables (lwp_var.cc) ---

// Reverses LwpVarModuleInit, before any thread uses the tables.
void drop_variables();

} // namespace vorn::lwp

#endif
