// Implements the server of private calls: a thread that accepts connections, and a thread for each
// connection.
//
// Locking. A thread changes the table of connections, and opens and closes the server's sockets,
// under the mutex, and does not wait there. So fork() finds each socket in the table or closed, and
// a child closes its copies of all of them.
//
// If the table is full, the accepting thread evicts the connection that has been idle longest, and
// stores the new socket as its successor. The thread of the evicted connection serves that next:
// the table always has as many threads as connections.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "kram_syscall_kernel.c"
#include "kram_syscall.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <netinet/tcp.h>
#include <utility>

#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "base/mutex.hpp"
#include "base/ratelimit.hpp"
#include "base/system.hpp"
#include "base/timespec.hpp"
#include "mem/owned.hpp"
#include "syscall/kram_server.hpp"
#include "syscall/kram_wire.hpp"
#include "vorn_thrd.h"

namespace vorn::kram {
namespace {

using std::chrono::milliseconds;

constexpr int kBacklog = 10;
constexpr unsigned int kMaxConnections = 512;
constexpr std::chrono::seconds kMessageTime{10};
constexpr unsigned int kBufferSize = KRAM_SYSCALL_BUFFER_SIZE;

// A slot of the table.
struct Connection {
  int socket = -1;    // -1 if the slot is free
  int successor = -1; // the socket that the thread of an evicted connection serves next
  Activity activity;
};

constinit Mutex mutex;
constinit int listener = -1;
constinit Connection connections[kMaxConnections] = {};

void close_socket(int &socket) { const UniqueFd closed(std::exchange(socket, -1)); }

// A child of fork() has none of the threads. Its copies of the sockets would keep the port from a
// restarted server, and keep the peers of an ended server waiting.
const ForkChild close_copies{[] {
  close_socket(listener);
  for (Connection &connection : connections) {
    close_socket(connection.socket);
    close_socket(connection.successor);
  }
}};

// Makes the system acknowledge at once what it has received. Done only while a message is not
// complete: its sender may wait for that before it sends the rest. The reply acknowledges a whole
// message.
void acknowledge_quickly(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

// What has been received of a request, and perhaps of later ones: a peer need not wait for a reply
// before it sends the next request.
struct Inbox {
  char bytes[kMessageSize];
  std::size_t size = 0;

  void drop(std::size_t length) {
    size -= length;
    std::memmove(bytes, bytes + length, size);
  }
};

// Receives until the inbox holds length bytes.
bool receive(int socket, Inbox &inbox, std::size_t length, TimeLimit &limit) {
  while (inbox.size < length) {
    acknowledge_quickly(socket);
    char *at = inbox.bytes + inbox.size;
    const ssize_t piece = receive_piece(socket, at, sizeof inbox.bytes - inbox.size, &limit);
    if (piece <= 0) {
      VORN_LOG_RATELIMITED(kError, "recv error, err=%d, buf=%p, len=%d", piece == 0 ? 0 : errno,
                           static_cast<void *>(at), static_cast<int>(length - inbox.size));
      return false;
    }
    inbox.size += static_cast<std::size_t>(piece);
  }
  return true;
}

// Waits for the first bytes of a request, without a time limit. Returns false if the peer has left.
bool receive_first(int socket, Inbox &inbox) {
  if (inbox.size != 0) return true;
  const ssize_t piece = receive_piece(socket, inbox.bytes, sizeof inbox.bytes, nullptr);
  if (piece <= 0) return false;
  inbox.size = static_cast<std::size_t>(piece);
  return true;
}

// The time limit of a message begins when the thread first waits for the rest of it. A peer that
// leaves before the first byte is not logged.
bool receive_request(int socket, Activity &activity, Inbox &inbox, WireHeader &header, char *input,
                     milliseconds time_limit) {
  if (!receive_first(socket, inbox) || !activity.become_busy()) return false;
  TimeLimit limit{time_limit};
  if (!receive(socket, inbox, sizeof header, limit)) return false;
  std::memcpy(&header, inbox.bytes, sizeof header);
  if (header.length > kBufferSize)
    return VORN_FAIL(false, "hdr.cmd=%x, hdr.len = %lu\n", header.command, header.length);
  const std::size_t size = sizeof header + header.length;
  if (!receive(socket, inbox, size, limit)) return false;
  std::memcpy(input, inbox.bytes + sizeof header, header.length);
  inbox.drop(size);
  return true;
}

// Turns the request's header into the reply's.
void execute(WireHeader &header, const char *input, char *output) {
  const kram_entry_s *entry = KRAM_FindSysCall(header.command);
  kram_call_s call{};
  call.input_length = static_cast<std::uint32_t>(header.length);
  call.output_capacity =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(header.capacity, kBufferSize));
  call.input = input;
  call.output = output;
  header.result = entry == nullptr ? -1 : entry->handler(header.command, &call);
  header.length = call.output_length;
  header.reserved = 0;
}

bool send_reply(int socket, const WireHeader &header, const char *output, milliseconds time_limit) {
  if (header.length > kBufferSize)
    return VORN_FAIL(false, "hdr.cmd=%x, hdr.len = %lu\n", header.command, header.length);
  TimeLimit limit{time_limit};
  if (send_message(socket, header, output, &limit)) return true;
  VORN_LOG_RATELIMITED(kError, "errno = %d\n", errno);
  return false;
}

// The server never carries out a request that arrives meanwhile. A reset of the connection tells
// its client so; an orderly end would mean that the server may have carried out the request. While
// the client's system has not received the whole last reply, a reset would lose the rest of it, so
// the connection then gets an orderly end.
void reset_when_closed(int socket) {
  if (sys::unacknowledged(socket) != 0) return;
  constexpr linger kDiscard{1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &kDiscard, sizeof kDiscard);
}

// Closes the served socket. Returns the next one to serve, or -1 if there is none and the slot is
// free.
int go_to_successor(Connection &connection) {
  const MutexGuard hold{mutex};
  if (connection.activity.is_evicted()) reset_when_closed(connection.socket);
  close_socket(connection.socket);
  connection.socket = std::exchange(connection.successor, -1);
  if (connection.socket >= 0) connection.activity.become_idle();
  return connection.socket;
}

void *syscall_do_thr(void *argument) {
  const CancellationGuard off; // in handlers too: a cancelled thread would keep its slot
  vorn_thrd_setname("syscall_do_thr");
  auto &connection = *static_cast<Connection *>(argument);
  for (int socket = connection.socket; socket >= 0; socket = go_to_successor(connection))
    serve(socket, connection.activity, kMessageTime);
  return nullptr;
}

// Returns false if no thread can be started.
bool start_connection(Connection &connection) {
  const int result = create_thread_nopreempt_raw(syscall_do_thr, &connection, nullptr);
  if (result == 0) return true;
  go_to_successor(connection);
  return VORN_FAIL(false, "creat syscall thrd failed, ret = %d.\n", result);
}

// Called under the mutex. Returns false if all connections are busy.
bool evict_longest_idle(int successor) {
  for (;;) {
    Connection *longest = nullptr;
    std::uint64_t since = Activity::kNotIdle;
    for (Connection &connection : connections) {
      const std::uint64_t its = connection.activity.idle_since();
      if (its >= since) continue;
      longest = &connection;
      since = its;
    }
    if (longest == nullptr) return false;
    if (!longest->activity.evict(since)) continue; // it has become busy
    longest->successor = successor;
    shutdown(longest->socket, SHUT_RD); // wakes its thread without telling the peer
    return true;
  }
}

// Returns false if no connection can be accepted any more. *place is the slot that needs a thread,
// or NULL.
bool accept_connection(Connection **place) {
  *place = nullptr;
  {
    const MutexGuard hold{mutex};
    UniqueFd socket = sys::accept(listener);
    if (!socket && errno == EAGAIN) return true; // the peer has left already
    if (!socket) return VORN_FAIL(false, "accept errno = %d\n", errno);
    set_no_delay(socket.get());
    auto *free = std::find_if(std::begin(connections), std::end(connections),
                              [](const Connection &at) { return at.socket < 0; });
    if (free != std::end(connections)) {
      free->socket = socket.release();
      free->activity.become_idle();
      *place = free;
      return true;
    }
    if (evict_longest_idle(socket.get())) {
      socket.release();
      return true;
    }
  }
  VORN_LOG_RATELIMITED(kError, "%u connections are open, another is closed.", kMaxConnections);
  return true;
}

void accept_connections() {
  Connection *place = nullptr;
  do {
    pollfd waiting{listener, POLLIN, 0};
    sys::poll(&waiting, 1, nullptr);
  } while (accept_connection(&place) && (place == nullptr || start_connection(*place)));
}

// On failure, logs an error and returns false.
bool listen_on_loopback(int socket) {
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = server_address();
  if (bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
    return VORN_FAIL(false, "Bind socket %d fail!", socket);
  if (listen(socket, kBacklog) == 0) return true;
  return VORN_FAIL(false, "Listen socket %d fail!, error is %d.\n", socket, errno);
}

bool open_listener() {
  const MutexGuard hold{mutex};
  UniqueFd socket = sys::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (!socket) return VORN_FAIL(false, "Create socket %d fail!.\n", socket.get());
  if (!listen_on_loopback(socket.get()) || listener >= 0) return false;
  listener = socket.release();
  return true;
}

void *syscall_thr(void *) {
  vorn_thrd_setname("syscall_thr");
  if (!open_listener()) return nullptr;
  accept_connections();
  const MutexGuard hold{mutex};
  close_socket(listener);
  return nullptr;
}

} // namespace

void Activity::become_idle() { word_.store(monotonic_nanoseconds(), std::memory_order_relaxed); }

bool Activity::become_busy() {
  std::uint64_t since = idle_since();
  return since < kNotIdle && word_.compare_exchange_strong(since, kBusy, std::memory_order_relaxed);
}

bool Activity::evict(std::uint64_t idle_since) {
  return word_.compare_exchange_strong(idle_since, kEvicted, std::memory_order_relaxed);
}

void serve(int socket, Activity &activity, milliseconds time_limit) {
  const mem::Block input = mem::allocate_block(kBufferSize);
  const mem::Block output = mem::allocate_block(kBufferSize);
  if (input == nullptr || output == nullptr) return; // the allocator has logged it
  std::memset(output.get(), 0, kBufferSize); // a handler may return a length that it has not filled
  Inbox inbox;
  WireHeader header;
  while (receive_request(socket, activity, inbox, header, input.get(), time_limit)) {
    execute(header, input.get(), output.get());
    if (!send_reply(socket, header, output.get(), time_limit)) return;
    activity.become_idle();
  }
}

} // namespace vorn::kram

using namespace vorn::kram;

int KRAM_PrivateSysCallIntfInit() {
  const int result = create_thread_nopreempt_raw(syscall_thr, nullptr, nullptr);
  if (result == 0) return 0;
  return VORN_FAIL(-1, "creat syscall thrd failed, ret = %d.\n", result);
}

void KRAM_PrivateSysCallIntfExit() {}

int KRAM_SyscallInit() { return 0; }
