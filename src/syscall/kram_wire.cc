// Transfers the messages between a client of private calls and the server.
// SPDX-License-Identifier: Apache-2.0
#include "syscall/kram_wire.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>

#include "base/system.hpp"
#include "base/timespec.hpp"

namespace vorn::kram {
namespace {

// Tries first: a message that was sent in one piece usually arrives in one, without a wait.
template <class Transfer>
ssize_t transfer_until(int socket, short events, TimeLimit *limit, Transfer transfer) {
  for (;;) {
    const ssize_t length = transfer(limit != nullptr ? MSG_DONTWAIT : 0);
    if (length >= 0 || limit == nullptr || errno != EAGAIN) return length;
    pollfd waiting{socket, events, 0};
    const int ready = sys::poll(&waiting, 1, &limit->deadline());
    if (ready == 0) errno = ETIMEDOUT;
    if (ready <= 0) return -1;
  }
}

bool send_bytes(int socket, const char *at, std::size_t length, TimeLimit *limit) {
  while (length != 0) {
    const ssize_t sent = transfer_until(
        socket, POLLOUT, limit, [=](int flags) { return sys::send(socket, at, length, flags); });
    if (sent < 0) return false;
    at += sent;
    length -= static_cast<std::size_t>(sent);
  }
  return true;
}

} // namespace

const timespec &TimeLimit::deadline() {
  if (!begun_)
    deadline_ =
        monotonic_after(static_cast<std::uint64_t>(std::chrono::nanoseconds(limit_).count()));
  begun_ = true;
  return deadline_;
}

sockaddr_in server_address() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(KRAM_SYSCALL_PORT);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void set_no_delay(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

ssize_t receive_piece(int socket, void *buffer, std::size_t length, TimeLimit *limit) {
  return transfer_until(socket, POLLIN, limit,
                        [=](int flags) { return sys::receive(socket, buffer, length, flags); });
}

// Copies what it sends first: the system takes one buffer faster than two.
bool send_message(int socket, const WireHeader &header, const void *payload, TimeLimit *limit) {
  const auto *from = static_cast<const char *>(payload);
  char first[kMessageSize];
  std::memcpy(first, &header, sizeof header);
  const auto here = std::min<std::uint64_t>(header.length, KRAM_SYSCALL_BUFFER_SIZE);
  std::copy_n(from, here, first + sizeof header);
  if (!send_bytes(socket, first, sizeof header + here, limit)) return false;
  return here == header.length || send_bytes(socket, from + here, header.length - here, limit);
}

} // namespace vorn::kram
