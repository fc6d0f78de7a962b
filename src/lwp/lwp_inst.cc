// Implements the creation, the references and the deletion of instances.
//
// The state word is changed only by compare-and-swap, state and count together:
//
//    63            32 31             0
//   +----------------+----------------+
//   |     state      |   references   |
//   +----------------+----------------+
//
// Changes of the state. The creator changes 0 to 1, 1 to 2 and 2 to 4. Any thread may change 1, 2,
// 4 or 16 to 8. Exactly one thread succeeds; only that thread deletes the instance, and changes 8
// to 0, or to 16 if it gives up. The state stays 8 if a destructor fails.
//
// References and reused slots. After a thread has found an id and before it changes the state word,
// the instance may be deleted and its slot reused. A count above 0 keeps a slot from becoming free.
// So a thread first increments the count and then reads the id again. If the id differs, the thread
// has counted itself on another instance and decrements the count. That short reference makes a
// deletion of the other instance wait a moment longer. The id is written before the state becomes 4
// (release), and read after the increment of the count (acquire).
//
// Deletion during creation. A delete may begin as soon as a constructor knows the id: before the
// state is normal, or after that but before the creator has stored the thread's handle. The creator
// keeps its own handle in `creator` until it no longer uses the instance. The deletion waits for
// that as for a reference; then it finds the thread's handle, and joins the thread. A creator that
// loses the state to another thread leaves the instance to the deletion. A creator that fails
// deletes the instance itself, unless another thread was first.
//
// Registration of variables during creation. The creator sets the state to 2 and then reads the
// number of registered variables. A registration increments that number and then reads the state.
// Both orders are sequentially consistent, so either the creator sees the variable and constructs
// it, or the registration sees state 2 and waits for 4.
// SPDX-License-Identifier: Apache-2.0
#include "lwp/lwp.hpp"

#include <cstring>

#include "base/bounded.hpp"
#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "base/ratelimit.hpp"
#include "base/system.hpp"
#include "evlog.h"
#include "vorn_sched.h"
#include "vorn_time.h"

static_assert(offsetof(lwp_inst_s, id) == 8);
static_assert(offsetof(lwp_inst_s, area) == 16);
static_assert(offsetof(lwp_inst_s, name) == 40);
static_assert(offsetof(lwp_inst_s, thread) == 104);

__thread lwp_inst_s *g_lwpInstCurrent = nullptr;

namespace vorn::lwp {

constinit Instances instances{nullptr, 0};

namespace {

constexpr std::uint32_t kMostReferences = 0xffffffff;
constexpr std::uint64_t kReportMilliseconds = 1000;

constinit std::atomic<std::uint32_t> sequence{0};

// The instance whose thread is the calling one; 0 if there is none.
thread_local constinit std::uint64_t t_home __attribute__((tls_model("initial-exec"))) = 0;

// --- The state word ---

struct State {
  std::uint32_t state;
  std::uint32_t references;

