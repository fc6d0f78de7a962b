// Holds the table of registered variables, and the values of each instance.
//
// The library only adds variables. A registration writes a variable and its default value before it
// increments the number of variables, and the library does not change them after that. So a thread
// that has read the number reads the variables below it without the lock.
//
// Construction. An instance's busy flag lets one thread construct at a time. A thread that finds
// variables missing waits for the flag, and then constructs those that are still missing; it does
// not rely on what an earlier holder has constructed. The number of constructed variables is
// incremented (release) after their constructors have returned: a thread that reads it (acquire)
// and finds none missing sees all of them constructed. The holder reads the number of registered
// variables again before it leaves: a constructor that registers a variable finds the flag held by
// its own thread, cannot wait for it, and leaves the variable to the holder's next round.
// SPDX-License-Identifier: Apache-2.0
#include "lwp/lwp.hpp"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "lock/spin_guard.hpp"
#include "vorn_sched.h"
#include "vorn_spinlock.h"

namespace vorn::lwp {
namespace {

constexpr std::size_t kValueSize = sizeof(std::uint64_t);
constexpr std::uint64_t kOffsetMask = (1u << 23) - 1;
constexpr std::uint64_t kIndexMask = (1u << 20) - 1;

struct Variable {
  const char *name;
  std::uint64_t id;
  lwp_var_ops_s ops;
};

struct Variables {
  vorn_spinlock_s lock = VORN_SPINLOCK_INIT; // guards the registration and the default values
  Variable *records = nullptr;
  std::uint64_t *defaults = nullptr;
  std::uint32_t capacity = 0;
  std::uint32_t count = 0;
};

constinit Variables variables;

std::uint32_t registered() { return atomic_word(variables.count).load(); }

std::uint32_t constructed(const lwp_inst_s &inst) {
  return atomic_word(inst.area.constructed).load(std::memory_order_acquire);
}

void set_constructed(lwp_inst_s &inst, std::uint32_t count) {
  atomic_word(inst.area.constructed).store(count, std::memory_order_release);
}

std::uint64_t offset_of(std::uint64_t var_id) { return var_id & kOffsetMask; }

// Returns the value at an offset in bytes.
void *value_at(std::uint64_t *values, std::uint64_t offset) {
  return reinterpret_cast<char *>(values) + offset;
}

// --- Construction and destruction ---

class Busy {
public:
  explicit Busy(lwp_inst_s &inst) : inst_(inst) {
    std::uint32_t free = 0;
    while (!atomic_word(inst.area.busy).compare_exchange_strong(free, 1)) {
      free = 0;
      vorn_10msleep(1);
    }
    owner().store(pthread_self(), std::memory_order_relaxed);
  }
  Busy(const Busy &) = delete;
  Busy &operator=(const Busy &) = delete;
  ~Busy() {
    owner().store(pthread_t{0}, std::memory_order_relaxed);
    atomic_word(inst_.area.busy).store(0, std::memory_order_release);
  }

private:
  std::atomic_ref<pthread_t> owner() { return atomic_word(inst_.constructing); }

