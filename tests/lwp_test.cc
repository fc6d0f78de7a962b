// test-wraps: malloc pthread_create vorn_time_getmillisec
// LWP instances: ids, references, deletion, variables, the trace and the statistics.
#include "vorn_lwp.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <latch>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/shown.hpp"
#include "support/threads.hpp"
#include "vorn_exception.h"
#include "vorn_thrd.h"
#include "vorn_time.h"

static std::atomic<std::size_t> g_refused_size{0}; // malloc refuses blocks of this size
static std::function<int()> g_before_thread; // what the next pthread_create does first; its error
static std::function<void()> g_before_claim; // when a deletion has found its instance

extern "C" {
void *__real_malloc(std::size_t size);
void *__wrap_malloc(std::size_t size) {
  return size == g_refused_size ? nullptr : __real_malloc(size);
}
uint64_t __real_vorn_time_getmillisec();
uint64_t __wrap_vorn_time_getmillisec() {
  const auto before = std::exchange(g_before_claim, nullptr);
  if (before) before();
  return __real_vorn_time_getmillisec();
}
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __wrap_pthread_create(pthread_t *out, const pthread_attr_t *attr, void *(*run)(void *),
                          void *argument) {
  const auto before = std::exchange(g_before_thread, nullptr);
  const int error = before ? before() : 0;
  return error != 0 ? error : __real_pthread_create(out, attr, run, argument);
}
}

namespace {

using Lines = std::vector<std::string>;
using std::chrono::milliseconds;

constexpr uint64_t kAlive = 0x4c70;

uint64_t id_of(uint64_t sequence, uint64_t slot) { return sequence << 32 | slot << 16 | kAlive; }

std::string hex(uint64_t value) {
  char text[24];
  snprintf(text, sizeof text, "0x%lx", value);
  return text;
}

void pause() { std::this_thread::sleep_for(milliseconds(20)); }

uint64_t make(const char *name = "task") { return LwpInstNew(name, nullptr, nullptr, nullptr); }

uint64_t &value(uint64_t id, uint64_t var) { return *static_cast<uint64_t *>(LwpVarRaw(id, var)); }

uint64_t word(uint64_t id) { return std::atomic_ref(LwpInstInfoFind(id)->state).load(); }

uint32_t state(uint64_t id) { return static_cast<uint32_t>(word(id) >> 32); }

uint32_t references(uint64_t id) { return static_cast<uint32_t>(word(id)); }

// A variable whose constructor and destructor note their calls.
struct Noted {
  explicit Noted(char its_name) : name{its_name, '\0'} {}
  uint64_t add() {
    const lwp_var_ops_s ops{construct, this, destruct, this};
    return LwpVarRegister(name, &initial, sizeof initial, &ops, &id);
  }
  static int construct(uint64_t inst, void *self) {
    auto &variable = *static_cast<Noted *>(self);
    note('+', variable);
    EXPECT_EQ(value(inst, variable.id), variable.initial);
    if (variable.on_construct) variable.on_construct(inst);
    return variable.construct_result;
  }
  static int destruct(uint64_t inst, void *self) {
    auto &variable = *static_cast<Noted *>(self);
    note('-', variable);
    if (variable.on_destruct) variable.on_destruct(inst);
    return variable.destruct_result;
  }
  static void note(char what, const Noted &variable) {
    static std::mutex mutex;
    const std::lock_guard hold{mutex};
    notes += what + std::string(variable.name);
  }
  static inline std::string notes;

  char name[2];
  uint64_t id = 0;
  uint64_t initial = 1000 + static_cast<unsigned char>(name[0]);
  std::function<void(uint64_t)> on_construct;
  std::function<void(uint64_t)> on_destruct;
  int construct_result = 0;
  int destruct_result = 0;
};

std::string take_notes() { return std::exchange(Noted::notes, ""); }

class Lwp : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_EQ(LwpModuleInit(), 0);
    capture::take();
  }
};

