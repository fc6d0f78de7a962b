// test-wraps: eventfd socket
// Tests the listener for file-system events.
// SPDX-License-Identifier: Apache-2.0
#include "kram_fs.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "base/timespec.hpp"
#include "base/unique_fd.hpp"
#include "evlog.h"
#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static bool is_missing = false;
static int released_at_the_start = -1; // released by another thread during the start of a listener
static std::thread releaser;

extern "C" {
int __real_socket(int, int, int);
int __real_eventfd(unsigned int, int);

int __wrap_eventfd(unsigned int value, int flags) {
  if (released_at_the_start >= 0) {
    releaser = std::thread(KRAM_Netlink_ext3_release, released_at_the_start);
    usleep(20000);
  }
  return __real_eventfd(value, flags);
}

// The system has no protocol 28: uses another one, whose messages are not events.
int __wrap_socket(int domain, int type, int protocol) {
  if (protocol != 28) return __real_socket(domain, type, protocol);
  EXPECT_EQ(type, SOCK_RAW | SOCK_CLOEXEC);
  errno = EPROTONOSUPPORT;
  return is_missing ? -1 : __real_socket(domain, type, NETLINK_KOBJECT_UEVENT);
}
}

namespace {

constexpr uint32_t kTag = KRAM_EXT3_EVENT_TAG;

std::atomic<int> seen{0};
std::mutex mutex;
std::string last; // under the mutex
int released_by_callback = -1;
int taken[2] = {-1, -1}; // by the callback, once the number is free

// The system gives an unbound socket that sends the number of the process.
int port() { return getpid() + (1 << 24); }

bool send_to_port(uint32_t word, const std::string &text) {
  std::string message(NLMSG_HDRLEN, '\0');
  message.append(reinterpret_cast<const char *>(&word), sizeof word).append(text);
  sockaddr_nl to{};
  to.nl_family = AF_NETLINK;
  to.nl_pid = static_cast<uint32_t>(port());
  const int socket = __real_socket(AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT);
  const auto sent = sendto(socket, message.data(), message.size(), 0,
                           reinterpret_cast<const sockaddr *>(&to), sizeof to);
  close(socket);
  return sent > 0;
}

void keep(const void *event) {
  pthread_testcancel();
  {
    const std::lock_guard hold{mutex};
    last.assign(static_cast<const char *>(event), KRAM_EXT3_EVENT_SIZE);
  }
  if (released_by_callback >= 0) {
    EXPECT_TRUE(send_to_port(kTag, "too late"));
    KRAM_Netlink_ext3_release(released_by_callback);
    EXPECT_EQ(pipe(taken), 0);
  }
  ++seen;
}

// Returns what the listener, which may not have bound yet, sees of it after the tag.
std::string send_event(const std::string &text) {
  const int before = seen;
  while (!send_to_port(kTag, text))
    usleep(1000);
  while (seen == before)
    usleep(1000);
  const std::lock_guard hold{mutex};
  return last.substr(4);
}

class Netlink : public testing::Test {
protected:
  void SetUp() override {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;
    const auto *any = reinterpret_cast<const sockaddr *>(&address);
    const vorn::UniqueFd probe(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK));
    if (bind(probe.get(), any, sizeof address) != 0 && errno == EPERM)
      GTEST_SKIP() << "no right to join a netlink group here: it takes CAP_NET_ADMIN";
  }
  std::thread listener() {
    return std::thread([this] {
      pthread_cancel(pthread_self());
      result = KRAM_Netlink_ext3_listen(socket, port(), keep);
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // a std::thread cannot be cancelled
    });
  }

  const int socket = KRAM_Netlink_ext3_create();
  int result = 1;
};

TEST_F(Netlink, ListenerSeesEventsUntilItsSocketIsReleased) {
  const int free_descriptor = scratch::next_descriptor();
  std::thread thread = listener();
  EXPECT_EQ(send_event(std::string(100, 'z')), std::string(52, 'z'));
  send_to_port(kTag + 1, "no event");
  EXPECT_EQ(send_event("abc"), "abc" + std::string(49, '\0'));
  usleep(20000); // blocked in its receive
  KRAM_Netlink_ext3_release(socket);
  thread.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(scratch::next_descriptor(), free_descriptor - 1);
  EXPECT_EQ(seen, 2);
}

TEST_F(Netlink, ReleaseWhileAListenerIsMadeEndsIt) {
  released_at_the_start = socket;
  EXPECT_EQ(KRAM_Netlink_ext3_listen(socket, port(), keep), 0);
  releaser.join();
}

TEST_F(Netlink, EndsAfterTheReceiveTimeOutOfTheSocket) {
  const timeval limit{1, 100000};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const auto start = vorn::monotonic_nanoseconds();
  EXPECT_EQ(KRAM_Netlink_ext3_listen(socket, port(), keep), -6);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_GE(vorn::monotonic_nanoseconds() - start, 1100000000u);
}

TEST_F(Netlink, ChildReleasesItsCopyAlone) {
  std::thread thread = listener();
  send_event("before");
  EXPECT_EQ(run_in_child([&] { return KRAM_Netlink_ext3_release(socket), 0; }), 0);
  EXPECT_EQ(send_event("after"), "after" + std::string(47, '\0'));
  KRAM_Netlink_ext3_release(socket);
  thread.join();
  EXPECT_EQ(result, 0);
}

// The listener does not use the number, which another file has by then.
TEST_F(Netlink, CallbackMayReleaseTheSocket) {
  released_by_callback = socket;
  std::thread thread = listener();
  send_event("last");
  thread.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(taken[0], socket);
  EXPECT_EQ(close(taken[0]) + close(taken[1]), 0);
}

TEST_F(Netlink, RefusesWhatItCannotListenOn) {
  EXPECT_EQ(KRAM_Netlink_ext3_listen(-1, 0, nullptr), -2);
  EXPECT_EQ(KRAM_Netlink_ext3_listen(socket, 0, nullptr), -7);
  EXPECT_EQ(KRAM_Netlink_ext3_listen(socket, 1, nullptr), -3);
  EXPECT_EQ(KRAM_Netlink_ext3_listen(STDIN_FILENO, 1, keep), -4);
  KRAM_Netlink_ext3_release(-1);
  EXPECT_NO_MESSAGE();
  close(STDIN_FILENO);
  EXPECT_GT(KRAM_Netlink_ext3_create(), STDERR_FILENO);
  is_missing = true;
  EXPECT_EQ(KRAM_Netlink_ext3_create(), -1);
  EXPECT_ONE_MESSAGE(
      EVLOG_ERROR, "kram_fs.c", "KRAM_Netlink_ext3_create",
      "KRAM_Netlink_ext3_create failed, sockfd:-1, errno:93,Protocol not supported.");
}

} // namespace