  lwp_inst_s &inst_;
};

bool busy_here(const lwp_inst_s &inst) {
  return atomic_word(inst.constructing).load(std::memory_order_relaxed) == pthread_self();
}

int destruct(const Variable &variable, std::uint64_t id) {
  const auto destructor = variable.ops.destructor;
  const int result = destructor != nullptr ? destructor(id, variable.ops.destructorArg) : 0;
  if (result != 0)
    VORN_LOG_AS("LwpVarDestructor", kInfo, "Run lwp var:%s destructor fail:%d", variable.name,
                result);
  return result;
}

void copy_defaults(lwp_inst_s &inst, std::uint32_t from, std::uint32_t to) {
  const lock::GatedSpinGuard hold{variables.lock, "LwpVarDefDup"};
  std::memcpy(inst.area.values + from, variables.defaults + from, (to - from) * kValueSize);
}

// Constructs all variables of a batch, or none.
int construct(std::uint64_t id, std::uint32_t from, std::uint32_t to) {
  for (std::uint32_t at = from; at < to; ++at) {
    const Variable &variable = variables.records[at];
    const auto constructor = variable.ops.constructor;
    const int result = constructor != nullptr ? constructor(id, variable.ops.constructorArg) : 0;
    if (result == 0) continue;
    VORN_LOG_AS("LwpVarConstructor", kInfo, "Run lwp var:%s constructor fail:%d", variable.name,
                result);
    while (at-- > from)
      destruct(variables.records[at], id);
    return result;
  }
  return 0;
}

int construct_missing(lwp_inst_s &inst, std::uint64_t id) {
  const CancellationGuard off;
  const Busy hold{inst};
  for (;;) {
    const std::uint32_t from = constructed(inst);
    const std::uint32_t to = registered();
    if (to <= from) return 0;
    copy_defaults(inst, from, to);
    const int result = construct(id, from, to);
    if (result != 0) return result;
    set_constructed(inst, to);
  }
}

int construct_one(std::uint64_t id, void *) { return LwpVarConstructor(id); }

// --- Registration ---

void report_full(const char *name) {
  VORN_LOG_AS("LwpVarRegister", kInfo, "Register lwp var %s fail, which has been used up %u/%u",
              name, variables.count, variables.capacity);
}

std::uint64_t add(const char *name, const void *value, std::size_t size, const lwp_var_ops_s *ops,
                  std::uint64_t *out) {
  const lock::GatedSpinGuard hold{variables.lock, "LwpVarRegister"};
  const std::uint32_t index = variables.count;
  if (index >= variables.capacity) return LWP_NONE;
  const std::uint64_t id = std::uint64_t{index} << 32 | index * kValueSize;
  std::memcpy(&variables.defaults[index], value, size);
  variables.records[index] = {name, id, ops != nullptr ? *ops : lwp_var_ops_s{}};
  if (out != nullptr) *out = id;
  atomic_word(variables.count).store(index + 1); // sequentially consistent: see lwp_inst.cc
  return id;
}

// --- Show ---

struct Shown {
  vorn_print_f print;
  std::uint32_t index; // of the variable, if only one is shown
};

std::uint64_t value_of(const lwp_inst_s &inst, std::uint32_t index) {
  return atomic_word(inst.area.values[index]).load(std::memory_order_relaxed);
}

int show_values(std::uint64_t id, void *argument) {
  const vorn_print_f print = static_cast<const Shown *>(argument)->print;
  const lwp_inst_s *inst = find(id);
  if (inst == nullptr) {
    print("pInst is null, instId=%lu", id);
    return 0;
  }
  print("%-16s %016lx", inst->name, id);
  const std::uint32_t count = constructed(*inst);
  for (std::uint32_t index = 0; index < count; ++index)
    print(" %016lx", value_of(*inst, index));
  print("\n");
  return 0;
}

int show_value(std::uint64_t id, void *argument) {
  const auto &shown = *static_cast<const Shown *>(argument);
  const lwp_inst_s *inst = find(id);
  if (inst == nullptr)
    shown.print("Inst is null, instId=%lu", id);
  else
    shown.print("%-16s %016lx %016lx\n", inst->name, id, value_of(*inst, shown.index));
  return 0;
}

// A separate function, so that reading a value needs no stack frame for the messages: find logs one
// if there is no such instance.
[[gnu::noinline]] void *refuse_value(std::uint64_t inst_id, std::uint64_t var_id) {
  find(inst_id);
  VORN_LOG_AS("LwpVarRaw", kInfo, "Invalid lwp var instId:0x%lx varId:0x%lx", inst_id, var_id);
  return nullptr;
}

bool is_called(const Variable &variable, const char *name) {
  return variable.name != nullptr && std::strcmp(variable.name, name) == 0;
}

} // namespace

void drop_variables() {
  std::free(variables.records);
  std::free(variables.defaults);
  variables.records = nullptr;
  variables.defaults = nullptr;
  variables.capacity = 0;
}

} // namespace vorn::lwp

using namespace vorn::lwp;

using vorn::kError;
using vorn::kInfo;

int LwpVarModuleInit() {
  if (variables.capacity != 0) return 0;
  const uint32_t capacity = configured_variables();
  auto *records = static_cast<Variable *>(allocate_zeroed(capacity * sizeof(Variable)));
  if (records == nullptr) {
    VORN_LOG(kInfo, "Malloc lwp var info fail");
    return -1;
  }
  auto *defaults = static_cast<uint64_t *>(allocate_zeroed(capacity * kValueSize));
  if (defaults == nullptr) {
    std::free(records);
    VORN_LOG(kInfo, "Malloc lwp default var fail");
    return -1;
  }
  const vorn::lock::GatedSpinGuard hold{variables.lock};
  variables.records = records;
  variables.defaults = defaults;
  variables.capacity = capacity;
  variables.count = 0;
  return 0;
}

