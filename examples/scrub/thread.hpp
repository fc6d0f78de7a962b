// A thread of the library that runs a function, under a name and the I/O strategy, and works for
// the instance of the thread that started it.
#ifndef SCRUB_THREAD_HPP
#define SCRUB_THREAD_HPP

#include <functional>
#include <memory>
#include <string>

#include "settings.hpp"

namespace scrub {

// Threads that are started from now on run on these CPUs, this nice. Throws std::runtime_error.
void set_strategy(const Settings &settings);

class Thread {
public:
  // body must not throw. Throws std::runtime_error when no thread can be started.
  Thread(const std::string &name, std::function<void()> body);
  Thread(Thread &&) = default;
  Thread &operator=(Thread &&) = delete;
  ~Thread(); // waits until body has returned

private:
  struct State;

  // The thread's own, too: it is still raising the semaphore in it when whoever waits goes on.
  std::shared_ptr<State> state_;
};

} // namespace scrub

#endif