TEST(LwpModule, StartsOnceAndTriesAgainAfterAFailure) {
  for (const uint32_t wrong : {0u, 65536u}) {
    EXPECT_EQ(LwpCfgSetMaxInstNum(wrong), -1);
    EXPECT_EQ(LwpCfgSetMaxVarNum(wrong), -1);
  }
  EXPECT_EQ(LwpCfgSetMaxInstNum(65535), 0);
  EXPECT_EQ(LwpCfgSetMaxInstNum(3), 0);
  EXPECT_EQ(LwpCfgSetMaxVarNum(65535), 0);
  EXPECT_EQ(make(), LWP_NONE);
  EXPECT_EQ(LwpInstInfoFind(kAlive), nullptr);
  capture::take();
  const struct {
    std::size_t size;
    Lines lines;
  } rows[] = {
      {65535 * 48, {"Malloc lwp var info fail", "Init lwp module var fail, ret:-1"}},
      {65535 * 8, {"Malloc lwp default var fail", "Init lwp module var fail, ret:-1"}},
      {3 * sizeof(lwp_inst_s),
       {"Malloc lwp Module inst fail", "Init lwp module inst fail, ret:-1"}},
  };
  for (const auto &row : rows) {
    g_refused_size = row.size;
    EXPECT_EQ(LwpModuleInit(), -1);
    Lines wanted = row.lines;
    wanted.emplace_back("Init lwp module fail");
    EXPECT_EQ(capture::take_lines(), wanted);
    EXPECT_EQ(LwpIsModuleInited(), -1);
  }
  g_refused_size = 0;
  EXPECT_EQ(LwpCfgSetMaxVarNum(2), 0);
  EXPECT_EQ(LwpModuleInit(), 0);
  EXPECT_EQ(LwpIsModuleInited(), 0);
  capture::take();
  EXPECT_EQ(LwpModuleInit() + LwpInstModuleInit() + LwpVarModuleInit() + LwpDebugInit(), 0);
  EXPECT_NO_RECORD();

  const uint64_t first = make();
  EXPECT_EQ(make() & make() & kAlive, kAlive);
  EXPECT_EQ(make(), LWP_NONE);
  g_refused_size = 2 * 8;
  EXPECT_EQ(LwpInstDelete(first, -1), 0);
  EXPECT_EQ(make(), LWP_NONE);
  g_refused_size = 0;
  EXPECT_EQ(make(), id_of(4, 0)); // the number is gone, the place is not
  const uint64_t zero = 0;
  EXPECT_EQ(LwpVarRegister("a", &zero, 8, nullptr, nullptr), 0u);
  EXPECT_EQ(LwpVarRegister("b", &zero, 0, nullptr, nullptr), (1ull << 32) + 8);
  EXPECT_EQ(LwpVarRegister("c", &zero, 8, nullptr, nullptr), LWP_NONE);
  EXPECT_EQ(capture::take_lines(), (Lines{"Malloc lwp inst var fail",
                                          "Register lwp var c fail, which has been used up 2/2"}));
}