uint64_t LwpVarRegister(const char *name, const void *defaultValue, size_t size,
                        const lwp_var_ops_s *ops, uint64_t *varId) {
  if (size > kValueSize) {
    VORN_LOG(kInfo, "Register lwp var %s fail, var size:%lu > %lu is too bigger", name, size,
             kValueSize);
    return LWP_NONE;
  }
  if (defaultValue == nullptr) {
    VORN_LOG(kInfo, "Register lwp var %s fail, default value is null", name);
    return LWP_NONE;
  }
  const uint64_t id = add(name, defaultValue, size, ops, varId);
  if (id == LWP_NONE) {
    report_full(name);
    return LWP_NONE;
  }
  return LwpVarUpdate() == 0 ? id : LWP_NONE;
}

int LwpVarUpdate() { return LwpInstForEachNormal(construct_one, nullptr, LWP_STATE_CONSTRUCTING); }

int LwpVarConstructor(uint64_t instId) {
  lwp_inst_s *inst = find(instId);
  if (inst == nullptr)
    return VORN_FAIL(-1, "get inst failed, instId=%u", static_cast<unsigned int>(instId));
  if (constructed(*inst) >= registered() || busy_here(*inst)) return 0;
  return construct_missing(*inst, instId);
}

int LwpVarDestructor(uint64_t instId) {
  lwp_inst_s *inst = find(instId);
  if (inst == nullptr)
    return VORN_FAIL(-1, "get inst failed, instId=%u", static_cast<unsigned int>(instId));
  for (uint32_t left = constructed(*inst); left > 0; --left) {
    const int result = destruct(variables.records[left - 1], instId);
    if (result != 0) return result;
    set_constructed(*inst, left - 1); // so that none is destroyed twice
  }
  return 0;
}

int LwpVarMalloc(lwp_var_area_s *area) {
  const uint32_t capacity = variables.capacity;
  *area = {};
  area->values = static_cast<uint64_t *>(allocate_zeroed(capacity * kValueSize));
  if (area->values == nullptr) {
    VORN_LOG(kInfo, "Malloc lwp inst var fail");
    return -1;
  }
  area->capacity = capacity;
  return 0;
}

void LwpVarFree(lwp_var_area_s *area) {
  area->capacity = 0;
  // Cleared before the memory is freed, so that a child of fork() does not find freed memory.
  std::free(std::exchange(area->values, nullptr));
}

void *LwpVarDef(uint64_t varId) {
  const uint64_t offset = offset_of(varId);
  return offset < variables.capacity * kValueSize ? value_at(variables.defaults, offset) : nullptr;
}

void *LwpVarRaw(uint64_t instId, uint64_t varId) {
  const lwp_inst_s *inst = look_up(instId);
  const uint64_t offset = offset_of(varId);
  if (inst != nullptr && offset < inst->area.capacity * kValueSize) [[likely]]
    return value_at(inst->area.values, offset);
  return refuse_value(instId, varId);
}

const char *LwpVarGetName(uint64_t varId) {
  const uint64_t index = varId >> 32 & kIndexMask;
  return index < registered() ? variables.records[index].name : "Invalid varId";
}

void LwpVarShowAll(vorn_print_f print) {
  if (print == nullptr) return;
  print("%-16s %-16s", "lwpName", "lwpId");
  const uint32_t count = registered();
  for (uint32_t index = 0; index < count; ++index)
    print(" %-16s", variables.records[index].name);
  print("\n");
  Shown shown{print, 0};
  LwpInstForEach(show_values, &shown);
}

void LwpVarShowVarInfo(vorn_print_f print, const char *varName) {
  if (print == nullptr) return;
  const uint32_t count = varName != nullptr ? registered() : 0;
  for (uint32_t index = 0; index < count; ++index) {
    if (!is_called(variables.records[index], varName)) continue;
    print("%-16s %-16s %s\n", "lwpName", "lwpId", varName);
    Shown shown{print, index};
    LwpInstForEach(show_value, &shown);
    return;
  }
  print("Invalid varName:%s\n", varName);
}
