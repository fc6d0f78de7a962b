// Declares the messages between a client of private calls and the server: a header and a payload
// for each request and each reply, in host byte order, since they do not leave the machine.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYSCALL_KRAM_WIRE_HPP
#define VORN_SYSCALL_KRAM_WIRE_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <netinet/in.h>
#include <sys/types.h>

#include "kram_syscall.h"

namespace vorn::kram {

struct WireHeader {
  std::uint32_t command;
  std::uint32_t reserved; // 0
  std::uint64_t length;   // of the payload that follows
  std::uint64_t capacity; // the client's room for the reply's payload; a reply repeats it
  std::int64_t result;    // the handler's; 0 in a request
};
static_assert(offsetof(WireHeader, command) == 0);
static_assert(offsetof(WireHeader, reserved) == 4);
static_assert(offsetof(WireHeader, length) == 8);
static_assert(offsetof(WireHeader, capacity) == 16);
static_assert(offsetof(WireHeader, result) == 24);
static_assert(sizeof(WireHeader) == 32);

// The room for a message with the longest payload of a server of private calls. Both ends receive
// as much as that at once: a message usually arrives in one piece.
inline constexpr std::size_t kMessageSize = sizeof(WireHeader) + KRAM_SYSCALL_BUFFER_SIZE;

// A reply with a longer payload does not come from a server of private calls.
inline constexpr std::uint64_t kMaxReply = 0x100000;

// The time limit of the transfer of a message. The time begins at the first wait, so a message that
// is transferred without one costs no reading of the clock.
class TimeLimit {
public:
  explicit TimeLimit(std::chrono::milliseconds limit) : limit_(limit) {}

  // Returns the end of the time on CLOCK_MONOTONIC.
  const timespec &deadline();

private:
  std::chrono::milliseconds limit_;
  bool begun_ = false;
  timespec deadline_{};
};

sockaddr_in server_address();

// Makes the system send small messages at once.
void set_no_delay(int socket);

// Receives the next piece of a message, at most length bytes. Returns its length, or 0 at the end
// of the connection. On failure returns -1 with errno, ETIMEDOUT after the time limit (NULL for no
// limit).
ssize_t receive_piece(int socket, void *buffer, std::size_t length, TimeLimit *limit);

// Sends a header with its payload, by one system call if the socket has room. Returns false with
// errno on failure, as above.
bool send_message(int socket, const WireHeader &header, const void *payload, TimeLimit *limit);

} // namespace vorn::kram

#endif
