// test-objects: the fork gate, the system's calls and texts are private
// Tests the fork gate, the guards and the system calls of the base.
// SPDX-License-Identifier: Apache-2.0
#include "base/fork_gate.hpp"

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/mutex.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "support/child.hpp"

namespace {

using namespace std::chrono_literals;

// The guarded data: two words that are equal whenever no thread is inside.
struct Pair {
  void change() {
    const vorn::MutexGuard hold{mutex};
    first = first + 1;
    usleep(50);
    second = second + 1;
  }

  vorn::Mutex mutex;
  volatile long first = 0;
  volatile long second = 0;
};

TEST(ForkGate, ChildFindsFreeLocksAndConsistentData) {
  Pair outer;
  Pair inner;
  std::atomic<bool> done{false};
  const auto work = [&](Pair &one, Pair &other) {
    while (!done) {
      const vorn::MutexGuard hold{one.mutex}; // threads enter while they are inside
      one.first = one.first + 1;
      other.change();
      one.second = one.second + 1;
    }
  };
  std::thread first(work, std::ref(outer), std::ref(inner));
  std::thread second([&] {
    while (!done)
      inner.change();
  });
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(run_in_child([&] {
                outer.change();
                inner.change();
                return outer.first == outer.second && inner.first == inner.second ? 0 : 1;
              }),
              0);
  }
  done = true;
  first.join();
  second.join();
}

vorn::Mutex mutex_of_handler;
volatile int handled = 0;

// A lazy start that forks; and one whose thread waits for the forking thread, in which a signal
// handler enters.
TEST(ForkGate, ForkFromInsideWaitsForOthersOnly) {
  vorn::Once once{vorn::OncePolicy::kLatch};
  int child = -1;
  const auto start = std::chrono::steady_clock::now();
  once.run([&] {
    child = run_in_child([] { return 0; });
    return 0;
  });
  EXPECT_EQ(child, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s) << "waits for its own thread";

  struct sigaction action {};
  action.sa_flags = SA_RESTART;
  action.sa_handler = [](int) {
    const vorn::MutexGuard hold{mutex_of_handler};
    handled = handled + 1;
  };
  sigaction(SIGUSR1, &action, nullptr);
  vorn::Mutex mutex;
  const pthread_t forker = pthread_self();
  std::atomic<bool> inside{false};
  std::atomic<bool> forked{false};
  std::thread stuck([&] {
    const vorn::MutexGuard hold{mutex};
    inside = true;
    while (!forked) {
      pthread_kill(forker, SIGUSR1);
      std::this_thread::sleep_for(100ms);
    }
  });
  while (!inside)
    std::this_thread::yield();
  EXPECT_EQ(run_in_child([] { return 0; }), 0); // after the deadline of fork()
  forked = true;
  stuck.join();
  EXPECT_GT(handled, 3);
}

int forgotten = 0;
const vorn::ForkChild forget{[] { ++forgotten; }};

TEST(ForkGate, RunsWhatAChildForgets) {
  EXPECT_EQ(run_in_child([] { return forgotten; }), 1);
  EXPECT_EQ(forgotten, 0);
}

// A cancellation that is already pending takes effect neither in a guarded block nor in a lazy
// start.
TEST(Mutex, HolderIsNotCancelled) {
  struct Work {
    vorn::Mutex mutex;
    vorn::Once once{vorn::OncePolicy::kRetry};
    int done = 0;
  } work;
  const auto run = [](void *argument) -> void * {
    auto &self = *static_cast<Work *>(argument);
    pthread_cancel(pthread_self());
    const auto step = [&self] {
      usleep(1);
      ++self.done;
      return 0;
    };
    {
      const vorn::MutexGuard hold{self.mutex};
      step();
    }
    self.once.run(step);
    VORN_LOG(vorn::kInfo, "%d", ++self.done);
    pthread_testcancel();
    ++self.done;
    return nullptr;
  };
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, run, &work), 0);
  void *result = nullptr;
  pthread_join(thread, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_EQ(work.done, 3);
  const vorn::MutexGuard hold{work.mutex};
  EXPECT_TRUE(work.once.done());
}

// If some of the descriptors 0 to 2 are closed, new ones are above 2, and these stay closed.
TEST(System, MakesNoStandardDescriptor) {
  for (int closed = 1; closed < 8; ++closed) {
    const int result = run_in_child([closed] {
      for (int fd = 0; fd < 3; ++fd) {
        if ((closed & 1 << fd) != 0) close(fd);
      }
      vorn::UniqueFd reading;
      vorn::UniqueFd writing;
      if (!vorn::sys::pipe(reading, writing)) return 1;
      const vorn::UniqueFd socket = vorn::sys::socket(AF_UNIX, SOCK_STREAM, 0);
      const vorn::UniqueFd copy = vorn::sys::duplicate(socket.get());
      const vorn::UniqueFd event = vorn::sys::event();
      const vorn::UniqueFd file = vorn::sys::open("/dev/null", O_RDWR);
      const vorn::Stream stream = vorn::sys::open_stream("/proc/self/status");
      const vorn::Directory directory = vorn::sys::open_directory("/");
      if (stream == nullptr || directory == nullptr) return 2;
      for (const int fd : {reading.get(), writing.get(), socket.get(), copy.get(), event.get(),
                           file.get(), fileno(stream.get()), dirfd(directory.get())}) {
        if (fd <= STDERR_FILENO || fcntl(fd, F_GETFD) != FD_CLOEXEC) return 3;
      }
      for (int fd = 0; fd < 3; ++fd) {
        if ((closed & 1 << fd) != 0 && fcntl(fd, F_GETFD) != -1) return 4;
      }
      return 0;
    });
    EXPECT_EQ(result, 0) << "closed: " << closed;
  }
}

TEST(System, KeepsFlagsAndLeaksNoDescriptorIfNoneIsFree) {
  const int result = run_in_child([] {
    close(STDIN_FILENO);
    const vorn::UniqueFd kept = vorn::sys::above_standard(::open("/dev/null", O_RDONLY));
    if (kept.get() <= STDERR_FILENO || fcntl(kept.get(), F_GETFD) != 0) return 1;
    const rlimit few{3, 3};
    if (setrlimit(RLIMIT_NOFILE, &few) != 0) return 2;
    const vorn::UniqueFd none = vorn::sys::open("/dev/null", O_RDONLY);
    if (none || errno != EINVAL) return 3;
    return fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 4;
  });
  EXPECT_EQ(result, 0);
}

TEST(Bounded, CopiesIntoABufferOfAnySize) {
  for (const std::size_t size : {4u, 0x7fffu, 0x8000u, 0x8001u, 65536u, 1u << 20}) {
    std::vector<char> buffer(size, 'x');
    EXPECT_EQ(vorn::strcpy_s(buffer.data(), size, "abc"), 0) << size;
    EXPECT_STREQ(buffer.data(), "abc");
  }
  char small[3] = "xx";
  EXPECT_NE(vorn::strcpy_s(small, sizeof small, "abc"), 0);
  EXPECT_STREQ(small, "");
}

} // namespace
