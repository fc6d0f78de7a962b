// Holds the table of module names.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <charconv>

#include "base/once.hpp"
#include "process/node_names.hpp"
#include "vorn_process.h"

namespace vorn::process {
namespace {

struct Row {
  uint16_t id;
  const char *name;
};

constexpr Row kRows[] = {
#include "module_names.inc"
};

constexpr char kNoName[] = "NONE";

// Filled and cleared under the once's mutex. The flag is set after all slots. Readers and
// vorn_pid_set_name take no lock: a slot is always NULL or a complete name.
constinit Once built{OncePolicy::kLatch};
constinit std::atomic<const char *> slots[VORN_MODULE_ID_COUNT] = {};

void set_slot(unsigned int id, const char *name) {
  if (id < VORN_MODULE_ID_COUNT) slots[id].store(name, std::memory_order_release);
}

int build() {
  for (auto &slot : slots) {
    const char *empty = nullptr;
    slot.compare_exchange_strong(empty, kNoName);
  }
  for (const Row &row : kRows)
    set_slot(row.id, row.name);
  const NodeNames &names = node_names();
  for (unsigned int id = 0; id < VORN_MODULE_ID_COUNT; ++id) {
    if (names[id] != nullptr) set_slot(id, names[id]);
  }
  set_slot(VORN_MODULE_ID, VORN_MODULE_NAME); // overrides the node's tables
  return 0;
}

void clear() {
  for (auto &slot : slots)
    slot.store(nullptr, std::memory_order_relaxed);
}

const char *out_of_range_name(unsigned int id) {
  static thread_local char text[10];
  text[0] = '<';
  char *end = std::to_chars(text + 1, text + sizeof text - 2, static_cast<uint16_t>(id)).ptr;
  end[0] = '>';
  end[1] = '\0';
  return text;
}

} // namespace
} // namespace vorn::process

using namespace vorn::process;

void pid_init_names() { built.run(build); }

void pid_destroy_names() { built.reset(clear); }

const char *vorn_pid_get_name(unsigned int id) {
  if (id >= VORN_MODULE_ID_COUNT) return out_of_range_name(id);
  pid_init_names();
  const char *name = slots[id].load(std::memory_order_acquire);
  return name != nullptr ? name : kNoName; // another thread is clearing the table
}

void vorn_pid_set_name(unsigned int id, const char *name) {
  if (id >= VORN_MODULE_ID_COUNT || name == nullptr) return;
  pid_init_names();
  set_slot(id, name);
}
