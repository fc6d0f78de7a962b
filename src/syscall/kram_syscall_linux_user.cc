// The client of private calls: one connection to the server, which is kept from call to call.
//
// The server may have closed a kept connection since the last call, because it evicted it or was
// started again. The call then opens another and sends its request once more, but only where the
// server cannot have carried it out, so that no request is ever carried out twice:
//
//   - The connection was closed before anything was sent.
//   - The send failed: the server has not got the whole request, and carries out whole ones only.
//   - The connection was reset before a byte of the reply came. The system resets one that is
//     closed with unread bytes, and the server resets one that it evicts. Neither happens while a
//     request is carried out: the server has read it to its end by then, and there is no other,
//     since a client sends the next request after it has the reply. A server that is killed while
//     it carries a request out ends the connection, and does not reset it.
//   - The connection ended before a byte of the reply came, and part of the request is not
//     acknowledged. What ends the connection acknowledges all that the server could read.
//
// An end of the connection otherwise is an error: the request may have been carried out.
#include "kram_syscall.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "base/mutex.hpp"
#include "base/system.hpp"
#include "syscall/kram_wire.hpp"

namespace vorn::kram {
namespace {

static_assert(offsetof(kram_request_s, input_length) == 0);
static_assert(offsetof(kram_request_s, output_length) == 4);
static_assert(offsetof(kram_request_s, input) == 8);
static_assert(offsetof(kram_request_s, output) == 16);
static_assert(sizeof(kram_request_s) == 24);

constexpr char kFunction[] = "KRAM_SysCall";

// One call at a time: held while the server carries it out.
constinit UngatedMutex call_mutex;

// The connection's, -1 for none. It is opened and closed under the other mutex as well, which keeps
// fork() off: a child finds each socket here or closed.
constinit int connection = -1;
constinit Mutex connection_mutex;

void disconnect() {
  const MutexGuard hold{connection_mutex};
  const UniqueFd closed(std::exchange(connection, -1));
}

// The connection is the parent's, and so is the thread that holds the mutex.
const ForkChild start_anew{[] {
  call_mutex.renew();
  disconnect();
}};

bool open_socket() {
  const MutexGuard hold{connection_mutex};
  connection = sys::socket(AF_INET, SOCK_STREAM, 0).release();
  return connection >= 0;
}

bool init_syscall_socket() {
  const sockaddr_in address = server_address();
  if (!open_socket() ||
      !sys::connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof address)) {
    VORN_LOG(kError, "errno = %d\n", errno);
    disconnect();
    return false;
  }
  set_no_delay(connection);
  return true;
}

// False: the server has closed it, or has sent what was not asked for.
bool is_connected() {
  char byte = 0;
  return connection >= 0 && sys::receive(connection, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
         errno == EAGAIN;
}

enum class Outcome {
  kAnswered,
  kFailed,        // after a log message
  kNotCarriedOut, // of a kept connection, and without one
};

bool send_all(const WireHeader &header, const void *input, bool is_kept) {
  if (send_message(connection, header, input, nullptr)) return true;
  if (!is_kept) VORN_LOG(kError, "errno = %d\n", errno);
  return false;
}

// length is what was still to come at that place.
bool receive_failed(ssize_t piece, void *at, std::size_t length) {
  return VORN_FAIL_AS("recv_all", false, "recv error, err=%d, buf=%p, len=%d",
                      piece == 0 ? 0 : errno, at, static_cast<int>(length));
}

bool recv_all(void *buffer, std::size_t length) {
  auto *at = static_cast<char *>(buffer);
  while (length != 0) {
    const ssize_t piece = receive_piece(connection, at, length, nullptr);
    if (piece <= 0) return receive_failed(piece, at, length);
    at += piece;
    length -= static_cast<std::size_t>(piece);
  }
  return true;
}

// After the first receive for a reply, whose result is not above 0. The start of this source says
// why.
bool cannot_be_carried_out(ssize_t first) {
  return first < 0 ? errno == ECONNRESET : sys::unacknowledged(connection) > 0;
}

Outcome receive_header(WireHeader &header, bool is_kept) {
  auto *at = reinterpret_cast<char *>(&header);
  const ssize_t first = receive_piece(connection, at, sizeof header, nullptr);
  if (first <= 0) {
    if (is_kept && cannot_be_carried_out(first)) return Outcome::kNotCarriedOut;
    receive_failed(first, at, sizeof header);
    return Outcome::kFailed;
  }
  const auto rest = sizeof header - static_cast<std::size_t>(first);
  return recv_all(at + first, rest) ? Outcome::kAnswered : Outcome::kFailed;
}

bool discard(std::uint64_t length) {
  char piece[16];
  while (length != 0) {
    const std::size_t step = std::min<std::uint64_t>(length, sizeof piece);
    if (!recv_all(piece, step)) return false;
    length -= step;
  }
  return true;
}

// False: the connection is of no more use.
bool receive_payload(const WireHeader &header, kram_request_s &request, int &result) {
  if (header.length > request.output_length) {
    VORN_LOG_AS(kFunction, kError,
                "syscall_user: buffer length too small, hdr.len=%d uiOutBufLen=%u",
                static_cast<int>(header.length), request.output_length);
    return header.length <= kMaxReply && discard(header.length);
  }
  if (!recv_all(request.output, header.length)) return false;
  request.output_length = static_cast<std::uint32_t>(header.length);
  result = static_cast<int>(header.result);
  return true;
}

Outcome call(std::uint32_t command, kram_request_s &request, int &result, bool is_kept) {
  WireHeader header{command, 0, request.input_length, request.output_length, 0};
  if (!send_all(header, request.input, is_kept)) {
    if (is_kept) return Outcome::kNotCarriedOut;
    return VORN_FAIL_AS(kFunction, Outcome::kFailed, "send_all fail\n");
  }
  const Outcome outcome = receive_header(header, is_kept);
  if (outcome != Outcome::kAnswered) return outcome;
  return receive_payload(header, request, result) ? Outcome::kAnswered : Outcome::kFailed;
}

bool is_complete(const kram_request_s *request) {
  return request != nullptr && (request->input != nullptr || request->input_length == 0) &&
         (request->output != nullptr || request->output_length == 0);
}

} // namespace
} // namespace vorn::kram

using namespace vorn::kram;

int KRAM_SysCall(uint32_t command, kram_request_s *request) {
  if (!is_complete(request)) return VORN_FAIL(-1, "Param 2 or a buffer of it is NULL.");
  const vorn::MutexGuard hold{call_mutex};
  int result = -1;
  Outcome outcome = Outcome::kNotCarriedOut;
  if (is_connected()) outcome = call(command, *request, result, true);
  if (outcome == Outcome::kNotCarriedOut) {
    disconnect();
    if (!init_syscall_socket()) return -1;
    outcome = call(command, *request, result, false);
  }
  if (outcome != Outcome::kAnswered) disconnect();
  return result;
}