  static State from(std::uint64_t word) {
    return {static_cast<std::uint32_t>(word >> 32), static_cast<std::uint32_t>(word)};
  }
  std::uint64_t word() const { return std::uint64_t{state} << 32 | references; }
};

State state_of(const lwp_inst_s &inst) { return State::from(atomic_word(inst.state).load()); }

// Tells whether the word was changed, and its value before.
struct Change {
  bool made;
  State before;
  explicit operator bool() const { return made; }
};

// next(state) changes its argument, or returns false to refuse a change.
template <class Next> [[gnu::always_inline]] inline Change change(lwp_inst_s &inst, Next next) {
  const auto word = atomic_word(inst.state);
  std::uint64_t before = word.load(std::memory_order_relaxed);
  for (;;) {
    State state = State::from(before);
    if (!next(state)) return {false, State::from(before)};
    if (word.compare_exchange_weak(before, state.word(), std::memory_order_seq_cst,
                                   std::memory_order_relaxed))
      return {true, State::from(before)};
  }
}

// Returns false and changes nothing if the state is not the first argument.
bool advance(lwp_inst_s &inst, std::uint32_t from, std::uint32_t to) {
  return change(inst,
                [=](State &state) {
                  if (state.state != from) return false;
                  state.state = to;
                  return true;
                })
      .made;
}

// Separate functions, so that taking and giving back a reference needs no stack frame for the
// messages.
[[gnu::noinline]] void report_overflow(const lwp_inst_s &inst) {
  VORN_LOG_AS("LwpInstGet", kInfo, "Lwp inst:%s get overflow", inst.name);
}

[[gnu::noinline]] void report_underflow(const lwp_inst_s &inst) {
  VORN_LOG_AS("LwpInstPut", kInfo, "Lwp inst:%s put overflow", inst.name);
}

[[gnu::noinline]] int fail_invalid(const char *function, std::uint64_t id, const void *inst) {
  VORN_LOG_AS(function, kInfo, "Invalid instId:0x%lx pInst:%p", id, inst);
  return -1;
}

[[gnu::always_inline]] inline bool take(lwp_inst_s &inst) {
  const Change taken = change(inst, [](State &state) {
    return state.state == LWP_STATE_NORMAL && state.references++ != kMostReferences;
  });
  if (!taken && taken.before.state == LWP_STATE_NORMAL) report_overflow(inst);
  return taken.made;
}

[[gnu::always_inline]] inline bool drop(lwp_inst_s &inst) {
  const Change dropped = change(
      inst, [](State &state) { return state.state != LWP_STATE_FREE && state.references-- != 0; });
  if (!dropped && dropped.before.state != LWP_STATE_FREE) report_underflow(inst);
  return dropped.made;
}

// --- Names, which another thread may read while a creator writes them ---

constexpr std::size_t kNameWords = LWP_NAME_SIZE / sizeof(std::uint64_t);

std::uint64_t &name_word(const lwp_inst_s &inst, std::size_t at) {
  return reinterpret_cast<std::uint64_t *>(const_cast<char *>(inst.name))[at];
}

void set_name(lwp_inst_s &inst, const char *name) {
  char text[LWP_NAME_SIZE] = "";
  snprintf_s(text, sizeof text, sizeof text - 1, "%s", name == nullptr ? "None" : name);
  std::uint64_t words[kNameWords];
  std::memcpy(words, text, sizeof words);
  for (std::size_t at = 0; at < kNameWords; ++at)
    atomic_word(name_word(inst, at)).store(words[at], std::memory_order_relaxed);
}

// Copies the name of a slot, which another thread may change meanwhile.
class ShownName {
public:
  explicit ShownName(const lwp_inst_s &inst) {
    for (std::size_t at = 0; at < kNameWords; ++at)
      words_[at] = atomic_word(name_word(inst, at)).load(std::memory_order_relaxed);
  }
  const char *c_str() const { return reinterpret_cast<const char *>(words_); }

private:
  std::uint64_t words_[kNameWords];
};

// Logs why no instance has this id.
void report_unknown(std::uint64_t id) {
  const std::uint64_t index = id >> 16 & 0xffff;
  if (index >= instance_count()) {
    VORN_LOG_RATELIMITED_AS("LwpInstInfoFind", kError, kInfo, "Invalid instId:0x%lx", id);
    return;
  }
  const lwp_inst_s &inst = instances.slots[index];
  const State state = state_of(inst);
  VORN_LOG_AS("LwpInstInfoFind", kInfo,
              "Invalid instId:0x%lx current:0x%lx refers:%u state:%u name:%s", id, id_of(inst),
              state.references, state.state, ShownName(inst).c_str());
}

[[gnu::noinline]] int refuse(const char *function, std::uint64_t id) {
  if (id != 0) report_unknown(id);
  return fail_invalid(function, id, nullptr);
}

// The slot was reused before the reference was taken.
[[gnu::noinline]] int give_back(lwp_inst_s &inst, std::uint64_t id) {
  drop(inst);
  return fail_invalid("LwpInstGet", id, &inst);
}

// --- Deletion ---

bool creating(const lwp_inst_s &inst) {
  // Acquire: sees what the creator stored before it was done.
  return atomic_word(inst.creator).load(std::memory_order_acquire) != 0;
}

bool created_here(const lwp_inst_s &inst) {
  return atomic_word(inst.creator).load(std::memory_order_relaxed) == pthread_self();
}

void end_creation(lwp_inst_s &inst) {
  atomic_word(inst.creator).store(pthread_t{0}, std::memory_order_release);
}

bool in_use(const lwp_inst_s &inst) { return state_of(inst).references != 0 || creating(inst); }

bool deletable(const State &state) {
  return state.state != LWP_STATE_FREE && state.state != LWP_STATE_DELETING;
}

void report_deleted(const lwp_inst_s &inst, std::uint64_t id) {
  VORN_LOG_AS("LwpInstDelete", kInfo, "The inst:%s id:0x%lx has been deleted",
              ShownName(inst).c_str(), id);
}

void report_undeletable(const lwp_inst_s &inst, std::uint64_t id, const State &seen) {
  if (seen.state == LWP_STATE_FREE) return report_deleted(inst, id);
  if (deletable(seen)) return report_overflow(inst);
  VORN_LOG_AS("LwpInstDelete", kInfo, "Double delete inst:%s id:0x%lx", ShownName(inst).c_str(),
              id);
}

// Makes the calling thread the deleting one.
bool claim(lwp_inst_s &inst, std::uint64_t id) {
  const Change counted = change(
      inst, [](State &state) { return deletable(state) && state.references++ != kMostReferences; });
  if (!counted) {
    report_undeletable(inst, id, counted.before);
    return false;
  }
  if (id_of(inst) != id) {
    drop(inst);
    report_deleted(inst, id);
    return false;
  }
  const Change claimed = change(inst, [](State &state) {
    if (deletable(state)) state.state = LWP_STATE_DELETING;
    --state.references;
    return true;
  });
  if (deletable(claimed.before)) return true;
  report_undeletable(inst, id, claimed.before);
  return false;
}

// Returns false if another thread was first.
bool claim_failed_creation(lwp_inst_s &inst) {
  return change(inst,
                [](State &state) {
                  if (!deletable(state)) return false;
                  state.state = LWP_STATE_DELETING;
                  return true;
                })
      .made;
}

// Gives up the deletion: at the time-out, the instance is still in use.
int leave_zombie(lwp_inst_s &inst, std::uint64_t id) {
  if (!change(inst, [](State &state) {
        if (state.state == LWP_STATE_FREE) return false;
        state.state = LWP_STATE_ZOMBIE;
        return true;
      }))
    report_deleted(inst, id);
  return LWP_TOO_MANY_REFERENCES;
}

int wait_until_unused(lwp_inst_s &inst, std::uint64_t id, std::uint64_t start,
                      std::int32_t timeout) {
  std::uint64_t reported = start;
  while (in_use(inst)) {
    const std::uint64_t now = vorn_time_getmillisec();
    if (now - reported >= kReportMilliseconds) {
      reported = now;
      LwpShowAutoStatAll(evlog_original, "");
    }
    if (timeout >= 0 && now - start >= static_cast<std::uint64_t>(timeout))
      return leave_zombie(inst, id);
    vorn_msleep(1);
  }
  return 0;
}

// Called by the deleting thread after the last reference was given back.
int end_instance(lwp_inst_s &inst, std::uint64_t id) {
  if (inst.thread != kNoThread) {
    sys::join(inst.thread);
    inst.thread = kNoThread;
  }
  const int result = LwpVarDestructor(id);
  if (result != 0) {
    VORN_LOG_AS("LwpInstDelete", kInfo, "Stop lwp inst:%s fail ret:%d", inst.name, result);
    return result;
  }
  LwpVarFree(&inst.area);
  // From here on, lookups refuse the old id. No access to the instance follows the change to 0.
  atomic_word(inst.id).store((id & ~kTagMask) | kDead, std::memory_order_release);
  advance(inst, LWP_STATE_DELETING, LWP_STATE_FREE);
  return 0;
}

// --- Creation ---

lwp_inst_s *claim_slot() {
  for (std::uint32_t at = 0; at < instance_count(); ++at) {
    lwp_inst_s &inst = instances.slots[at];
    if (!advance(inst, LWP_STATE_FREE, LWP_STATE_RESERVED)) continue;
    atomic_word(inst.creator).store(pthread_self(), std::memory_order_relaxed);
    const std::uint64_t number = sequence.fetch_add(1, std::memory_order_relaxed);
    atomic_word(inst.id).store(number << 32 | std::uint64_t{at} << 16 | kAlive,
                               std::memory_order_release);
    return &inst;
  }
  return nullptr;
}

std::uint64_t abandon(lwp_inst_s &inst, std::uint64_t id) {
  const bool claimed = claim_failed_creation(inst);
  end_creation(inst); // after this, another thread's deletion may free the slot
  if (!claimed) return LWP_NONE;
  wait_until_unused(inst, id, vorn_time_getmillisec(), -1);
  end_instance(inst, id);
  return LWP_NONE;
}

bool construct(lwp_inst_s &inst, std::uint64_t id) {
  const int result = LwpVarConstructor(id);
  if (result == 0) return advance(inst, LWP_STATE_CONSTRUCTING, LWP_STATE_NORMAL);
  VORN_LOG_AS("LwpInstNew", kInfo, "Run lwp var constructor fail, ret:%d", result);
  return false;
}

void *run_thread(void *argument) {
  auto *inst = static_cast<lwp_inst_s *>(argument);
  g_lwpInstCurrent = inst;
  t_home = id_of(*inst);
  inst->entry(inst->arg);
  return nullptr;
}

// Ends the creation, on success and on failure.
std::uint64_t start_thread(lwp_inst_s &inst, std::uint64_t id) {
  pthread_t thread{};
  const int error = pthread_create(&thread, nullptr, run_thread, &inst);
  if (error == 0) inst.thread = thread;
  end_creation(inst);
  if (error == 0) return id;
  LwpInstDelete(id, -1);
  return LWP_NONE;
}

// --- Walk ---

bool must_wait(const lwp_inst_s &inst, std::uint32_t mask) {
  return (state_of(inst).state & mask) != 0 && !created_here(inst);
}

// --- fork() ---

// In a child, drops what other threads of the parent were doing. An instance that another thread
// was creating has an id that no thread knows, so its slot is lost, and so is that of an instance
// that was being deleted.
void forget_threads_of(lwp_inst_s &inst) {
  const pthread_t self = pthread_self();
  inst.thread = kNoThread;
  if (inst.constructing != self) inst.area.busy = 0;
  if (inst.creator == 0 || inst.creator == self) return;
  inst.creator = 0;
  claim_failed_creation(inst);
}

void forget_threads() {
  t_home = 0;
  for (std::uint32_t at = 0; at < instance_count(); ++at)
    forget_threads_of(instances.slots[at]);
}

const ForkChild forgets_threads{forget_threads};

} // namespace

lwp_inst_s *find(std::uint64_t id) {
  lwp_inst_s *inst = look_up(id);
  if (inst == nullptr && id != 0) report_unknown(id);
  return inst;
}

} // namespace vorn::lwp