TEST_F(Lwp, IdsAreRefusedOnceTheirInstanceIsGone) {
  for (uint64_t slot = 0; slot < 16; ++slot)
    EXPECT_EQ(make(std::string(70, 'n').c_str()), id_of(slot, slot));
  EXPECT_EQ(make(), LWP_NONE);
  EXPECT_NO_RECORD();
  const uint64_t old = id_of(5, 5);
  EXPECT_EQ(LwpInstGetName(old), std::string(63, 'n'));
  EXPECT_EQ(LwpInstDelete(old, -1), 0);
  const uint64_t dead = (old & ~0xffffull) | 0x446c; // which the place holds now
  for (const uint64_t id : {old, dead}) {
    EXPECT_EQ(LwpInstInfoFind(id), nullptr);
    EXPECT_EQ(capture::take_lines(), Lines{"Invalid instId:" + hex(id) + " current:" + hex(dead) +
                                           " refers:0 state:0 name:" + std::string(63, 'n')});
  }
  EXPECT_EQ(make(nullptr), id_of(16, 5));
  EXPECT_STREQ(LwpInstGetName(id_of(16, 5)), "None");
  const std::string why = "Invalid instId:" + hex(old) + " current:" + hex(id_of(16, 5)) +
                          " refers:0 state:4 name:None";
  EXPECT_EQ(LwpInstGet(old), -1);
  EXPECT_EQ(LwpInstPut(old), -1);
  EXPECT_EQ(LwpInstDelete(old, -1), -1);
  EXPECT_EQ(LwpInstDelete(0, -1), -1);
  EXPECT_EQ(LwpInstGetName(old), nullptr);
  EXPECT_EQ(LwpVarRaw(old, 0), nullptr);
  EXPECT_EQ(LwpVarConstructor(old), -1);
  EXPECT_EQ(LwpVarDestructor(old), -1);
  EXPECT_EQ(capture::take_lines(),
            (Lines{why, "Invalid instId:" + hex(old) + " pInst:(nil)", why,
                   "Invalid instId:" + hex(old) + " pInst:(nil)", why,
                   "Invalid instId:" + hex(old) + " pInst:(nil) for delete",
                   "Invalid instId:0x0 pInst:(nil) for delete", why,
                   "Invalid lwp inst instId:" + hex(old) + " this:(nil)", why,
                   "Invalid lwp var instId:" + hex(old) + " varId:0x0", why,
                   "E get inst failed, instId=347248", why, "E get inst failed, instId=347248"}));
  // The instance goes, and another comes, after a deletion has found it.
  g_before_claim = [] {
    EXPECT_EQ(LwpInstDelete(id_of(16, 5), -1), 0);
    make("other");
  };
  EXPECT_EQ(LwpInstDelete(id_of(16, 5), -1), -1);
  EXPECT_EQ(capture::take_lines(),
            Lines{"The inst:other id:" + hex(id_of(16, 5)) + " has been deleted"});
  g_before_claim = [] { EXPECT_EQ(LwpInstDelete(id_of(17, 5), -1), 0); };
  EXPECT_EQ(LwpInstDelete(id_of(17, 5), -1), -1);
  EXPECT_EQ(make(), id_of(18, 5));
  capture::take();
  LwpInstInfoFind(id_of(0, 16));
  capture::take(); // with what the jiffies had to tell
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(LwpInstInfoFind(id_of(0, 16)), nullptr);
  EXPECT_EQ(capture::take_lines(), Lines(2, "E Invalid instId:" + hex(id_of(0, 16))));
}

TEST_F(Lwp, ReferencesHoldADeletionUp) {
  const uint64_t id = make();
  uint64_t &word = LwpInstInfoFind(id)->state;
  EXPECT_EQ(LwpInstPut(id), -1);
  word = 4ull << 32 | 0xffffffff;
  EXPECT_EQ(LwpInstGet(id), -1);
  EXPECT_EQ(LwpInstDelete(id, 0), -1);
  EXPECT_EQ(capture::take_lines(),
            (Lines{"Lwp inst:task put overflow", "Lwp inst:task get overflow",
                   "Lwp inst:task get overflow"}));
  word = 4ull << 32;
  EXPECT_EQ(LwpInstGet(id), 0);
  EXPECT_EQ(LwpCtxAttach(id, nullptr), 0);
  EXPECT_EQ(LwpInstGet(0), 0);
  EXPECT_EQ(word, 4ull << 32 | 2);

  const uint64_t start = vorn_time_getmillisec();
  EXPECT_EQ(LwpInstDelete(id, 0), -109);
  EXPECT_EQ(state(id), 0x10u);
  EXPECT_LT(vorn_time_getmillisec() - start, 1000u);
  EXPECT_EQ(LwpInstGet(id), -1);
  EXPECT_EQ(LwpInstPut(0), 0);
  lwp_auto_stat_s *stat = nullptr;
  LwpAutoStatGetInst(&stat);
  capture::take();
  EXPECT_EQ(LwpInstDelete(id, 1100), -109); // long enough for one report, not two
  EXPECT_GE(vorn_time_getmillisec() - start, 1100u);
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, capture::kOriginal);
  EXPECT_EQ(records[0].text, "Lwp show auto statistic info of LWP_GET_INST, size:1024 used:1");

  std::thread other{[&] { EXPECT_EQ(LwpInstDelete(id, -1), 0); }};
  while (state(id) != LWP_STATE_DELETING)
    std::this_thread::yield();
  EXPECT_EQ(LwpInstDelete(id, 0), -1);
  EXPECT_EQ(capture::take_lines(), Lines{"Double delete inst:task id:" + hex(id)});
  EXPECT_EQ(LwpInstPut(id), 0);
  other.join();
  EXPECT_EQ(word, 0u);
  EXPECT_EQ(LwpInstGet(0), -1); // attached, but gone
  EXPECT_NO_RECORD();
}

