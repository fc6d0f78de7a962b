// test-wraps: bind connect send create_thread_nopreempt_raw
// Tests the server, the client and the registry of private calls.
// SPDX-License-Identifier: Apache-2.0
#include "kram_syscall.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/unique_fd.hpp"
#include "evlog.h"
#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "syscall/kram_server.hpp"
#include "syscall/kram_wire.hpp"
#include "vorn_mem.h"
#include "vorn_thrd.h"

using namespace std::literals;

namespace {

// The memory that the processes of a case share.
struct Shared {
  // Cases run at the same time: each replaces the server's port by a free one, which a restarted
  // server uses again.
  std::atomic<in_port_t> port;
  std::atomic<int> children; // the number of children that have closed their copies
};
auto &shared = *static_cast<Shared *>(
    mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

sockaddr_in moved(const sockaddr *address) {
  sockaddr_in wanted{};
  std::memcpy(&wanted, address, sizeof wanted);
  EXPECT_EQ(wanted.sin_port, htons(5583));
  EXPECT_EQ(wanted.sin_addr.s_addr, htonl(0x7F000001));
  wanted.sin_port = shared.port;
  return wanted;
}

std::atomic<bool> refuses_threads{false};
bool interrupts_connect = false;
std::function<void()> before_send;
std::atomic<bool> acts_before_send{false}; // for once

} // namespace

extern "C" {
int __real_bind(int, const sockaddr *, socklen_t);
int __real_connect(int, const sockaddr *, socklen_t);
ssize_t __real_send(int, const void *, size_t, int);
int __real_create_thread_nopreempt_raw(vorn_thrd_entry_f, void *, pthread_t *);

int __wrap_bind(int socket, const sockaddr *address, socklen_t length) {
  sockaddr_in to = moved(address);
  const int result = __real_bind(socket, reinterpret_cast<const sockaddr *>(&to), length);
  getsockname(socket, reinterpret_cast<sockaddr *>(&to), &length);
  if (result == 0) shared.port = to.sin_port;
  return result;
}

int __wrap_connect(int socket, const sockaddr *address, socklen_t length) {
  const sockaddr_in to = moved(address);
  if (interrupts_connect) fcntl(socket, F_SETFL, O_NONBLOCK);
  const int result = __real_connect(socket, reinterpret_cast<const sockaddr *>(&to), length);
  if (!interrupts_connect) return result;
  fcntl(socket, F_SETFL, 0);
  errno = EINTR; // as after a signal, the connection is still made
  return -1;
}

ssize_t __wrap_send(int socket, const void *buffer, size_t size, int flags) {
  if (acts_before_send.exchange(false)) before_send();
  return __real_send(socket, buffer, size, flags);
}

int __wrap_create_thread_nopreempt_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  return refuses_threads ? -1 : __real_create_thread_nopreempt_raw(entry, argument, out);
}
}

