// Holds the registry of private calls: groups of handlers.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "kram_syscall_main.c"
#include "kram_syscall.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include "base/log.hpp"

namespace vorn::kram {
namespace {

static_assert(offsetof(kram_call_s, input_length) == 0);
static_assert(offsetof(kram_call_s, output_capacity) == 4);
static_assert(offsetof(kram_call_s, output_length) == 8);
static_assert(offsetof(kram_call_s, input) == 16);
static_assert(offsetof(kram_call_s, output) == 24);
static_assert(sizeof(kram_call_s) == 32);
static_assert(offsetof(kram_entry_s, command) == 0);
static_assert(offsetof(kram_entry_s, type) == 4);
static_assert(offsetof(kram_entry_s, handler) == 8);
static_assert(sizeof(kram_entry_s) == 16);

constexpr unsigned int kGroupCount = KRAM_SYSCALL_GROUP_COUNT;
constexpr unsigned int kEntryCount = KRAM_SYSCALL_ENTRY_COUNT;

struct Group {
  std::uint32_t count;
  kram_entry_s entries[]; // count of them
};
static_assert(offsetof(Group, entries) == 8);

// A group is complete before it is published, and never changes.
constinit std::atomic<Group *> groups[kGroupCount] = {};

unsigned int group_of(std::uint32_t command) { return command >> 8; }

Group *copy_of(const kram_entry_s *entries, unsigned int count) {
  auto *group = static_cast<Group *>(std::calloc(1, sizeof(Group) + count * sizeof *entries));
  if (group == nullptr) return nullptr;
  group->count = count;
  std::copy_n(entries, count, group->entries);
  return group;
}

bool is_valid(unsigned int group, const kram_entry_s &entry) {
  constexpr char kFunction[] = "KRAM_CheckGroupCalls";
  if (entry.type > KRAM_SYSCALL_INDIRECT) {
    return VORN_FAIL_AS(kFunction, false,
                        "Syscall type is wrong, it should be direct(%d) or indirect(%d).",
                        KRAM_SYSCALL_DIRECT, KRAM_SYSCALL_INDIRECT);
  }
  if (group_of(entry.command) != group) {
    return VORN_FAIL_AS(kFunction, false,
                        "Syscall's cmd %d  is wrong, it should be v_uiGroupId(%d).", entry.command,
                        group);
  }
  if (entry.handler == nullptr) return VORN_FAIL_AS(kFunction, false, "pfnSysCall is NULL.");
  return true;
}

} // namespace
} // namespace vorn::kram

using namespace vorn::kram;

int KRAM_PrivateSysCallInit() {
  for (auto &slot : groups)
    std::free(slot.exchange(nullptr));
  if (KRAM_PrivateSysCallIntfInit() == 0) return 0;
  return VORN_FAIL(-1, "Initial syscall interface fail.");
}

int KRAM_RegSysCall(unsigned int group, const kram_entry_s *entries, unsigned int count) {
  VORN_LOG(vorn::kInfo, "KRAM reg syscall begin.");
  if (group >= kGroupCount) {
    return VORN_FAIL(-1, "Param 1 v_uiGroupId %d is larger than %d.", group, kGroupCount);
  }
  VORN_LOG(vorn::kInfo, "KRAM reg syscall check groupid(%u).", group);
  if (KRAM_CheckGroupCalls(group, entries, count) != 0)
    return VORN_FAIL(-1, "Check the input param failed.");

  VORN_LOG(vorn::kInfo, "KRAM reg syscall check rereg, uicount(%u).", count);
  auto &slot = groups[group];
  Group *occupant = slot.load(std::memory_order_relaxed);
  if (occupant == nullptr) {
    VORN_LOG(vorn::kInfo, "KRAM reg syscall alloc memory.");
    Group *block = copy_of(entries, count);
    if (block == nullptr) {
      return VORN_FAIL(-1, "Alloc memory for syscall group (%u) fail, count = (%u).", group, count);
    }
    if (slot.compare_exchange_strong(occupant, block, std::memory_order_release)) return 0;
    std::free(block); // another caller was first
  }
  VORN_LOG(vorn::kInfo, "KRAM register syscall %d.", group);
  return -1;
}

void KRAM_UnRegSysCall(unsigned int group) {
  if (group >= kGroupCount) {
    VORN_LOG(vorn::kError, "Param 1 v_uiGroupId %d is larger than %d.", group, kGroupCount);
    return;
  }
  std::free(groups[group].exchange(nullptr));
}

int KRAM_CheckGroupCalls(unsigned int group, const kram_entry_s *entries, unsigned int count) {
  if (entries == nullptr) return VORN_FAIL(-1, "Parm 2(v_pstSysCalls) is NULL.");
  if (count > kEntryCount) return VORN_FAIL(-1, "Parm 3 %d is larger than %d.", count, kEntryCount);
  const bool valid = std::all_of(entries, entries + count, [group](const kram_entry_s &entry) {
    return is_valid(group, entry);
  });
  return valid ? 0 : -1;
}

const kram_entry_s *KRAM_FindSysCall(uint32_t command) {
  const unsigned int group = group_of(command);
  const Group *known = nullptr;
  if (group < kGroupCount) known = groups[group].load(std::memory_order_acquire);
  if (known == nullptr) {
    return VORN_FAIL(nullptr, "Syscall not registered usr, cmd = (0x%x).", command);
  }
  const kram_entry_s *end = known->entries + known->count;
  const kram_entry_s *found =
      std::find_if(known->entries, end,
                   [command](const kram_entry_s &entry) { return entry.command == command; });
  return found != end ? found : nullptr;
}