using namespace vorn::lwp;

using vorn::kInfo;

int LwpInstModuleInit() {
  if (instance_count() != 0) return 0;
  const uint32_t size = configured_instances();
  auto *slots = static_cast<lwp_inst_s *>(allocate_zeroed(size * sizeof(lwp_inst_s)));
  if (slots == nullptr) {
    VORN_LOG(kInfo, "Malloc lwp Module inst fail");
    return -1;
  }
  instances.slots = slots;
  vorn::atomic_word(instances.size).store(size, std::memory_order_release);
  return 0;
}

uint64_t LwpInstNew(const char *name, void *, lwp_entry_f entry, void *arg) {
  const vorn::CancellationGuard off; // until the instance is complete
  lwp_inst_s *inst = claim_slot();
  if (inst == nullptr) return LWP_NONE;
  const uint64_t id = id_of(*inst);
  set_name(*inst, name);
  inst->thread = kNoThread;
  inst->entry = entry;
  inst->arg = arg;
  if (LwpVarMalloc(&inst->area) != 0 ||
      !advance(*inst, LWP_STATE_RESERVED, LWP_STATE_CONSTRUCTING) || !construct(*inst, id))
    return abandon(*inst, id);
  if (entry != nullptr) return start_thread(*inst, id);
  end_creation(*inst);
  return id;
}

