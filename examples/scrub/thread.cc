// Starts a run's threads under the strategy of its settings.
// SPDX-License-Identifier: Apache-2.0
#include "thread.hpp"

#include <stdexcept>
#include <utility>

#include "instance.hpp"
#include "vorn_lwp.h"
#include "vorn_sem_enhance.h"
#include "vorn_thrd.h"

namespace scrub {

struct Thread::State {
  State(const std::string &thread_name, std::function<void()> function)
      : name(thread_name), instance(LwpCtxCurrent()), body(std::move(function)) {
    vorn_sem_enhance_init(&ended, 0);
  }

  static void *run(void *argument) {
    const std::unique_ptr<std::shared_ptr<State>> own(
        static_cast<std::shared_ptr<State> *>(argument));
    State &state = **own;
    vorn_thrd_setname("%s", state.name.c_str());
    vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_IO); // the library logs a failure
    {
      const WorkingFor work(state.instance);
      state.body();
    }
    vorn_sem_enhance_up(&state.ended);
    return nullptr;
  }

  const std::string name;
  const std::uint64_t instance;
  const std::function<void()> body;
  vorn_sem_enhance_s ended;
};

Thread::Thread(const std::string &name, std::function<void()> body)
    : state_(std::make_shared<State>(name, std::move(body))) {
  auto own = std::make_unique<std::shared_ptr<State>>(state_);
  if (vorn_thrd_create(State::run, own.get(), nullptr) != 0)
    throw std::runtime_error("no thread can be started, the log says why");
  [[maybe_unused]] auto *passed_on = own.release();
}

Thread::~Thread() {
  if (state_ != nullptr) vorn_sem_enhance_down(&state_->ended);
}

void set_strategy(const Settings &settings) {
  const vorn_thrd_strategy_s strategy = {static_cast<uint32_t>(settings.nice),
                                         settings.cpus.c_str()};
  if (vorn_initThreadStrategy(VORN_THRD_STRATEGY_IO, &strategy) != 0)
    throw std::runtime_error("no strategy can be made of the CPUs " + settings.cpus);
}

} // namespace scrub
