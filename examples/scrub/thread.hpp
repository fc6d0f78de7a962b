// Runs a function in a thread of the library that has a name and the I/O strategy, and works for
// the instance of the thread that started it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_THREAD_HPP
#define SCRUB_THREAD_HPP

#include <functional>
#include <memory>
#include <string>

#include "settings.hpp"
#include "vorn_thrd.h"

namespace scrub {

// Sets the CPUs and the nice value of the threads that start after this. Throws std::runtime_error.
void set_strategy(const Settings &settings);

class Thread {
public:
  // body must not throw. Throws std::runtime_error if no thread can be started.
  Thread(const std::string &name, std::function<void()> body);
  Thread(Thread &&other) noexcept;
  Thread &operator=(Thread &&) = delete;
  ~Thread(); // waits until body has returned

  // Waits until body has returned. Returns false if it does not within the milliseconds.
  bool wait(int milliseconds);

private:
  struct State;

  std::unique_ptr<State> state_;
  vorn_thrd_handle_s *handle_ = nullptr;
};

} // namespace scrub

#endif
