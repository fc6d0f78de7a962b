// Transfers the messages between a client of private calls and the server.
// SPDX-License-Identifier: Apache-2.0
#include "syscall/kram_wire.hpp"

#include <algorithm>
#include <cerrno>
#include <netinet/tcp.h>
#include <sys/uio.h>

#include "base/system.hpp"
#include "kram_syscall.h"

namespace vorn::kram {
namespace {

// Tries first: a message that was sent in one piece usually arrives in one, without a wait.
template <class Transfer>
ssize_t transfer_until(int socket, short events, const timespec *deadline, Transfer transfer) {
  for (;;) {
    const ssize_t length = transfer(deadline != nullptr ? MSG_DONTWAIT : 0);
    if (length >= 0 || deadline == nullptr || errno != EAGAIN) return length;
    pollfd waiting{socket, events, 0};
    const int ready = sys::poll(&waiting, 1, deadline);
    if (ready == 0) errno = ETIMEDOUT;
    if (ready <= 0) return -1;
  }
}

// Removes the sent bytes from the parts.
void advance(iovec (&parts)[2], std::size_t sent) {
  for (iovec &part : parts) {
    const std::size_t step = std::min(sent, part.iov_len);
    part.iov_base = static_cast<char *>(part.iov_base) + step;
    part.iov_len -= step;
    sent -= step;
  }
}

} // namespace

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

ssize_t receive_piece(int socket, void *buffer, std::size_t length, const timespec *deadline) {
  return transfer_until(socket, POLLIN, deadline,
                        [=](int flags) { return sys::receive(socket, buffer, length, flags); });
}

bool send_message(int socket, const WireHeader &header, const void *payload,
                  const timespec *deadline) {
  iovec parts[2] = {{const_cast<WireHeader *>(&header), sizeof header},
                    {const_cast<void *>(payload), header.length}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  while (parts[0].iov_len + parts[1].iov_len != 0) {
    const ssize_t sent = transfer_until(
        socket, POLLOUT, deadline, [&](int flags) { return sys::send(socket, message, flags); });
    if (sent < 0) return false;
    advance(parts, static_cast<std::size_t>(sent));
  }
  return true;
}

} // namespace vorn::kram
