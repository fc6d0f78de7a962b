// test-wraps: malloc pthread_create vorn_time_getmillisec
// Tests LWP instances: ids, references, deletion, variables, the trace and the statistics.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_lwp.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <latch>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/shown.hpp"
#include "support/threads.hpp"
#include "vorn_exception.h"
#include "vorn_thrd.h"
#include "vorn_time.h"

static std::atomic<std::size_t> g_refused_size{0}; // malloc refuses blocks of this size
static std::function<int()> g_before_thread; // what the next pthread_create does first; its error
static std::function<int()> g_before_claim;  // when a deletion has found its instance

static int run_once(std::function<int()> &hook) {
  const auto run = std::exchange(hook, nullptr);
  return run ? run() : 0;
}

extern "C" {
void *__real_malloc(std::size_t size);
void *__wrap_malloc(std::size_t size) {
  return size == g_refused_size ? nullptr : __real_malloc(size);
}
uint64_t __real_vorn_time_getmillisec();
uint64_t __wrap_vorn_time_getmillisec() {
  run_once(g_before_claim);
  return __real_vorn_time_getmillisec();
}
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __wrap_pthread_create(pthread_t *out, const pthread_attr_t *attr, void *(*run)(void *),
                          void *argument) {
  const int error = run_once(g_before_thread);
  return error != 0 ? error : __real_pthread_create(out, attr, run, argument);
}
}

