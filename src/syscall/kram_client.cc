// Implements the client of private calls: one connection to the server, which it keeps between
// calls.
//
// The server may have closed a kept connection since the last call, by an eviction or a restart.
// The call then opens another connection and sends its request again, but only if the server cannot
// have carried it out, so that it carries out no request twice:
//
//   - The send failed: the server does not have the whole request, and carries out only whole
//     requests.
//   - The connection was reset before the first byte of the reply. The system resets a connection
//     that is closed with unread bytes, and the server resets a connection that it evicts. Neither
//     happens while the server carries a request out: it has read the whole request by then, and
//     the client sends no other before the reply. If the server is killed meanwhile, the connection
//     ends without a reset.
//   - The connection ended before the first byte of the reply, and part of the request is not
//     acknowledged. The end of the connection acknowledges all that the server could read.
//
// Any other end of the connection is an error: the server may have carried out the request. A call
// does not test before it sends whether the connection has ended: one of these then holds.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "kram_syscall_linux_user.c"
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

// Allows one call at a time: the caller holds it while the server carries the call out.
constinit UngatedMutex call_mutex;

// The socket of the connection, or -1. A thread opens and closes it under the gated mutex too,
// which fork() waits for: a child finds each socket here or closed.
constinit int connection = -1;
constinit Mutex connection_mutex;

void disconnect() {
  const MutexGuard hold{connection_mutex};
  const UniqueFd closed(std::exchange(connection, -1));
}

// The connection belongs to the parent, and so does the thread that holds the mutex.
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

enum class Outcome {
  kAnswered,
  kFailed,        // the connection must be closed; a failure was logged
  kNotCarriedOut, // on a kept connection, and not logged
};

bool send_all(const WireHeader &header, const void *input, bool is_kept) {
  if (send_message(connection, header, input, nullptr)) return true;
  if (!is_kept) VORN_LOG(kError, "errno = %d\n", errno);
  return false;
}

// length is the number of bytes that were still missing.
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

// Called if the first receive for a reply returns 0 or less. The opening comment of this source
// argues why.
bool cannot_be_carried_out(ssize_t first) {
  return first < 0 ? errno == ECONNRESET : sys::unacknowledged(connection) > 0;
}

// The first piece of a reply, which usually is the whole reply.
struct Reply {
  WireHeader header;
  char payload[KRAM_SYSCALL_BUFFER_SIZE];
};
static_assert(offsetof(Reply, payload) == sizeof(WireHeader));

// Sets *early to the number of bytes that follow the header in the same piece.
Outcome receive_header(Reply &reply, std::size_t *early, bool is_kept) {
  auto *at = reinterpret_cast<char *>(&reply);
  const ssize_t first = receive_piece(connection, at, kMessageSize, nullptr);
  if (first <= 0) {
    if (is_kept && cannot_be_carried_out(first)) return Outcome::kNotCarriedOut;
    receive_failed(first, at, sizeof reply.header);
    return Outcome::kFailed;
  }
  const std::size_t size = std::max(static_cast<std::size_t>(first), sizeof reply.header);
  *early = size - sizeof reply.header;
  const std::size_t rest = size - static_cast<std::size_t>(first);
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

// Returns false if the connection is no longer usable: after a failure, or if the server has sent
// bytes that were not requested.
bool receive_payload(const Reply &reply, std::size_t early, kram_request_s &request, int &result) {
  const WireHeader &header = reply.header;
  const std::size_t here = std::min<std::uint64_t>(early, header.length);
  if (header.length > request.output_length) {
    VORN_LOG_AS(kFunction, kError,
                "syscall_user: buffer length too small, hdr.len=%d uiOutBufLen=%u",
                static_cast<int>(header.length), request.output_length);
    return header.length <= kMaxReply && discard(header.length - here) && here == early;
  }
  char *rest = std::copy_n(reply.payload, here, static_cast<char *>(request.output));
  if (!recv_all(rest, header.length - here)) return false;
  request.output_length = static_cast<std::uint32_t>(header.length);
  result = static_cast<int>(header.result);
  return here == early;
}

Outcome call(std::uint32_t command, kram_request_s &request, int &result, bool is_kept) {
  const WireHeader header{command, 0, request.input_length, request.output_length, 0};
  if (!send_all(header, request.input, is_kept)) {
    if (is_kept) return Outcome::kNotCarriedOut;
    return VORN_FAIL_AS(kFunction, Outcome::kFailed, "send_all fail\n");
  }
  Reply reply;
  std::size_t early = 0;
  const Outcome outcome = receive_header(reply, &early, is_kept);
  if (outcome != Outcome::kAnswered) return outcome;
  return receive_payload(reply, early, request, result) ? Outcome::kAnswered : Outcome::kFailed;
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
  if (connection >= 0) outcome = call(command, *request, result, true);
  if (outcome == Outcome::kNotCarriedOut) {
    disconnect();
    if (!init_syscall_socket()) return -1;
    outcome = call(command, *request, result, false);
  }
  if (outcome != Outcome::kAnswered) disconnect();
  return result;
}
