// Starts a run's threads under the strategy of its settings.
// SPDX-License-Identifier: Apache-2.0
#include "thread.hpp"

#include <stdexcept>
#include <utility>

#include "instance.hpp"
#include "thread_table.hpp"
#include "vorn_lwp.h"

namespace scrub {

struct Thread::State {
  static void *run(void *argument) {
    const State &state = *static_cast<State *>(argument);
    vorn_thrd_setname("%s", state.name.c_str());
    vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_IO); // the library logs a failure
    {
      const WorkingFor work(state.instance);
      state.body();
    }
    thread_table().note();
    return nullptr;
  }

  const std::string name;
  const std::uint64_t instance;
  const std::function<void()> body;
};

Thread::Thread(const std::string &name, std::function<void()> body)
    : state_(new State{name, LwpCtxCurrent(), std::move(body)}) {
  if (vorn_thrd_create_handle(State::run, state_.get(), &handle_) != 0)
    throw std::runtime_error("no thread can be started, the log says why");
}

Thread::Thread(Thread &&other) noexcept
    : state_(std::move(other.state_)), handle_(std::exchange(other.handle_, nullptr)) {}

Thread::~Thread() {
  if (handle_ == nullptr) return;
  wait(-1);
  vorn_thrd_put_handle(handle_);
}

bool Thread::wait(int milliseconds) {
  return vorn_thrd_wait_handle(handle_, milliseconds, nullptr) == 0;
}

void set_strategy(const Settings &settings) {
  const vorn_thrd_strategy_s strategy = {static_cast<uint32_t>(settings.nice),
                                         settings.cpus.c_str()};
  if (vorn_initThreadStrategy(VORN_THRD_STRATEGY_IO, &strategy) != 0)
    throw std::runtime_error("no strategy can be made of the CPUs " + settings.cpus);
}

} // namespace scrub