namespace {

using Lines = std::vector<std::string>;
constexpr uint64_t kAlive = 0x4c70;
uint64_t id_of(uint64_t sequence, uint64_t slot) { return sequence << 32 | slot << 16 | kAlive; }
std::string hex(uint64_t value) { return testing::PrintToString(reinterpret_cast<void *>(value)); }
uint64_t make(const char *name = "task") { return LwpInstNew(name, nullptr, nullptr, nullptr); }
uint64_t &value(uint64_t id, uint64_t var) { return *static_cast<uint64_t *>(LwpVarRaw(id, var)); }
uint64_t state_word(uint64_t id) { return std::atomic_ref(LwpInstInfoFind(id)->state).load(); }
uint32_t state(uint64_t id) { return static_cast<uint32_t>(state_word(id) >> 32); }

template <class Condition> void wait_until(Condition condition) {
  while (!condition())
    std::this_thread::yield();
}

// A variable whose constructor and destructor note their calls.
struct Noted {
  template <char kWhat> static int run(uint64_t inst, void *self) {
    const auto &variable = *static_cast<Noted *>(self);
    const std::size_t at = end.fetch_add(2);
    notes[at] = kWhat;
    notes[at + 1] = variable.name[0];
    if (kWhat == '-') return variable.destruct_result;
    EXPECT_EQ(value(inst, variable.id), variable.initial);
    if (variable.on_construct) variable.on_construct(inst);
    return variable.construct_result;
  }
  uint64_t add() {
    const lwp_var_ops_s ops{run<'+'>, this, run<'-'>, this};
    return LwpVarRegister(name, &initial, sizeof initial, &ops, &id);
  }
  static std::string take() { return {notes, end.exchange(0)}; }
  static inline char notes[64];
  static inline std::atomic<std::size_t> end{0};
  const char *name;
  uint64_t id = 0;
  uint64_t initial = 1000u + static_cast<unsigned char>(name[0]);
  std::function<void(uint64_t)> on_construct = nullptr;
  int construct_result = 0, destruct_result = 0;
};

struct Lwp : testing::Test {
  void SetUp() override {
    ASSERT_EQ(LwpModuleInit(), 0);
    capture::take();
  }
};

TEST(LwpModule, StartsOnceAndTriesAgainAfterAFailure) {
  for (const auto set : {LwpCfgSetMaxInstNum, LwpCfgSetMaxVarNum})
    EXPECT_TRUE(set(0) == -1 && set(65536) == -1 && set(65535) == 0);
  LwpCfgSetMaxInstNum(3);
  EXPECT_TRUE(make() == LWP_NONE && LwpInstInfoFind(kAlive) == nullptr);
  capture::take();
  const std::pair<std::size_t, std::string> rows[] = {
      {65535 * 48, "Malloc lwp var info fail"},
      {65535 * 8, "Malloc lwp default var fail"},
      {3 * sizeof(lwp_inst_s), "Malloc lwp Module inst fail"}};
  for (const auto &[refused, why] : rows) {
    g_refused_size = refused;
    EXPECT_TRUE(LwpModuleInit() == -1 && LwpIsModuleInited() == -1);
    const std::string part = refused > 65535 ? "var" : "inst";
    EXPECT_EQ(capture::take_lines(),
              (Lines{why, "Init lwp module " + part + " fail, ret:-1", "Init lwp module fail"}));
  }
  g_refused_size = 0;
  LwpCfgSetMaxVarNum(2);
  EXPECT_TRUE(LwpModuleInit() == 0 && LwpIsModuleInited() == 0);
  capture::take();
  EXPECT_EQ(LwpModuleInit() + LwpInstModuleInit() + LwpVarModuleInit() + LwpDebugInit(), 0);
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(make(), id_of(0, 0));
  g_refused_size = 2 * 8;
  EXPECT_TRUE(LwpInstDelete(id_of(0, 0), -1) == 0 && make() == LWP_NONE);
  g_refused_size = 0;
  for (uint64_t slot = 0; slot < 3; ++slot) // the id is gone, the slot is not
    EXPECT_EQ(make(), id_of(slot + 2, slot));
  EXPECT_EQ(make(), LWP_NONE);
  const uint64_t zero = 0;
  EXPECT_EQ(LwpVarRegister("a", &zero, 8, nullptr, nullptr), 0u);
  EXPECT_EQ(LwpVarRegister("b", &zero, 0, nullptr, nullptr), (1ull << 32) + 8);
  EXPECT_EQ(LwpVarRegister("c", &zero, 8, nullptr, nullptr), LWP_NONE);
  EXPECT_EQ(capture::take_lines(), (Lines{"Malloc lwp inst var fail",
                                          "Register lwp var c fail, which has been used up 2/2"}));
}

TEST_F(Lwp, IdOfADeletedInstanceIsRefused) {
  const std::string name(63, 'n');
  for (uint64_t slot = 0; slot < 16; ++slot)
    EXPECT_EQ(make((name + "longer").c_str()), id_of(slot, slot));
  EXPECT_EQ(make(), LWP_NONE);
  EXPECT_NO_MESSAGE();
  const uint64_t old = id_of(5, 5);
  const std::string invalid = "Invalid instId:" + hex(old);
  EXPECT_EQ(LwpInstGetName(old), name);
  EXPECT_EQ(LwpInstDelete(old, -1), 0);
  const uint64_t dead = old - kAlive + 0x446c; // which the place holds now
  EXPECT_EQ(LwpInstInfoFind(dead), nullptr);
  EXPECT_EQ(capture::take_lines(), Lines{"Invalid instId:" + hex(dead) + " current:" + hex(dead) +
                                         " refers:0 state:0 name:" + name});
  const uint64_t next = id_of(16, 5);
  EXPECT_EQ(make(nullptr), next);
  for (const auto call : {LwpInstGet, LwpInstPut, LwpVarConstructor, LwpVarDestructor})
    EXPECT_EQ(call(old), -1);
  EXPECT_TRUE(LwpInstDelete(old, -1) == -1 && LwpInstDelete(0, -1) == -1);
  EXPECT_TRUE(LwpInstGetName(old) == nullptr && LwpVarRaw(old, 0) == nullptr);
  Lines lines = capture::take_lines();
  const std::string why = invalid + " current:" + hex(next) + " refers:0 state:4 name:None";
  EXPECT_EQ(std::erase(lines, why), 7u);
  const std::string none = invalid + " pInst:(nil)", get = "E get inst failed, instId=347248";
  EXPECT_EQ(lines, (Lines{none, none, get, get, none + " for delete",
                          "Invalid instId:0x0 pInst:(nil) for delete",
                          "Invalid lwp inst instId:" + hex(old) + " this:(nil)",
                          "Invalid lwp var instId:" + hex(old) + " varId:0x0"}));
  // The instance goes, and another comes, after a deletion has found it.
  g_before_claim = [=] { return make(LwpInstDelete(next, -1) == 0 ? "other" : "none"), 0; };
  EXPECT_EQ(LwpInstDelete(next, -1), -1);
  EXPECT_EQ(capture::take_lines(), Lines{"The inst:other id:" + hex(next) + " has been deleted"});
  EXPECT_EQ(state_word(id_of(17, 5)), 4ull << 32);
  EXPECT_EQ(LwpInstInfoFind(id_of(0, 16)), nullptr);
  EXPECT_EQ(capture::take_lines().back(), "E Invalid instId:" + hex(id_of(0, 16)));
}

TEST_F(Lwp, DeletionWaitsForReferences) {
  const uint64_t id = make();
  uint64_t &word = LwpInstInfoFind(id)->state;
  EXPECT_EQ(LwpInstPut(id), -1);
  word = 4ull << 32 | 0xffffffff;
  EXPECT_TRUE(LwpInstGet(id) == -1 && LwpInstDelete(id, 0) == -1);
  const std::string text = "Lwp inst:task get overflow";
  EXPECT_EQ(capture::take_lines(), (Lines{"Lwp inst:task put overflow", text, text}));
  word = 4ull << 32;
  EXPECT_TRUE(LwpInstGet(id) == 0 && LwpCtxAttach(id, nullptr) == 0 && LwpInstGet(0) == 0);
  EXPECT_EQ(word, 4ull << 32 | 2);

  const uint64_t start = vorn_time_getmillisec();
  EXPECT_EQ(LwpInstDelete(id, 0), -109);
  EXPECT_EQ(word, 0x10ull << 32 | 2);
  EXPECT_LT(vorn_time_getmillisec() - start, 1000u);
  EXPECT_TRUE(LwpInstGet(id) == -1 && LwpInstPut(0) == 0);
  lwp_auto_stat_s *stat = nullptr;
  LwpAutoStatGetInst(&stat);
  capture::take();
  EXPECT_EQ(LwpInstDelete(id, 1100), -109); // long enough for one report, not two
  EXPECT_GE(vorn_time_getmillisec() - start, 1100u);
  const auto messages = capture::take();
  ASSERT_TRUE(messages.size() == 2 && messages[0].level == capture::kOriginal);
  EXPECT_EQ(messages[0].text, "Lwp show auto statistic info of LWP_GET_INST, size:1024 used:1");
  // A walk visits the normal ones.
  const uint64_t others[] = {make(), make(), make()}; // of which the last is not reached
  std::vector<uint64_t> seen;
  const auto see = [](uint64_t at, void *to) {
    EXPECT_EQ(state_word(at), 4ull << 32 | 1);
    static_cast<std::vector<uint64_t> *>(to)->push_back(at);
    return at == id_of(2, 2) ? 7 : 0;
  };
  EXPECT_TRUE(LwpInstForEach(nullptr, nullptr) == -1 && LwpInstForEach(see, &seen) == 7);
  EXPECT_TRUE(capture::take_lines().back().ends_with(" fail:7"));
  EXPECT_EQ(seen, (std::vector<uint64_t>{others[0], others[1]}));
  EXPECT_EQ(state_word(others[0]), 4ull << 32); // its reference is given back
  std::thread other{[&] { EXPECT_EQ(LwpInstDelete(id, -1), 0); }};
  wait_until([&] { return state(id) == LWP_STATE_DELETING; });
  EXPECT_EQ(LwpInstDelete(id, 0), -1);
  EXPECT_EQ(capture::take_lines(), Lines{"Double delete inst:task id:" + hex(id)});
  EXPECT_EQ(LwpInstPut(id), 0);
  other.join();
  EXPECT_EQ(word, 0u);
  EXPECT_EQ(LwpInstGet(0), -1); // attached, but gone
  EXPECT_NO_MESSAGE();
}

struct Task {
  std::atomic<uint64_t> id{0};
  std::atomic<int> own_delete{0};
  std::atomic<bool> ended{false};