TEST_F(Lwp, EveryNormalInstanceIsVisited) {
  const uint64_t ids[] = {make(), make(), make()};
  std::vector<uint64_t> seen;
  const auto see = [](uint64_t id, void *to) {
    EXPECT_EQ(references(id), 1u);
    static_cast<std::vector<uint64_t> *>(to)->push_back(id);
    return id == id_of(1, 1) ? 7 : 0;
  };
  EXPECT_EQ(LwpInstForEach(nullptr, nullptr), -1);
  capture::take();
  EXPECT_EQ(LwpInstForEach(see, &seen), 7);
  EXPECT_EQ(seen, (std::vector<uint64_t>{ids[0], ids[1]}));
  const auto lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].starts_with("Run LwpForEach callback:0x") && lines[0].ends_with(" fail:7"));
  EXPECT_EQ(LwpInstGet(ids[1]), 0);
  EXPECT_EQ(LwpInstDelete(ids[1], 0), -109);
  seen.clear();
  EXPECT_EQ(LwpInstForEach(see, &seen), 0);
  EXPECT_EQ(seen, (std::vector<uint64_t>{ids[0], ids[2]}));
  EXPECT_EQ(word(ids[0]), 4ull << 32); // its reference is given back
}

// --- Threads ---

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
    pause();
    task.ended = true;
    return nullptr;
  }
};

TEST_F(Lwp, ADeletionJoinsTheThreadButNotItself) {
  capture::set_level(3); // the thread's references are refused again and again
  Task task;
  const uint64_t id = LwpInstNew("worker", nullptr, Task::run, &task);
  while (task.own_delete == 0)
    std::this_thread::yield();
  EXPECT_EQ(task.id, id);
  EXPECT_EQ(task.own_delete, -1);
  EXPECT_EQ(run_in_child([&] { // which has the instance without the thread
              if (references(id) != 0) LwpInstPut(id);
              if (LwpInstInfoFind(id)->thread != ~pthread_t{0}) return 1;
              return LwpInstDelete(id, -1) == 0 && !task.ended ? 0 : 2;
            }),
            0);
  EXPECT_EQ(LwpInstDelete(id, 1000), 0); // the time-out is that of the references
  EXPECT_TRUE(task.ended);
  capture::set_level(7);

  g_before_thread = [] { return EAGAIN; };
  EXPECT_EQ(LwpInstNew("worker", nullptr, Task::run, &task), LWP_NONE);
  EXPECT_EQ(make(), id_of(2, 0));
}

// A deletion may come as soon as a constructor knows the id.
TEST_F(Lwp, ADeletionWaitsForTheCreation) {
  Noted variable{'a'};
  variable.add();
  std::thread deleter;
  std::atomic<int> deleted{1};
  const auto start_deletion = [&](uint64_t id) {
    deleter = std::thread{[&, id] { deleted = LwpInstDelete(id, -1); }};
    while (state(id) != LWP_STATE_DELETING)
      std::this_thread::yield();
    pause();
    EXPECT_EQ(deleted, 1);
  };
  variable.on_construct = [&](uint64_t id) {
    EXPECT_EQ(LwpInstDelete(id, 0), -1); // the constructor itself cannot
    EXPECT_EQ(state(id), 2u);
    EXPECT_EQ(LwpInstGet(id), -1);
    start_deletion(id);
  };
  EXPECT_EQ(make(), LWP_NONE);
  deleter.join();
  EXPECT_EQ(deleted, 0);
  EXPECT_EQ(take_notes(), "+a-a");

  Task task;
  deleted = 1;
  variable.on_construct = nullptr;
  g_before_thread = [&] { // the state is normal, and there is no handle yet
    start_deletion(id_of(1, 0));
    return 0;
  };
  EXPECT_EQ(LwpInstNew("worker", nullptr, Task::run, &task), id_of(1, 0));
  deleter.join();
  EXPECT_EQ(deleted, 0);
  EXPECT_TRUE(task.ended);

  deleted = 1;
  variable.construct_result = 5;
  variable.on_construct = start_deletion;
  EXPECT_EQ(make(), LWP_NONE); // the deletion frees the place, not the creator that failed
  deleter.join();
  EXPECT_EQ(deleted, 0);
  EXPECT_EQ(LwpInstInfoFind(id_of(2, 0)), nullptr);
}