lwp_inst_s *LwpInstInfoFind(uint64_t id) { return find(id); }

int LwpInstGet(uint64_t id) {
  lwp_inst_s *inst = look_up(id);
  if (inst == nullptr) return refuse(__func__, id);
  const uint64_t wanted = id != 0 ? id : id_of(*inst);
  if (!take(*inst)) return -1;
  if (id_of(*inst) == wanted) [[likely]]
    return 0;
  return give_back(*inst, id);
}

int LwpInstPut(uint64_t id) {
  lwp_inst_s *inst = look_up(id);
  if (inst == nullptr) return refuse(__func__, id);
  return drop(*inst) ? 0 : -1;
}

int LwpInstForEachNormal(int (*fn)(uint64_t id, void *arg), void *arg, uint32_t waitMask) {
  if (fn == nullptr) {
    VORN_LOG(kInfo, "Invalid param func is null");
    return -1;
  }
  const vorn::CancellationGuard off; // while this holds the references
  for (uint32_t at = 0; at < instance_count(); ++at) {
    lwp_inst_s &inst = instances.slots[at];
    while (must_wait(inst, waitMask))
      vorn_10msleep(1);
    if (!take(inst)) continue;
    const int result = fn(id_of(inst), arg);
    drop(inst);
    if (result == 0) continue;
    VORN_LOG(kInfo, "Run LwpForEach callback:%p fail:%d", reinterpret_cast<void *>(fn), result);
    return result;
  }
  return 0;
}