  static void *run(void *argument) {
    auto &task = *static_cast<Task *>(argument);
    task.id = LwpCtxCurrent();
    LwpCtxAttach(LWP_NONE, nullptr);
    task.own_delete = LwpInstDelete(task.id, 0);
    while (LwpInstGet(task.id) == 0)
      EXPECT_EQ(LwpInstPut(task.id), 0);
    usleep(20000);
    return task.ended = true, nullptr;
  }
};

TEST_F(Lwp, DeletionJoinsTheThreadButNotItself) {
  capture::set_level(3); // the thread's references are refused again and again
  Task task;
  g_before_thread = [] { return EAGAIN; };
  EXPECT_EQ(LwpInstNew("worker", nullptr, Task::run, &task), LWP_NONE);
  const uint64_t id = LwpInstNew("worker", nullptr, Task::run, &task);
  wait_until([&] { return task.own_delete != 0; });
  EXPECT_TRUE(id == id_of(1, 0) && task.id == id && task.own_delete == -1);
  const auto in_child = [&] { // which has the instance without the thread
    if (static_cast<uint32_t>(state_word(id)) != 0) LwpInstPut(id);
    if (LwpInstInfoFind(id)->thread != ~pthread_t{0}) return 1;
    return LwpInstDelete(id, -1) == 0 && !task.ended ? 0 : 2;
  };
  EXPECT_EQ(run_in_child(in_child), 0);
  EXPECT_EQ(LwpInstDelete(id, 1000), 0); // the time-out is that of the references
  EXPECT_TRUE(task.ended);
}

// A deletion may come as soon as a constructor knows the id.
TEST_F(Lwp, DeletionWaitsForTheCreation) {
  Noted variable{"a"};
  variable.add();
  Task task;
  std::thread deleter;
  std::atomic<int> deleted;
  const auto start_deletion = [&](uint64_t id) {
    deleted = 1;
    deleter = std::thread{[&, id] { deleted = LwpInstDelete(id, -1); }};
    wait_until([&] { return state(id) == LWP_STATE_DELETING; });
    usleep(20000);
    EXPECT_EQ(deleted, 1);
  };
  // The result of the constructor, and whether the deletion comes before the thread's handle.
  const std::tuple<int, bool, std::string> rows[] = {
      {0, false, "+a-a"}, {0, true, "+a-a"}, {5, false, "+a"}};
  for (uint64_t number = 0; const auto &row : rows) {
    const auto &[result, is_late, notes] = row;
    const bool late = is_late;
    const uint64_t id = id_of(number++, 0);
    variable.construct_result = result;
    variable.on_construct = [&](uint64_t) {
      EXPECT_TRUE(LwpInstDelete(id, 0) == -1 && LwpInstGet(id) == -1); // not itself
      EXPECT_EQ(state_word(id), 2ull << 32);
      if (!late) start_deletion(id);
    };
    if (late) g_before_thread = [&] { return start_deletion(id), 0; };
    EXPECT_EQ(LwpInstNew("worker", nullptr, Task::run, &task), late ? id : LWP_NONE);
    deleter.join();
    EXPECT_TRUE(deleted == 0 && Noted::take() == notes && LwpInstInfoFind(id) == nullptr);
    EXPECT_EQ(task.ended, number > 1);
  }
}

TEST_F(Lwp, VariablesAreConstructedInOrderAndEndInReverse) {
  Noted a{"a"}, b{"b"}, c{"c"};
  EXPECT_EQ(a.add(), 0u);
  const uint64_t id = make();
  EXPECT_EQ(b.add(), (1ull << 32) + 8); // in instances that there are, too
  value(id, b.id) = 3;
  const uint32_t small = 0xabcd1234;
  const uint64_t plain = LwpVarRegister("p", &small, 2, nullptr, nullptr);
  EXPECT_TRUE(value(id, plain) == 0x1234 && *static_cast<uint64_t *>(LwpVarDef(plain)) == 0x1234);
  EXPECT_EQ(value(id, b.id), 3u);
  EXPECT_EQ(shown::by([](vorn_print_f print) {
              LwpVarShowAll(print);
              LwpVarShowVarInfo(print, "b");
              LwpVarShowVarInfo(print, "bet");
            }),
            "lwpName          lwpId            a                b                p               \n"
            "task             0000000000004c70 0000000000000449 0000000000000003 0000000000001234\n"
            "lwpName          lwpId            b\n"
            "task             0000000000004c70 0000000000000003\n"
            "Invalid varName:bet\n");
  EXPECT_STREQ(LwpVarGetName(plain), "p");
  EXPECT_STREQ(LwpVarGetName(3ull << 32), "Invalid varId");
  EXPECT_TRUE(LwpVarRaw(id, 4095 * 8) != nullptr && LwpVarRaw(id, 4096 * 8) == nullptr);
  EXPECT_TRUE(LwpVarDef(4095 * 8) != nullptr && LwpVarDef(4096 * 8) == nullptr);
  c.add();
  EXPECT_EQ(Noted::take(), "+a+b+c");
  b.destruct_result = 9;
  c.construct_result = 8;
  capture::take();
  EXPECT_EQ(make(), LWP_NONE);
  EXPECT_EQ(Noted::take(), "+a+b+c-b-a");
  EXPECT_EQ(capture::take_lines(),
            (Lines{"Run lwp var:c constructor fail:8", "Run lwp var:b destructor fail:9",
                   "Run lwp var constructor fail, ret:8"}));
  EXPECT_EQ(LwpInstDelete(id, -1), 9);
  EXPECT_EQ(Noted::take(), "-c-b");
  EXPECT_EQ(capture::take_lines(),
            (Lines{"Run lwp var:b destructor fail:9", "Stop lwp inst:task fail ret:9"}));
  EXPECT_EQ(state(id), 8u); // its slot is lost
  c.construct_result = 0;
  EXPECT_EQ(make(), id_of(2, 1));
}

TEST_F(Lwp, RegistrationFailsWithItsConstructors) {
  const uint64_t id = make();
  capture::take();
  uint64_t nine[2] = {};
  uint64_t out = 77;
  EXPECT_EQ(LwpVarRegister("big", nine, 9, nullptr, &out), LWP_NONE);
  EXPECT_EQ(LwpVarRegister("none", nullptr, 8, nullptr, &out), LWP_NONE);
  EXPECT_EQ(capture::take_lines(), (Lines{"Register lwp var big fail, var size:9 > 8 is too bigger",
                                          "Register lwp var none fail, default value is null"}));
  EXPECT_EQ(out, 77u);
  Noted bad{"x"}, outer{"o"}, inner{"i"}, last{"l"};
  bad.construct_result = -3;
  EXPECT_EQ(bad.add(), LWP_NONE); // it is registered, and constructed as soon as that works
  EXPECT_EQ(LwpVarUpdate(), -3);
  bad.construct_result = 0;
  EXPECT_TRUE(LwpVarConstructor(id) == 0 && LwpVarUpdate() == 0);
  EXPECT_EQ(Noted::take(), "+x+x+x");
  // A constructor that registers one has it constructed by its own caller.
  const auto add_once = [](Noted &variable) {
    return [&](uint64_t) {
      if (variable.id == 0) variable.add();
    };
  };
  outer.on_construct = add_once(inner);
  EXPECT_NE(outer.add(), LWP_NONE);
  EXPECT_EQ(Noted::take(), "+o+i");
  outer.on_construct = add_once(last);
  make();
  EXPECT_EQ(Noted::take(), "+x+o+l+i+l");
  EXPECT_TRUE(LwpVarDestructor(id) == 0 && LwpInstDelete(id, -1) == 0);
  EXPECT_EQ(Noted::take(), "-l-i-o-x"); // once
}

TEST_F(Lwp, RegistrationWaitsForThreadsThatConstruct) {
  const uint64_t old = make();
  Noted slow{"s"}, late{"l"};
  std::atomic<int> constructing{0};
  std::latch go_on[2]{std::latch{1}, std::latch{1}};
  slow.on_construct = [&](uint64_t) { go_on[constructing++].wait(); };
  std::thread updater{[&] { slow.add(); }}; // constructs in the old instance
  wait_until([&] { return constructing == 1; });
  uint64_t id = LWP_NONE;
  std::thread creator{[&] { id = make(); }};
  wait_until([&] { return constructing == 2; });
  // In a child neither goes on, and there is nothing to wait for.
  const auto in_child = [&] {
    slow.on_construct = nullptr;
    if (late.add() == LWP_NONE || value(old, late.id) != late.initial) return 1;
    return make() == id_of(2, 2) ? 0 : 2;
  };
  EXPECT_EQ(run_in_child(in_child), 0);
  std::atomic<bool> added{false};
  std::thread adder{[&] { added = late.add() != LWP_NONE; }};
  for (std::latch &next : go_on) {
    usleep(20000);
    EXPECT_FALSE(added);
    next.count_down();
  }
  for (std::thread *thread : {&updater, &creator, &adder})
    thread->join();
  EXPECT_TRUE(added && value(old, late.id) == late.initial && value(id, late.id) == late.initial);
  EXPECT_EQ(Noted::take().size(), 8u); // each of both variables once in each instance
}

[[gnu::noinline]] void attach_deep(int depth, uint64_t id) {
  depth == 0 ? (void)LwpCtxAttach(id, nullptr) : attach_deep(depth - 1, id);
  asm volatile("" ::: "memory"); // no tail call
}

TEST_F(Lwp, TraceShowsTheLastSwitches) {
  const uint64_t id = make();
  uint64_t old = 0, from = LWP_NONE;
  for (const uint64_t to : {id, id + 1, id + 1, id, LWP_NONE}) { // id + 1 is no instance
    EXPECT_TRUE(LwpCtxAttach(to, &old) == 0 && old == from);
    from = to == id ? id : LWP_NONE;
    EXPECT_TRUE(LwpCtxAttach(0, nullptr) == 0 && LwpCtxCurrent() == from);
  }
  EXPECT_EQ(shown::by(LwpCtxSwitchShow), "");
  EXPECT_EQ(LwpCfgSetCtxTraceState(1), 0);
  std::string text;
  std::thread{[&] { text = shown::by(LwpCtxSwitchShow); }}.join();
  EXPECT_TRUE(text.ends_with("> Lwp this is not a thread create by kram or vorn"));
  ASSERT_EQ(vorn_thrd_setcurthreadinfo(), 0);
  const auto &trace = vorn_thrd_currentthreadinfo()->switch_trace;
  for (const uint64_t to : {id, LWP_NONE, id, LWP_NONE})
    attach_deep(10, to);
  EXPECT_EQ(trace.count, 4u);
  const auto &entry = trace.entries[0]; // of switch 3
  for (int at = 0; at < 9; ++at)        // all are of the recursion
    EXPECT_LT(entry.addresses[at] - reinterpret_cast<uintptr_t>(attach_deep), 4096u);
  capture::take();
  EXPECT_EQ(vorn_exception_call_chain(0, nullptr, nullptr, 0, 0, 0), 1);
  Lines lines;
  for (const auto &message : capture::take())
    if (message.level == capture::kOriginal) lines.push_back(message.text);
  ASSERT_EQ(lines.size(), 12u);
  const std::string tid = "<" + std::to_string(gettid()) + "> ";
  for (const int number : {1, 3})
    EXPECT_EQ(lines[number * 4 - 4], tid + "LwpCtxSwitch:" + std::to_string(number) +
                                         " instId old:" + hex(id) + " new:0xffffffffffffffff");
  EXPECT_TRUE(lines[11].starts_with(tid + "... stack:6 <<" + hex(entry.addresses[6]) + "("));
  EXPECT_NE(lines[11].find(") <<" + hex(entry.addresses[8]) + "("), std::string::npos);
}

TEST_F(Lwp, EachCallSiteHasItsStatistics) {
  std::vector<lwp_auto_stat_s *> slots(1030, nullptr);
  const auto show = [](vorn_print_f print) { LwpShowAutoStatAll(print, ".\n"); };
  EXPECT_EQ(shown::by(show), "");
  LwpAutoStatGetInst(nullptr);
  for (int round = 0; round < 2; ++round) // the second changes nothing
    for (lwp_auto_stat_s *&slot : slots)
      LwpAutoStatPutInst(&slot);
  EXPECT_EQ(slots[0]->address, slots[1]->address);
  EXPECT_TRUE(slots[1023] == slots[0] + 1023 && slots[1029] == slots[1023]);
  slots[0]->count = 12;
  const std::string text = shown::by(show);
  EXPECT_TRUE(text.starts_with("Lwp show auto statistic info of LWP_PUT_INST, size:1024 used:1024"
                               ".\nLwp autostat id: 0 cnt:    12 rip:" +
                               hex(slots[0]->address) + ","));
  EXPECT_NE(text.find("\nLwp autostat id:1023 cnt:"), std::string::npos);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VORN_TEST_EMULATED)
constexpr int kPairs = 50000;
#else
constexpr int kPairs = 1000000;
#endif

// The value of a variable is the id of its instance: a reference to another instance, or one that
// outlived its own, reads another value.
TEST_F(Lwp, ReferenceIsToTheInstanceOfItsId) {
  static uint64_t var;
  static std::atomic<int> alive{0};
  const lwp_var_ops_s ops{
      [](uint64_t id, void *) { return value(id, var) = id, ++alive, 0; }, nullptr,
      [](uint64_t id, void *) { return value(id, var) = 0, --alive, 0; }, nullptr};
  const uint64_t none = 0;
  LwpVarRegister("whose", &none, 8, &ops, &var);
  capture::set_level(3);
  std::atomic<uint64_t> ids[2] = {make(), make()};
  std::atomic<int> left{kPairs}, deletions{0};
  run_threads(4, [&](int thread) {
    while (thread < 2 && left > 0) {
      EXPECT_EQ(LwpInstDelete(ids[thread], -1), 0);
      const uint64_t made = make();
      ASSERT_NE(made, LWP_NONE);
      ids[thread] = made;
      ++deletions;
      wait_until([&, seen = left.load()] { return left <= 0 || left <= seen - 500; });
    }
    while (left > 0) {
      const uint64_t id = ids[left & 1];
      if (LwpInstGet(id) != 0) continue;
      ASSERT_EQ(std::atomic_ref(value(id, var)).load(std::memory_order_relaxed), id);
      ASSERT_EQ(LwpInstPut(id), 0);
      --left;
    }
  });
  EXPECT_GT(deletions, 0);
  EXPECT_EQ(alive, 2);
  for (const auto &id : ids)
    EXPECT_EQ(LwpInstDelete(id, 0), 0);
}

} // namespace