// --- Variables ---

TEST_F(Lwp, VariablesAreConstructedInOrderAndEndInReverse) {
  Noted a{'a'};
  Noted b{'b'};
  Noted c{'c'};
  EXPECT_EQ(a.add(), 0u);
  const uint64_t id = make();
  EXPECT_EQ(take_notes(), "+a");
  EXPECT_EQ(b.add(), (1ull << 32) + 8); // in instances that there are, too
  EXPECT_EQ(take_notes(), "+b");
  value(id, b.id) = 3;
  const uint32_t small = 0xabcd1234;
  const uint64_t plain = LwpVarRegister("p", &small, 2, nullptr, nullptr);
  EXPECT_EQ(value(id, plain), 0x1234u);
  EXPECT_EQ(*static_cast<uint64_t *>(LwpVarDef(plain)), 0x1234u);
  EXPECT_EQ(value(id, b.id), 3u);
  c.add();
  EXPECT_EQ(take_notes(), "+c");
  b.destruct_result = 9;
  c.construct_result = 8;
  capture::take();
  EXPECT_EQ(make(), LWP_NONE);
  EXPECT_EQ(take_notes(), "+a+b+c-b-a");
  EXPECT_EQ(capture::take_lines(),
            (Lines{"Run lwp var:c constructor fail:8", "Run lwp var:b destructor fail:9",
                   "Run lwp var constructor fail, ret:8"}));
  EXPECT_EQ(LwpInstDelete(id, -1), 9);
  EXPECT_EQ(take_notes(), "-c-b");
  EXPECT_EQ(capture::take_lines(),
            (Lines{"Run lwp var:b destructor fail:9", "Stop lwp inst:task fail ret:9"}));
  EXPECT_EQ(state(id), 8u); // its place is lost
  c.construct_result = 0;
  EXPECT_EQ(make(), id_of(2, 1));
}

TEST_F(Lwp, ARegistrationFailsWithItsConstructors) {
  const uint64_t id = make();
  capture::take();
  uint64_t nine[2] = {};
  uint64_t out = 77;
  EXPECT_EQ(LwpVarRegister("big", nine, 9, nullptr, &out), LWP_NONE);
  EXPECT_EQ(LwpVarRegister("none", nullptr, 8, nullptr, &out), LWP_NONE);
  EXPECT_EQ(capture::take_lines(), (Lines{"Register lwp var big fail, var size:9 > 8 is too bigger",
                                          "Register lwp var none fail, default value is null"}));
  EXPECT_EQ(out, 77u);
  Noted bad{'x'};
  bad.construct_result = -3;
  EXPECT_EQ(bad.add(), LWP_NONE);
  EXPECT_EQ(bad.id, 0u); // it is registered, and constructed as soon as that works
  EXPECT_STREQ(LwpVarGetName(0), "x");
  EXPECT_EQ(LwpVarUpdate(), -3);
  bad.construct_result = 0;
  EXPECT_EQ(LwpVarConstructor(id), 0);
  EXPECT_EQ(LwpVarUpdate(), 0);
  EXPECT_EQ(take_notes(), "+x+x+x");

  // A constructor that registers one has it constructed by its own caller.
  Noted inner{'i'};
  Noted outer{'o'};
  outer.on_construct = [&](uint64_t) {
    outer.on_construct = nullptr;
    EXPECT_NE(inner.add(), LWP_NONE);
  };
  EXPECT_NE(outer.add(), LWP_NONE);
  EXPECT_EQ(take_notes(), "+o+i");
  Noted last{'l'};
  outer.on_construct = [&](uint64_t) {
    outer.on_construct = nullptr;
    EXPECT_NE(last.add(), LWP_NONE);
  };
  make();
  EXPECT_EQ(take_notes(), "+x+o+l+i+l");
  EXPECT_EQ(LwpVarDestructor(id), 0);
  EXPECT_EQ(LwpInstDelete(id, -1), 0);
  EXPECT_EQ(take_notes(), "-l-i-o-x"); // once
}