int LwpInstForEach(int (*fn)(uint64_t id, void *arg), void *arg) {
  return LwpInstForEachNormal(fn, arg, 0);
}

int LwpInstDelete(uint64_t id, int32_t timeoutMs) {
  lwp_inst_s *inst = id != 0 ? find(id) : nullptr;
  if (inst == nullptr) {
    VORN_LOG(kInfo, "Invalid instId:0x%lx pInst:%p for delete", id, static_cast<void *>(inst));
    return -1;
  }
  if (t_home == id || created_here(*inst)) {
    VORN_LOG(kInfo, "The inst:%s id:0x%lx cannot be deleted by its own thread",
             ShownName(*inst).c_str(), id);
    return -1;
  }
  const vorn::CancellationGuard off; // until the instance is deleted or a zombie
  const uint64_t start = vorn_time_getmillisec();
  if (!claim(*inst, id)) return -1;
  const int result = wait_until_unused(*inst, id, start, timeoutMs);
  return result == 0 ? end_instance(*inst, id) : result;
}

const char *LwpInstGetName(uint64_t id) {
  const lwp_inst_s *inst = find(id);
  if (inst != nullptr) return inst->name;
  VORN_LOG(kInfo, "Invalid lwp inst instId:0x%lx this:%p", id, static_cast<const void *>(inst));
  return nullptr;
}

uint64_t LwpCtxCurrent() {
  const lwp_inst_s *inst = g_lwpInstCurrent;
  return inst != nullptr ? id_of(*inst) : LWP_NONE;
}

int LwpCtxAttach(uint64_t newId, uint64_t *oldId) {
  if (oldId != nullptr) *oldId = LwpCtxCurrent();
  if (newId == 0) return 0;
  if (tracing()) LwpCtxDbgSwitch(LwpCtxCurrent(), newId);
  g_lwpInstCurrent = newId == LWP_NONE ? nullptr : find(newId);
  return 0;
}
