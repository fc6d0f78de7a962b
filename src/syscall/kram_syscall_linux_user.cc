#include "kram_syscall.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/log.hpp"
#include "base/mutex.hpp"
#include "syscall/kram_wire.hpp"

namespace vorn::kram {
namespace {

static_assert(offsetof(kram_request_s, input_length) == 0);
static_assert(offsetof(kram_request_s, output_length) == 4);
static_assert(offsetof(kram_request_s, input) == 8);
static_assert(offsetof(kram_request_s, output) == 16);
static_assert(sizeof(kram_request_s) == 24);

// One call at a time.
constinit Mutex mutex;

// The socket, -1 for none. Changed under the mutex, but in a child of fork().
constinit std::atomic<int> connection{-1};

// The number is given up first: a child of fork() must not close what it stands for by then.
void disconnect() {
  const int socket = connection.exchange(-1);
  if (socket >= 0) close(socket);
}

// The connection is the parent's, and so is whoever holds the mutex.
void start_anew_in_child() {
  new (&mutex) Mutex;
  disconnect();
}

[[gnu::constructor]] void watch_forks() { pthread_atfork(nullptr, nullptr, start_anew_in_child); }

void init_syscall_socket() {
  const sockaddr_in address = server_address();
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket >= 0 &&
      connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
    set_no_delay(socket);
    connection = socket;
    return;
  }
  const int error = errno;
  VORN_LOG(kError, "errno = %d\n", error);
  if (socket >= 0) close(socket);
}

bool send_all(int socket, const WireHeader &header, const void *input) {
  if (send_message(socket, header, input, {})) return true;
  const int error = errno;
  return VORN_FAIL(false, "errno = %d\n", error);
}

bool recv_all(int socket, void *buffer, std::size_t length) {
  auto *at = static_cast<char *>(buffer);
  while (length != 0) {
    const ssize_t piece = receive_piece(socket, at, length, {});
    if (piece <= 0) {
      const int error = piece == 0 ? 0 : errno;
      return VORN_FAIL(false, "recv error, err=%d, buf=%p, len=%d", error, static_cast<void *>(at),
                       static_cast<int>(length));
    }
    at += piece;
    length -= static_cast<std::size_t>(piece);
  }
  return true;
}

bool discard(int socket, std::uint64_t length) {
  char piece[16];
  while (length != 0) {
    const std::size_t step = std::min<std::uint64_t>(length, sizeof piece);
    if (!recv_all(socket, piece, step)) return false;
    length -= step;
  }
  return true;
}

// False: the connection is of no more use.
bool call(int socket, std::uint32_t command, kram_request_s &request, int &result) {
  WireHeader header{command, 0, request.input_length, request.output_length, 0};
  if (!send_all(socket, header, request.input))
    return VORN_FAIL_AS("KRAM_SysCall", false, "send_all fail\n");
  if (!recv_all(socket, &header, sizeof header)) return false;
  if (header.length > request.output_length) {
    VORN_LOG_AS("KRAM_SysCall", kError,
                "syscall_user: buffer length too small, hdr.len=%d uiOutBufLen=%u",
                static_cast<int>(header.length), request.output_length);
    result = -1;
    return header.length <= kMaxReply && discard(socket, header.length);
  }
  if (!recv_all(socket, request.output, header.length)) return false;
  request.output_length = static_cast<std::uint32_t>(header.length);
  result = static_cast<int>(header.result);
  return true;
}

bool is_complete(const kram_request_s *request) {
  return request != nullptr && (request->input != nullptr || request->input_length == 0) &&
         (request->output != nullptr || request->output_length == 0);
}

} // namespace
} // namespace vorn::kram

int KRAM_SysCall(uint32_t command, kram_request_s *request) {
  using namespace vorn::kram;
  if (!is_complete(request)) return VORN_FAIL(-1, "Param 2 or a buffer of it is NULL.");
  const vorn::MutexGuard hold{mutex};
  if (connection < 0) init_syscall_socket();
  if (connection < 0) return -1;
  int result = -1;
  if (!call(connection, command, *request, result)) {
    disconnect();
    return -1;
  }
  return result;
}
