#include "kram_syscall.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/log.hpp"
#include "base/ratelimit.hpp"
#include "fileops/block.hpp"
#include "syscall/kram_server.hpp"
#include "syscall/kram_wire.hpp"
#include "vorn_thrd.h"

namespace vorn::kram {
namespace {

using std::chrono::steady_clock;

constexpr int kBacklog = 10;
constexpr unsigned int kMaxConnections = 512;
constexpr std::chrono::seconds kMessageTime{10};
constexpr unsigned int kBufferSize = KRAM_SYSCALL_BUFFER_SIZE;

// A socket of the server, -1 for none.
class Endpoint {
public:
  int get() const { return socket_; }
  bool claim(int socket) {
    int none = -1;
    return socket_.compare_exchange_strong(none, socket);
  }
  // Gives the number up first: a child of fork() must not close what it stands for by then.
  void end() {
    const int socket = socket_.exchange(-1);
    if (socket >= 0) close(socket);
  }

private:
  std::atomic<int> socket_{-1};
};

constinit Endpoint listener;
constinit Endpoint connections[kMaxConnections];

// A child of fork() has none of the threads. Its copies would keep the port from a server that is
// started again, and the peers of a server that has ended waiting.
void close_in_child() {
  listener.end();
  for (Endpoint &connection : connections)
    connection.end();
}

[[gnu::constructor]] void watch_forks() { pthread_atfork(nullptr, nullptr, close_in_child); }

Endpoint *claim_connection(int socket) {
  auto *free = std::find_if(std::begin(connections), std::end(connections),
                            [socket](Endpoint &connection) { return connection.claim(socket); });
  return free != std::end(connections) ? free : nullptr;
}

void acknowledge_quickly(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

bool receive(int socket, void *buffer, std::size_t length, const Deadline &deadline) {
  auto *at = static_cast<char *>(buffer);
  while (length != 0) {
    const ssize_t piece = receive_piece(socket, at, length, deadline);
    if (piece <= 0) {
      const int error = piece == 0 ? 0 : errno;
      VORN_LOG_RATELIMITED(kError, "recv error, err=%d, buf=%p, len=%d", error,
                           static_cast<void *>(at), static_cast<int>(length));
      return false;
    }
    acknowledge_quickly(socket);
    at += piece;
    length -= static_cast<std::size_t>(piece);
  }
  return true;
}

// A message's time runs from its first byte on. Whoever leaves before that is not worth a record.
bool receive_request(int socket, WireHeader &header, char *input,
                     std::chrono::milliseconds time_limit) {
  auto *at = reinterpret_cast<char *>(&header);
  const ssize_t first = receive_piece(socket, at, sizeof header, {});
  if (first <= 0) return false;
  acknowledge_quickly(socket);
  const Deadline deadline = steady_clock::now() + time_limit;
  if (!receive(socket, at + first, sizeof header - static_cast<std::size_t>(first), deadline))
    return false;
  if (header.length > kBufferSize)
    return VORN_FAIL(false, "hdr.cmd=%x, hdr.len = %lu\n", header.command, header.length);
  return receive(socket, input, header.length, deadline);
}

// Makes the request's header the reply's.
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

bool send_reply(int socket, const WireHeader &header, const char *output,
                std::chrono::milliseconds time_limit) {
  if (header.length > kBufferSize)
    return VORN_FAIL(false, "hdr.cmd=%x, hdr.len = %lu\n", header.command, header.length);
  if (send_message(socket, header, output, steady_clock::now() + time_limit)) return true;
  const int error = errno;
  VORN_LOG_RATELIMITED(kError, "errno = %d\n", error);
  return false;
}

void *syscall_do_thr(void *argument) {
  vorn_thrd_setname("syscall_do_thr");
  auto &connection = *static_cast<Endpoint *>(argument);
  serve(connection.get(), kMessageTime);
  connection.end();
  return nullptr;
}

// False: no thread can be had.
bool start_connection(Endpoint &connection) {
  set_no_delay(connection.get());
  const int result = create_thread_nopreempt_raw(syscall_do_thr, &connection, nullptr);
  if (result == 0) return true;
  connection.end();
  return VORN_FAIL(false, "creat syscall thrd failed, ret = %d.\n", result);
}

// False after a record.
bool listen_on_loopback(int socket) {
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = server_address();
  if (bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
    return VORN_FAIL(false, "Bind socket %d fail!", socket);
  if (listen(socket, kBacklog) == 0) return true;
  const int error = errno;
  return VORN_FAIL(false, "Listen socket %d fail!, error is %d.\n", socket, error);
}

void accept_connections() {
  for (;;) {
    const int socket = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) {
      const int error = errno;
      if (error == EINTR) continue;
      VORN_LOG(kError, "accept errno = %d\n", error);
      return;
    }
    Endpoint *connection = claim_connection(socket);
    if (connection == nullptr) {
      VORN_LOG_RATELIMITED(kError, "%u connections are open, another is closed.", kMaxConnections);
      close(socket);
      continue;
    }
    if (!start_connection(*connection)) return;
  }
}

void *syscall_thr(void *) {
  vorn_thrd_setname("syscall_thr");
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0) return VORN_FAIL(nullptr, "Create socket %d fail!.\n", socket);
  if (!listen_on_loopback(socket) || !listener.claim(socket)) {
    close(socket);
    return nullptr;
  }
  accept_connections();
  listener.end();
  return nullptr;
}

} // namespace

void serve(int socket, std::chrono::milliseconds time_limit) {
  const fileops::Block input = fileops::allocate_block(kBufferSize);
  const fileops::Block output = fileops::allocate_block(kBufferSize);
  if (input == nullptr || output == nullptr) return; // the allocator has logged it
  std::memset(output.get(), 0, kBufferSize); // a handler may tell a length that it did not fill
  WireHeader header;
  do {
    if (!receive_request(socket, header, input.get(), time_limit)) return;
    execute(header, input.get(), output.get());
  } while (send_reply(socket, header, output.get(), time_limit));
}

} // namespace vorn::kram

int KRAM_PrivateSysCallIntfInit() {
  const int result = create_thread_nopreempt_raw(vorn::kram::syscall_thr, nullptr, nullptr);
  if (result == 0) return 0;
  return VORN_FAIL(-1, "creat syscall thrd failed, ret = %d.\n", result);
}

void KRAM_PrivateSysCallIntfExit() {}

int KRAM_SyscallInit() { return 0; }
