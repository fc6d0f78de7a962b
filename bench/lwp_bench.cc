// Compares LWP instances with their C++ counterparts: taking and releasing a reference with copying
// a shared pointer, by one thread and by two threads on the same object; and a variable with a
// thread-local variable.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_lwp.h"

#include <memory>
#include <thread>

#include "support/bench.hpp"
#include "support/threads.hpp"

namespace {

constexpr std::uint64_t kBatch = 100;

struct Object {
  std::uint64_t value = 0;
};

// Returns a reference to the value through a function call, as LwpVarRaw does.
[[gnu::noinline]] std::uint64_t &local_value() {
  static thread_local std::uint64_t value = 0;
  asm volatile("");
  return value;
}

} // namespace

int main(int argc, char **argv) {
  // Keeps the process multi-threaded until it ends.
  std::jthread second{[](const std::stop_token &stop) {
    while (!stop.stop_requested())
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }};
  const std::uint64_t zero = 0;
  std::uint64_t var = 0;
  if (LwpModuleInit() != 0) return 1;
  LwpVarRegister("value", &zero, sizeof zero, nullptr, &var);
  const std::uint64_t id = LwpInstNew("bench", nullptr, nullptr, nullptr);
  LwpCtxAttach(id, nullptr);
  const auto shared = std::make_shared<Object>();

  const auto get_put = [=] {
    LwpInstGet(id);
    LwpInstPut(id);
  };
  const auto copy = [&shared] {
    const std::shared_ptr<Object> mine = shared;
    bench::keep(mine.get());
  };
  const auto upgrade = [weak = std::weak_ptr<Object>{shared}] {
    const std::shared_ptr<Object> mine = weak.lock();
    bench::keep(mine.get());
  };

  bench::Table table{argc, argv, "LWP instances"};
  table.row("get and put a reference", {bench::ours(get_put), bench::peer("shared_ptr copy", copy),
                                        bench::peer("weak_ptr lock", upgrade)});
  const auto two = [](auto work) {
    return [=](std::uint64_t count) { return bench::in_threads(2, count * kBatch, work) / 2.0; };
  };
  table.row("get and put, 2 threads, 100 each",
            {bench::ours(two(get_put)), bench::peer("shared_ptr copy", two(copy)),
             bench::peer("weak_ptr lock", two(upgrade))});
  table.row("add to a variable of the current instance",
            {bench::ours([=] { ++*static_cast<std::uint64_t *>(LwpVarRaw(0, var)); }),
             bench::peer("thread_local", [] { ++local_value(); })});
  table.row("add to a variable by the instance's id",
            {bench::ours([=] { ++*static_cast<std::uint64_t *>(LwpVarRaw(id, var)); }),
             bench::peer("thread_local", [] { ++local_value(); })});
  table.row("create and delete an instance of 1 variable",
            {bench::ours([] { LwpInstDelete(LwpInstNew("new", nullptr, nullptr, nullptr), -1); })});
}