TEST_F(Lwp, ARegistrationWaitsForThreadsThatConstruct) {
  const uint64_t old = make();
  Noted slow{'s'};
  Noted late{'l'};
  std::atomic<int> constructing{0};
  std::latch go_on[2]{std::latch{1}, std::latch{1}};
  slow.on_construct = [&](uint64_t) { go_on[constructing++].wait(); };
  const auto reach = [&](int count) {
    while (constructing < count)
      std::this_thread::yield();
  };
  std::thread updater{[&] { slow.add(); }}; // constructs in the old instance
  reach(1);
  uint64_t id = LWP_NONE;
  std::thread creator{[&] { id = make(); }};
  reach(2);
  // In a child neither goes on, and there is nothing to wait for.
  EXPECT_EQ(run_in_child([&] {
              slow.on_construct = nullptr;
              if (late.add() == LWP_NONE || value(old, late.id) != late.initial) return 1;
              return make() == id_of(2, 2) ? 0 : 2;
            }),
            0);
  std::atomic<bool> added{false};
  std::thread adder{[&] {
    EXPECT_NE(late.add(), LWP_NONE);
    added = true;
  }};
  for (std::latch &next : go_on) {
    pause();
    EXPECT_FALSE(added);
    next.count_down();
  }
  for (std::thread *thread : {&updater, &creator, &adder})
    thread->join();
  EXPECT_EQ(take_notes().size(), 8u); // each of both variables once in each instance
  EXPECT_EQ(value(old, late.id), late.initial);
  EXPECT_EQ(value(id, late.id), late.initial);
}

TEST_F(Lwp, VariablesAreShown) {
  const uint64_t five = 5;
  const uint64_t id = make("mover");
  const uint64_t a = LwpVarRegister("alpha", &five, 8, nullptr, nullptr);
  const uint64_t b = LwpVarRegister("beta", &five, 8, nullptr, nullptr);
  value(id, b) = 0xff;
  EXPECT_EQ(value(id, a), 5u);
  EXPECT_EQ(shown::by(LwpVarShowAll),
            "lwpName          lwpId            alpha            beta            \n"
            "mover            0000000000004c70 0000000000000005 00000000000000ff\n");
  const auto one = [](const char *name) {
    return shown::by([=](vorn_print_f print) { LwpVarShowVarInfo(print, name); });
  };
  EXPECT_EQ(one("beta"), "lwpName          lwpId            beta\n"
                         "mover            0000000000004c70 00000000000000ff\n");
  EXPECT_EQ(one("bet"), "Invalid varName:bet\n");
  EXPECT_STREQ(LwpVarGetName(b), "beta");
  EXPECT_STREQ(LwpVarGetName(2ull << 32), "Invalid varId");
  EXPECT_NE(LwpVarRaw(id, 4095 * 8), nullptr);
  EXPECT_EQ(LwpVarRaw(id, 4096 * 8), nullptr);
  EXPECT_NE(LwpVarDef(4095 * 8), nullptr);
  EXPECT_EQ(LwpVarDef(4096 * 8), nullptr);
}

// --- Context ---

[[gnu::noinline]] void attach_deep(int depth, uint64_t id) {
  if (depth == 0)
    LwpCtxAttach(id, nullptr);
  else
    attach_deep(depth - 1, id);
  asm volatile("" ::: "memory"); // no tail call
}