namespace {

using vorn::kram::WireHeader;

std::atomic<int> held{0};
std::atomic<bool> is_released{false};

int32_t echo(uint32_t command, kram_call_s *call) {
  EXPECT_EQ(command, 0x401u);
  EXPECT_EQ(call->output_length, 0u);
  std::memcpy(call->output, call->input, call->input_length);
  call->output_length = call->input_length;
  return -5;
}

// Replies with as many bytes as the request says.
int32_t fill(uint32_t, kram_call_s *call) {
  std::memcpy(&call->output_length, call->input, sizeof call->output_length);
  std::memset(call->output, 'x', std::min(call->output_length, KRAM_SYSCALL_BUFFER_SIZE));
  return static_cast<int32_t>(call->output_capacity);
}

// Forks in the handler a process that stays, and replies with its number.
int32_t fork_and_stay(uint32_t, kram_call_s *) {
  const int before = shared.children;
  const pid_t child = fork();
  if (child == 0) {
    ++shared.children;
    alarm(60);
    pause();
  }
  while (shared.children == before)
    usleep(1000);
  return child;
}

// Waits in a cancellation point, which has no effect in a handler.
int32_t hold(uint32_t, kram_call_s *) {
  pthread_cancel(pthread_self());
  ++held;
  usleep(1);
  is_released.wait(false);
  return 0;
}

void release() {
  is_released = true;
  is_released.notify_all();
}

const kram_entry_s kGroup4[] = {
    {0x400, KRAM_SYSCALL_DIRECT, [](uint32_t, kram_call_s *) { return gettid(); }},
    {0x401, KRAM_SYSCALL_INDIRECT, echo},
    {0x402, KRAM_SYSCALL_DIRECT, fill},
    {0x403, KRAM_SYSCALL_DIRECT, hold},
    {0x404, KRAM_SYSCALL_DIRECT, fork_and_stay},
    {0x405, KRAM_SYSCALL_DIRECT, [](uint32_t, kram_call_s *call) { // writes none of its output
       call->output_length = KRAM_SYSCALL_BUFFER_SIZE;
       return 0;
     }}};

std::string bytes_of(const auto &value) {
  return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string message(uint32_t command, const std::string &payload, uint64_t capacity = 0,
                    int64_t result = 0) {
  return bytes_of(WireHeader{command, 0, payload.size(), capacity, result}) + payload;
}

std::string fill_request(uint32_t length) { return message(0x402, bytes_of(length), 1ull << 40); }

bool put(int socket, const std::string &text) {
  return send(socket, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

std::string read_all(int socket) {
  std::string all;
  char piece[1024];
  for (ssize_t length = 0; (length = recv(socket, piece, sizeof piece, 0)) > 0;)
    all.append(piece, static_cast<std::size_t>(length));
  return all;
}

// A connection, and the server's thread for it.
struct Connection {
  explicit Connection(std::chrono::milliseconds time_limit, bool is_evicted = false) {
    activity.become_idle();
    if (is_evicted) activity.evict(activity.idle_since());
    socketpair(AF_UNIX, SOCK_STREAM, 0, sockets);
    server = std::thread([this, time_limit] {
      vorn::kram::serve(sockets[1], activity, time_limit);
      close(sockets[1]);
    });
  }
  ~Connection() {
    server.join();
    close(sockets[0]);
  }
  int sockets[2];
  vorn::kram::Activity activity;
  std::thread server;
};

std::string replies_to(const std::string &sent, bool is_evicted = false) {
  const Connection connection(0ms, is_evicted);
  put(connection.sockets[0], sent);
  shutdown(connection.sockets[0], SHUT_WR);
  return read_all(connection.sockets[0]);
}

vorn::UniqueFd dial() {
  const sockaddr_in to = vorn::kram::server_address();
  vorn::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval patience{60, 0}; // a missing answer fails the case
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  return connect(socket.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0
             ? std::move(socket)
             : vorn::UniqueFd();
}

// Returns the thread that answers over that connection, or 0.
int64_t ask(const vorn::UniqueFd &socket) {
  WireHeader reply{};
  if (!socket || !put(socket.get(), message(0x400, ""))) return 0;
  return recv(socket.get(), &reply, sizeof reply, MSG_WAITALL) > 0 ? reply.result : 0;
}

bool await_server() {
  return soon([] { return ask(dial()) > 0; });
}

void start_server() {
  ASSERT_EQ(KRAM_PrivateSysCallInit(), 0);
  ASSERT_EQ(KRAM_RegSysCall(4, kGroup4, std::size(kGroup4)), 0);
  ASSERT_TRUE(await_server());
}

int call(uint32_t command) {
  kram_request_s request{};
  return KRAM_SysCall(command, &request);
}

auto threads_and_descriptors() {
  const auto entries = [](const char *of) {
    return std::distance(std::filesystem::directory_iterator(of), {});
  };
  return std::pair{entries("/proc/self/task"), entries("/proc/self/fd")};
}

// Waits until every other thread of the process sleeps: the server has handled all requests.
bool others_sleep() {
  return soon([] {
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
      const std::string status = scratch::read_file(task.path() / "stat");
      const bool own = task.path().filename() == std::to_string(gettid());
      if (!own && !status.empty() && status.at(status.rfind(')') + 2) != 'S') return false;
    }
    return true;
  });
}

TEST(KramRegistry, RefusesBadEntriesAndKeepsTheFirstGroup) {
  const std::pair<kram_entry_s, const char *> rows[] = {
      {{0x400, 2, echo}, "Syscall type is wrong, it should be direct(0) or indirect(1)."},
      {{0x305, 0, echo}, "Syscall's cmd 773  is wrong, it should be v_uiGroupId(4)."},
      {{0x4FF, 1, nullptr}, "pfnSysCall is NULL."}};
  for (const auto &[entry, text] : rows) {
    const kram_entry_s entries[] = {kGroup4[0], entry};
    EXPECT_EQ(KRAM_CheckGroupCalls(4, entries, 2), -1);
    EXPECT_ONE_MESSAGE(EVLOG_ERROR, "kram_syscall_main.c", "KRAM_CheckGroupCalls", text);
  }
  EXPECT_EQ(KRAM_CheckGroupCalls(4, std::vector(255, kGroup4[0]).data(), 255), 0);
  EXPECT_EQ(KRAM_RegSysCall(4, std::vector(256, kGroup4[0]).data(), 256), -1);
  EXPECT_EQ(KRAM_RegSysCall(4, nullptr, 0), -1);
  EXPECT_EQ(KRAM_RegSysCall(32, kGroup4, 4), -1);
  EXPECT_EQ(KRAM_RegSysCall(4, kGroup4, 2), 0);
  EXPECT_EQ(KRAM_RegSysCall(4, kGroup4, 4), -1);
  EXPECT_EQ(capture::take_lines().back(), "KRAM register syscall 4.");
  EXPECT_EQ(KRAM_FindSysCall(0x402), nullptr);
  ASSERT_NE(KRAM_FindSysCall(0x401), nullptr);
  EXPECT_EQ(KRAM_FindSysCall(0x401)->handler, echo);
  EXPECT_NO_MESSAGE();
  KRAM_UnRegSysCall(4);
  KRAM_UnRegSysCall(33);
  for (const uint32_t command : {0x401u, 0x2000u, ~0u})
    EXPECT_EQ(KRAM_FindSysCall(command), nullptr);
  const std::string unknown = "E Syscall not registered usr, cmd = (0x";
  const std::vector<std::string> want = {"E Param 1 v_uiGroupId 33 is larger than 32.",
                                         unknown + "401).", unknown + "2000).",
                                         unknown + "ffffffff)."};
  EXPECT_EQ(capture::take_lines(), want);
}

TEST(KramServer, AnswersEachRequestOfAConnection) {
  KRAM_RegSysCall(4, kGroup4, std::size(kGroup4));
  const std::string longest(510, 'i');
  EXPECT_EQ(replies_to(message(0x401, longest, 7) + message(0x4FF, "") + message(0x12C00, "abc") +
                       fill_request(510) + message(0x401, "cut").substr(0, 34)),
            message(0x401, longest, 7, -5) + message(0x4FF, "", 0, -1) +
                message(0x12C00, "", 0, -1) +
                message(0x402, std::string(510, 'x'), 1ull << 40, 510));
  EXPECT_EQ(replies_to(message(0x400, ""), true), "");
  for (void *block : {vorn_malloc(3, 510), vorn_malloc(3, 510), vorn_malloc(3, 510)})
    vorn_free(std::memset(block, 'z', 510));
  EXPECT_EQ(replies_to(message(0x405, "")), message(0x405, std::string(510, '\0')));
}

TEST(KramServer, EndsTheConnectionAfterAnOversizedMessage) {
  KRAM_RegSysCall(4, kGroup4, 4);
  const auto too_long = [](uint64_t length) {
    return bytes_of(WireHeader{0x401, 0, length, 0, 0});
  };
  const std::pair<std::string, const char *> rows[] = {
      {too_long(511), "E hdr.cmd=401, hdr.len = 511\n"},
      {too_long(1ull << 32), "E hdr.cmd=401, hdr.len = 4294967296\n"},
      {too_long(~0ull), "E hdr.cmd=401, hdr.len = 18446744073709551615\n"},
      {fill_request(511), "E hdr.cmd=402, hdr.len = 511\n"},
      {fill_request(~0u), "E hdr.cmd=402, hdr.len = 4294967295\n"}};
  for (const auto &[sent, line] : rows) {
    capture::take();
    EXPECT_EQ(replies_to(sent + message(0x400, "")), "");
    EXPECT_EQ(capture::take_lines(), std::vector<std::string>{line});
  }
}

TEST(KramServer, DropsOnlyAPeerThatStopsInAMessage) {
  KRAM_RegSysCall(4, kGroup4, 4);
  const std::string request = message(0x401, std::string(510, 'i'));
  const auto never_ends = [&](int socket) {
    std::size_t at = 0;
    while (at < 500 && put(socket, request.substr(at++, 1)))
      std::this_thread::sleep_for(10ms);
    EXPECT_LT(at, 500u);
  };
  const auto never_reads = [&](int socket) {
    while (put(socket, request))
      continue;
  };
  const auto thinks_for_long = [&](int socket) {
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(put(socket, request));
    shutdown(socket, SHUT_WR);
    EXPECT_EQ(read_all(socket).size(), request.size());
  };
  const std::function<void(int)> peers[] = {never_ends, never_reads, thinks_for_long};
  for (const auto &peer : peers) {
    const Connection connection(50ms);
    peer(connection.sockets[0]);
    read_all(connection.sockets[0]);
  }
}

std::vector<int> inheritable_descriptors() {
  std::vector<int> all;
  for (int fd = 0; fd < 32; ++fd)
    if (fcntl(fd, F_GETFD) == 0) all.push_back(fd);
  return all;
}

TEST(Kram, CallsGoThroughOneConnection) {
  close(STDIN_FILENO);
  const auto before = inheritable_descriptors();
  start_server();
  interrupts_connect = true;
  const int thread = call(0x400);
  EXPECT_GT(thread, 0);
  EXPECT_EQ(inheritable_descriptors(), before);
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  EXPECT_EQ(scratch::read_file("/proc/self/task/" + std::to_string(thread) + "/comm"),
            "syscall_do_thr\n");

  char out[101] = {};
  kram_request_s request{3, 64, "abc", out};
  EXPECT_EQ(KRAM_SysCall(0x401, &request), -5);
  EXPECT_EQ(std::string(out), "abc");
  EXPECT_EQ(request.output_length, 3u);

  const uint32_t length = 100;
  request = {sizeof length, 64, &length, out};
  capture::take();
  EXPECT_EQ(KRAM_SysCall(0x402, &request), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "kram_syscall_linux_user.c", "KRAM_SysCall",
                     "syscall_user: buffer length too small, hdr.len=100 uiOutBufLen=64");
  EXPECT_EQ(request.output_length, 64u);
  request.output_length = 100;
  EXPECT_EQ(KRAM_SysCall(0x402, &request), 100);
  EXPECT_EQ(std::string(out), std::string(100, 'x'));
  EXPECT_EQ(call(0x4FF), -1);
  EXPECT_EQ(call(0x400), thread);

  request.input = nullptr;
  EXPECT_EQ(KRAM_SysCall(0x401, &request), -1);
}

TEST(Kram, ChildHasItsOwnConnection) {
  start_server();
  const int thread = call(0x400);
  std::thread caller([] {
    pthread_cancel(pthread_self());
    EXPECT_EQ(call(0x403), 0);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // a std::thread cannot be cancelled
  });
  ASSERT_TRUE(soon([] { return held == 1; }));
  const auto has_its_own = [thread] {
    const int own = call(0x400);
    return own > 0 && own != thread ? 0 : 1;
  };
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(run_in_child(has_its_own), 0); // during a call
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s) << "fork() waits for the call";
  release();
  caller.join();
  EXPECT_EQ(call(0x400), thread);
}

TEST(Kram, ClientFindsARestartedServer) {
  EXPECT_EQ(call(0x400), -1);
  capture::take();
  pid_t children[2] = {};
  for (int run = 0; run < 2; ++run) {
    const pid_t server = fork();
    if (server == 0) {
      start_server();
      alarm(60);
      pause();
    }
    ASSERT_GT(server, 0);
    EXPECT_TRUE(await_server()) << run;
    const pid_t child = call(0x404);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    ASSERT_GT(child, 0);
    children[run] = child;
    EXPECT_EQ(capture::take_lines(), std::vector<std::string>{}) << run;
  }
  for (const pid_t child : children) {
    ASSERT_GT(child, 0);
    kill(child, SIGKILL);
  }
}

enum When { kIdle, kBeforeSend, kUnread, kRead, kInReply, kAfterMore };

void reply(const vorn::UniqueFd &peer, uint64_t length, const std::string &more = "") {
  char request[sizeof(WireHeader)];
  recv(peer.get(), request, sizeof request, MSG_WAITALL);
  put(peer.get(), bytes_of(WireHeader{0x400, 0, length, 0, 9}) + more);
}

// A server that closes its first connection in the given way, and serves the second one correctly.
void serve_twice(const vorn::UniqueFd &listener, When when, bool is_reset,
                 std::atomic<bool> &is_set) {
  vorn::UniqueFd peer(accept(listener.get(), nullptr, nullptr));
  const auto end = [&] {
    const linger discard{is_reset, 0};
    setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
    peer = vorn::UniqueFd();
  };
  reply(peer, 0, when == kAfterMore ? "more than the reply" : "");
  if (when == kAfterMore) read_all(peer.get()); // until the client closes it
  if (when == kIdle) end();
  before_send = end;
  acts_before_send = when == kBeforeSend;
  is_set = true;
  if (when >= kUnread && when != kAfterMore) {
    char request[sizeof(WireHeader)];
    recv(peer.get(), request, sizeof request, when == kUnread ? MSG_PEEK : MSG_WAITALL);
    if (when == kInReply) put(peer.get(), "part");
    end();
  }
  const vorn::UniqueFd next(accept(listener.get(), nullptr, nullptr));
  reply(next, 0);
  reply(next, 1ull << 32);
  EXPECT_EQ(read_all(next.get()), "");
}

TEST(Kram, RequestIsSentAgainIfItWasNotCarriedOut) {
  const sockaddr_in address = vorn::kram::server_address();
  const vorn::UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  const std::tuple<When, bool, int> rows[] = {
      {kIdle, false, 9},      {kIdle, true, 9},     {kBeforeSend, false, 9},
      {kBeforeSend, true, 9}, {kUnread, false, 9},  {kRead, true, 9},
      {kRead, false, -1},     {kInReply, true, -1}, {kAfterMore, false, 9}};
  for (const auto &[when, is_reset, result] : rows) {
    SCOPED_TRACE(testing::Message() << when << is_reset);
    std::atomic<bool> is_set{false};
    std::thread server(serve_twice, std::ref(listener), when, is_reset, std::ref(is_set));
    EXPECT_EQ(call(0x400), 9);
    ASSERT_TRUE(soon([&] { return is_set.load(); }));
    capture::take();
    EXPECT_EQ(call(0x400), result);
    EXPECT_EQ(capture::take().size(), result == 9 ? 0u : 1u);
    if (result != 9) {
      EXPECT_EQ(call(0x400), 9);
    }
    EXPECT_EQ(call(0x400), -1);
    server.join();
  }
}

TEST(Kram, ListenerEndsIfThreadsAreRefused) {
  const std::string line = "E creat syscall thrd failed, ret = -1.\n";
  refuses_threads = true;
  EXPECT_EQ(KRAM_PrivateSysCallInit(), -1);
  EXPECT_EQ(capture::take_lines(), (std::vector{line, "E Initial syscall interface fail."s}));
  refuses_threads = false;
  start_server();
  capture::take();
  refuses_threads = true;
  EXPECT_EQ(read_all(dial().get()), "");
  EXPECT_TRUE(soon([] { return !dial(); }));
  EXPECT_EQ(capture::take_lines().front(), line);
  refuses_threads = false;
  start_server();
}

TEST(Kram, ClosesTheConnectionThatIsIdleLongestButNoBusyOne) {
  char byte;
  start_server();
  ASSERT_GT(call(0x400), 0);
  std::this_thread::sleep_for(200ms); // for threads that exist only during the start
  const auto before = threads_and_descriptors();
  {
    const vorn::UniqueFd young[] = {dial(), dial()}; // in slots on both sides of the own connection
    const auto ask_the_young = [&] { return ask(young[0]) > 0 && ask(young[1]) > 0; };
    ASSERT_TRUE(ask_the_young());
    std::vector<vorn::UniqueFd> busy;
    for (int i = 0; i < 509; ++i) {
      busy.push_back(dial());
      const bool is_last = i == 508; // its message has ten seconds from now
      ASSERT_TRUE(put(busy.back().get(), is_last ? "slow" : message(0x403, "")));
      ASSERT_TRUE(soon([=] { return held == (is_last ? i : i + 1); }));
    }
    ASSERT_TRUE(others_sleep());
    const vorn::UniqueFd fresh = dial(); // replaces this process's own connection
    EXPECT_GT(ask(fresh), 0);
    EXPECT_TRUE(ask_the_young());
    ASSERT_TRUE(others_sleep()); // the new connection is idle too
    capture::take();
    EXPECT_GT(call(0x400), 0); // replaces the new connection
    EXPECT_TRUE(ask_the_young());
    EXPECT_EQ(recv(fresh.get(), &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_NO_MESSAGE();

    for (const vorn::UniqueFd &one : young)
      put(one.get(), message(0x403, ""));
    std::thread caller([] { EXPECT_EQ(call(0x403), 0); });
    EXPECT_TRUE(soon([] { return held == 511; }));
    EXPECT_EQ(read_all(dial().get()), "");
    std::string last; // others may be about the missing jiffies driver
    EXPECT_TRUE(soon([&] {
      for (const std::string &line : capture::take_lines())
        last = line;
      return last == "E 512 connections are open, another is closed.";
    })) << last;
    release();
    caller.join();
    busy.pop_back();
    for (const vorn::UniqueFd &one : busy)
      EXPECT_EQ(recv(one.get(), &byte, 1, 0), 1);
  }
  EXPECT_TRUE(soon([&] { return threads_and_descriptors() == before; }));
  const auto lines = capture::take_lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(lines[0].starts_with("E recv error, err=0, buf=")); // of the slow connection
}

} // namespace
