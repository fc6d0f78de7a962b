// test-wraps: bind connect create_thread_nopreempt_raw
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
#include "syscall/kram_server.hpp"
#include "syscall/kram_wire.hpp"
#include "vorn_thrd.h"

using namespace std::chrono_literals;

namespace {

// Cases run side by side: each has in the place of the server's port one that the system gives it,
// which the processes of a case share, and a server that is started again takes once more.
std::atomic<in_port_t> &port = *static_cast<std::atomic<in_port_t> *>(
    mmap(nullptr, sizeof port, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

sockaddr_in moved(const sockaddr *address) {
  sockaddr_in wanted{};
  std::memcpy(&wanted, address, sizeof wanted);
  EXPECT_EQ(wanted.sin_port, htons(5583));
  EXPECT_EQ(wanted.sin_addr.s_addr, htonl(0x7F000001));
  wanted.sin_port = port;
  return wanted;
}

enum Threads { kStart, kRefuse, kForget };
std::atomic<Threads> threads{kStart};

} // namespace

extern "C" {
int __real_bind(int, const sockaddr *, socklen_t);
int __real_connect(int, const sockaddr *, socklen_t);
int __real_create_thread_nopreempt_raw(vorn_thrd_entry_f, void *, pthread_t *);

int __wrap_bind(int socket, const sockaddr *address, socklen_t length) {
  sockaddr_in to = moved(address);
  const int result = __real_bind(socket, reinterpret_cast<const sockaddr *>(&to), length);
  getsockname(socket, reinterpret_cast<sockaddr *>(&to), &length);
  if (result == 0) port = to.sin_port;
  return result;
}

int __wrap_connect(int socket, const sockaddr *address, socklen_t length) {
  const sockaddr_in to = moved(address);
  return __real_connect(socket, reinterpret_cast<const sockaddr *>(&to), length);
}

int __wrap_create_thread_nopreempt_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  if (threads == kStart) return __real_create_thread_nopreempt_raw(entry, argument, out);
  if (threads == kRefuse) return -1;
  shutdown(static_cast<std::atomic<int> *>(argument)->load(), SHUT_RDWR); // one that stays counted
  return 0;
}
}

namespace {

using vorn::kram::WireHeader;

std::atomic<bool> held{false};

int32_t thread_id(uint32_t, kram_call_s *) { return gettid(); }

int32_t echo(uint32_t command, kram_call_s *call) {
  EXPECT_EQ(command, 0x401u);
  EXPECT_EQ(call->output_length, 0u);
  std::memcpy(call->output, call->input, call->input_length);
  call->output_length = call->input_length;
  return -5;
}

// Replies as many bytes as the request has as a number.
int32_t fill(uint32_t, kram_call_s *call) {
  std::memcpy(&call->output_length, call->input, sizeof call->output_length);
  std::memset(call->output, 'x', std::min(call->output_length, KRAM_SYSCALL_BUFFER_SIZE));
  return static_cast<int32_t>(call->output_capacity);
}

// A process that stays, and tells its number.
int32_t fork_and_stay(uint32_t, kram_call_s *) {
  const pid_t child = fork();
  while (child == 0)
    pause();
  return child;
}

int32_t hold(uint32_t, kram_call_s *) {
  held = true;
  while (held)
    std::this_thread::sleep_for(1ms);
  return 0;
}

const kram_entry_s kGroup4[] = {{0x400, KRAM_SYSCALL_DIRECT, thread_id},
                                {0x401, KRAM_SYSCALL_INDIRECT, echo},
                                {0x402, KRAM_SYSCALL_DIRECT, fill},
                                {0x403, KRAM_SYSCALL_DIRECT, hold},
                                {0x404, KRAM_SYSCALL_DIRECT, fork_and_stay}};

std::string bytes_of(const auto &value) {
  return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string message(uint32_t command, const std::string &payload, uint64_t capacity = 0,
                    int64_t result = 0) {
  return bytes_of(WireHeader{command, 0, payload.size(), capacity, result}) + payload;
}

std::string fill_request(uint32_t length) { return message(0x402, bytes_of(length), 1ull << 40); }

std::string read_all(int socket) {
  std::string all;
  char piece[1024];
  for (ssize_t length = 0; (length = recv(socket, piece, sizeof piece, 0)) > 0;)
    all.append(piece, static_cast<std::size_t>(length));
  return all;
}

struct Pair {
  Pair() {
    int sockets[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sockets);
    near = vorn::UniqueFd(sockets[0]);
    far = vorn::UniqueFd(sockets[1]);
  }
  vorn::UniqueFd near, far;
};

std::string replies_to(const std::string &sent) {
  Pair pair;
  send(pair.near.get(), sent.data(), sent.size(), 0);
  shutdown(pair.near.get(), SHUT_WR);
  vorn::kram::serve(pair.far.get(), 0ms);
  pair.far = vorn::UniqueFd();
  return read_all(pair.near.get());
}

template <class Condition> bool eventually(Condition condition) {
  for (int i = 0; i < 20000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

vorn::UniqueFd dial() {
  const sockaddr_in to = vorn::kram::server_address();
  vorn::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return connect(socket.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0
             ? std::move(socket)
             : vorn::UniqueFd();
}

void start_server() {
  ASSERT_EQ(KRAM_PrivateSysCallInit(), 0);
  ASSERT_EQ(KRAM_RegSysCall(4, kGroup4, 5), 0);
  ASSERT_TRUE(eventually([] { return bool(dial()); }));
}

int call(uint32_t command) {
  kram_request_s request{};
  return KRAM_SysCall(command, &request);
}

TEST(KramRegistry, RefusesBadEntriesAndKeepsTheFirstGroup) {
  const struct {
    kram_entry_s entry;
    const char *text;
  } rows[] = {
      {{0x400, 2, echo}, "Syscall type is wrong, it should be direct(0) or indirect(1)."},
      {{0x305, 0, echo}, "Syscall's cmd 773  is wrong, it should be v_uiGroupId(4)."},
      {{0x4FF, 1, nullptr}, "pfnSysCall is NULL."},
  };
  for (const auto &row : rows) {
    const kram_entry_s entries[] = {kGroup4[0], row.entry};
    EXPECT_EQ(KRAM_CheckGroupCalls(4, entries, 2), -1);
    EXPECT_ONE_RECORD(EVLOG_ERROR, "kram_syscall_main.c", "KRAM_CheckGroupCalls", row.text);
  }
  EXPECT_EQ(KRAM_CheckGroupCalls(4, std::vector(255, kGroup4[0]).data(), 255), 0);
  EXPECT_EQ(KRAM_RegSysCall(4, std::vector(256, kGroup4[0]).data(), 256), -1);
  EXPECT_EQ(KRAM_RegSysCall(4, nullptr, 0), -1);
  EXPECT_EQ(KRAM_RegSysCall(32, kGroup4, 4), -1);
  EXPECT_EQ(KRAM_RegSysCall(4, kGroup4, 2), 0);
  EXPECT_EQ(KRAM_RegSysCall(4, kGroup4, 4), -1);
  EXPECT_EQ(capture::take_texts().back(), "KRAM register syscall 4.");
  EXPECT_EQ(KRAM_FindSysCall(0x402), nullptr);
  ASSERT_NE(KRAM_FindSysCall(0x401), nullptr);
  EXPECT_EQ(KRAM_FindSysCall(0x401)->handler, echo);
  EXPECT_NO_RECORD();
  KRAM_UnRegSysCall(4);
  KRAM_UnRegSysCall(33);
  for (const uint32_t command : {0x401u, 0x2000u, ~0u})
    EXPECT_EQ(KRAM_FindSysCall(command), nullptr);
  const std::vector<std::string> want = {"Param 1 v_uiGroupId 33 is larger than 32.",
                                         "Syscall not registered usr, cmd = (0x401).",
                                         "Syscall not registered usr, cmd = (0x2000).",
                                         "Syscall not registered usr, cmd = (0xffffffff)."};
  EXPECT_EQ(capture::take_texts(), want);
}

TEST(KramServer, AnswersEachRequestOfAConnection) {
  KRAM_RegSysCall(4, kGroup4, 4);
  const std::string longest(510, 'i');
  EXPECT_EQ(replies_to(message(0x401, longest, 7) + message(0x4FF, "") + message(0x12C00, "abc") +
                       fill_request(510) + message(0x401, "cut").substr(0, 34)),
            message(0x401, longest, 7, -5) + message(0x4FF, "", 0, -1) +
                message(0x12C00, "", 0, -1) +
                message(0x402, std::string(510, 'x'), 1ull << 40, 510));
}

TEST(KramServer, EndsTheConnectionOfWhatDoesNotFit) {
  KRAM_RegSysCall(4, kGroup4, 4);
  const auto too_long = [](uint64_t length) {
    return bytes_of(WireHeader{0x401, 0, length, 0, 0});
  };
  const struct {
    std::string sent;
    const char *text;
  } rows[] = {{too_long(511), "hdr.cmd=401, hdr.len = 511\n"},
              {too_long(1ull << 32), "hdr.cmd=401, hdr.len = 4294967296\n"},
              {too_long(~0ull), "hdr.cmd=401, hdr.len = 18446744073709551615\n"},
              {fill_request(511), "hdr.cmd=402, hdr.len = 511\n"},
              {fill_request(~0u), "hdr.cmd=402, hdr.len = 4294967295\n"}};
  for (const auto &row : rows) {
    capture::take();
    EXPECT_EQ(replies_to(row.sent + message(0x400, "")), "");
    EXPECT_EQ(capture::take_texts(), std::vector<std::string>{row.text});
  }
}

TEST(KramServer, DropsWhoStopsInAMessageAndNobodyElse) {
  KRAM_RegSysCall(4, kGroup4, 4);
  const std::string request = message(0x401, std::string(510, 'i'));
  const auto put = [&](int socket, std::size_t at, std::size_t length) {
    return send(socket, &request[at], length, MSG_NOSIGNAL) > 0;
  };
  const std::function<void(int)> peers[] = {// stops
                                            [&](int socket) { put(socket, 0, 31); },
                                            // never stops, never ends
                                            [&](int socket) {
                                              std::size_t at = 0;
                                              while (at < 500 && put(socket, at++, 1))
                                                std::this_thread::sleep_for(10ms);
                                              EXPECT_LT(at, 500u);
                                            },
                                            // takes no reply
                                            [&](int socket) {
                                              shutdown(socket, SHUT_RD);
                                              put(socket, 0, request.size());
                                            },
                                            // never reads
                                            [&](int socket) {
                                              while (put(socket, 0, request.size()))
                                                continue;
                                            },
                                            // thinks for long
                                            [&](int socket) {
                                              std::this_thread::sleep_for(200ms);
                                              EXPECT_TRUE(put(socket, 0, request.size()));
                                              shutdown(socket, SHUT_WR);
                                              EXPECT_EQ(read_all(socket).size(), request.size());
                                            }};
  for (const auto &peer : peers) {
    Pair pair;
    std::thread server([&] {
      vorn::kram::serve(pair.far.get(), 50ms);
      pair.far = vorn::UniqueFd();
    });
    peer(pair.near.get());
    read_all(pair.near.get());
    server.join();
  }
}

TEST(Kram, CallsGoThroughOneConnection) {
  const int first = scratch::next_descriptor();
  start_server();
  const int thread = call(0x400);
  EXPECT_GT(thread, 0);
  for (int fd = first; fd < first + 5; ++fd)
    EXPECT_NE(fcntl(fd, F_GETFD), 0); // closed on exec, if there is one
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
  EXPECT_ONE_RECORD(EVLOG_ERROR, "kram_syscall_linux_user.c", "KRAM_SysCall",
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

TEST(Kram, ChildHasAConnectionOfItsOwn) {
  start_server();
  const int thread = call(0x400);
  std::thread caller([] { call(0x403); });
  ASSERT_TRUE(eventually([] { return held.load(); }));
  const auto has_its_own = [thread] {
    const int own = call(0x400);
    return own > 0 && own != thread ? 0 : 1;
  };
  EXPECT_EQ(run_in_child(has_its_own), 0); // while a call is under way
  held = false;
  caller.join();
  EXPECT_EQ(call(0x400), thread);
}

TEST(Kram, ClientRecoversWhenTheServerIsStartedAgainBesideItsChild) {
  EXPECT_EQ(call(0x400), -1);
  pid_t children[2];
  for (int run = 0; run < 2; ++run) {
    const pid_t server = fork();
    if (server == 0) {
      start_server();
      for (;;)
        pause();
    }
    ASSERT_TRUE(eventually([] { return bool(dial()); }));
    if (run != 0) { // the connection of the first run
      EXPECT_EQ(call(0x400), -1);
    }
    children[run] = call(0x404);
    EXPECT_GT(children[run], 0);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
  }
  for (const pid_t child : children)
    kill(child, SIGKILL);
}

TEST(Kram, ReplyWithALengthBeyond32BitsIsRefused) {
  const sockaddr_in address = vorn::kram::server_address();
  const vorn::UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
  const int on = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  std::thread server([&] {
    const vorn::UniqueFd peer(accept(listener.get(), nullptr, nullptr));
    const std::string reply = bytes_of(WireHeader{0x400, 0, 1ull << 32, 0, 9});
    send(peer.get(), reply.data(), reply.size(), 0);
    EXPECT_EQ(read_all(peer.get()), message(0x400, "")); // up to the end of the connection
  });
  EXPECT_EQ(call(0x400), -1);
  server.join();
}

// Each connects and waits for an answer before the next does: more than wait in the listener's
// queue would have the system try again after a second.
TEST(Kram, ThousandConnectionsLeaveNothingBehind) {
  const auto entries = [](const char *of) {
    return std::distance(std::filesystem::directory_iterator(of), {});
  };
  start_server();
  ASSERT_GT(call(0x400), 0);
  std::this_thread::sleep_for(200ms); // for what comes and goes at a start
  const auto descriptors = entries("/proc/self/fd");
  const auto tasks = entries("/proc/self/task");
  {
    const vorn::UniqueFd silent = dial();
    const vorn::UniqueFd slow = dial();
    send(slow.get(), "slow", 4, 0);
    for (int i = 0; i < 500; ++i) {
      const vorn::UniqueFd leaves_in_a_message = dial();
      send(leaves_in_a_message.get(), "half", 4, 0);
      const vorn::UniqueFd leaves_unanswered = dial();
      const std::string request = message(0x400, "");
      send(leaves_unanswered.get(), request.data(), request.size(), 0);
      char reply = 0;
      ASSERT_EQ(recv(leaves_unanswered.get(), &reply, 1, 0), 1);
      if (i % 10 == 0) {
        ASSERT_GT(call(0x400), 0);
      }
    }
  }
  EXPECT_TRUE(eventually([&] {
    return entries("/proc/self/task") <= tasks && entries("/proc/self/fd") <= descriptors;
  }));
}

TEST(Kram, ListenerEndsWithoutThreadsAndClosesSurplusConnections) {
  threads = kRefuse;
  EXPECT_EQ(KRAM_PrivateSysCallInit(), -1);
  const std::vector<std::string> want = {"creat syscall thrd failed, ret = -1.\n",
                                         "Initial syscall interface fail."};
  EXPECT_EQ(capture::take_texts(), want);
  threads = kStart;
  start_server();
  capture::take();
  threads = kRefuse;
  EXPECT_EQ(read_all(dial().get()), "");
  EXPECT_TRUE(eventually([] { return !dial(); }));
  EXPECT_EQ(capture::take_texts().front(), want[0]);
  threads = kStart;
  start_server();
  threads = kForget;
  for (int i = 0; i < 513; ++i)
    ASSERT_EQ(read_all(dial().get()), "");
  EXPECT_EQ(capture::take_texts().back(), "512 connections are open, another is closed.");
}

} // namespace