TEST_F(Lwp, TheTraceTellsTheLastSwitches) {
  const uint64_t id = make();
  uint64_t old = 0;
  EXPECT_EQ(LwpCtxAttach(0, &old), 0);
  EXPECT_EQ(old, LWP_NONE);
  LwpCtxAttach(id, &old);
  EXPECT_EQ(old, LWP_NONE);
  LwpCtxAttach(0, &old);
  EXPECT_EQ(old, id);
  LwpCtxAttach(id + 1, &old); // no such instance
  EXPECT_EQ(LwpCtxCurrent(), LWP_NONE);

  EXPECT_EQ(shown::by(LwpCtxSwitchShow), "");
  EXPECT_EQ(LwpCfgSetCtxTraceState(1), 0);
  std::thread{[] {
    EXPECT_TRUE(
        shown::by(LwpCtxSwitchShow).ends_with("> Lwp this is not a thread create by kram or vorn"));
  }}.join();
  ASSERT_EQ(vorn_thrd_setcurthreadinfo(), 0);
  const auto &trace = vorn_thrd_currentthreadinfo()->switch_trace;
  for (const uint64_t to : {id, LWP_NONE, id, LWP_NONE})
    attach_deep(10, to);
  EXPECT_EQ(trace.count, 4u);
  for (int at = 0; at < 9; ++at) // all are of the recursion
    EXPECT_LT(trace.entries[0].addresses[at] - reinterpret_cast<uintptr_t>(attach_deep), 4096u);
  capture::take();
  const std::string tid = "<" + std::to_string(gettid()) + "> ";
  EXPECT_EQ(vorn_exception_call_chain(0, nullptr, nullptr, 0, 0, 0), 1);
  Lines lines;
  for (const auto &record : capture::take())
    if (record.level == capture::kOriginal) lines.push_back(record.text);
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_EQ(lines[0], tid + "LwpCtxSwitch:1 instId old:" + hex(id) + " new:0xffffffffffffffff");
  EXPECT_EQ(lines[8], tid + "LwpCtxSwitch:3 instId old:" + hex(id) + " new:0xffffffffffffffff");
  const auto third = [](const auto &addresses, int at) { return hex(addresses[at]) + "("; };
  const auto &entry = trace.entries[0]; // of switch 3
  EXPECT_TRUE(lines[11].starts_with(tid + "... stack:6 <<" + third(entry.addresses, 6)));
  EXPECT_NE(lines[11].find(") <<" + third(entry.addresses, 8)), std::string::npos);
}

TEST_F(Lwp, EachPlaceHasItsStatistics) {
  std::vector<lwp_auto_stat_s *> slots(1030, nullptr);
  EXPECT_EQ(shown::by([](vorn_print_f print) { LwpShowAutoStatAll(print, "\n"); }), "");
  LwpAutoStatGetInst(nullptr);
  for (lwp_auto_stat_s *&slot : slots)
    LwpAutoStatPutInst(&slot);
  EXPECT_EQ(slots[0]->address, slots[1]->address);
  EXPECT_EQ(slots[1023], slots[0] + 1023);
  EXPECT_EQ(slots[1029], slots[1023]);
  lwp_auto_stat_s *const kept = slots[7];
  LwpAutoStatPutInst(&slots[7]);
  EXPECT_EQ(slots[7], kept);
  slots[0]->count = 12;
  const std::string text = shown::by([](vorn_print_f print) { LwpShowAutoStatAll(print, ".\n"); });
  EXPECT_TRUE(text.starts_with("Lwp show auto statistic info of LWP_PUT_INST, size:1024 used:1024"
                               ".\nLwp autostat id: 0 cnt:    12 rip:" +
                               hex(slots[0]->address) + ","));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1025);
}

// --- Many threads ---

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VORN_TEST_EMULATED)
constexpr int kPairs = 50000;
#else
constexpr int kPairs = 1000000;
#endif

// A value tells whose it is: a reference that was given to another instance, or that outlived its
// own, shows in it.
TEST_F(Lwp, AReferenceIsToTheInstanceOfItsId) {
  static uint64_t var;
  static std::atomic<int> alive{0};
  const lwp_var_ops_s ops{
      [](uint64_t id, void *) { return value(id, var) = id, ++alive, 0; }, nullptr,
      [](uint64_t id, void *) { return value(id, var) = 0, --alive, 0; }, nullptr};
  const uint64_t none = 0;
  LwpVarRegister("whose", &none, 8, &ops, &var);
  capture::set_level(3);
  std::atomic<uint64_t> ids[2] = {make(), make()};
  std::atomic<int> left{kPairs};
  std::atomic<int> deletions{0};
  run_threads(4, [&](int thread) {
    if (thread < 2) {
      std::atomic<uint64_t> &mine = ids[thread];
      while (left > 0) {
        const uint64_t old = mine;
        EXPECT_EQ(LwpInstDelete(old, -1), 0);
        const uint64_t made = make();
        ASSERT_NE(made, LWP_NONE);
        mine = made;
        ++deletions;
        for (const int seen = left; left > 0 && left > seen - 500;)
          std::this_thread::yield();
      }
      return;
    }
    while (left > 0) {
      const uint64_t id = ids[left & 1];
      if (LwpInstGet(id) != 0) continue;
      ASSERT_EQ(atomic_load_explicit(reinterpret_cast<std::atomic<uint64_t> *>(&value(id, var)),
                                     std::memory_order_relaxed),
                id);
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
