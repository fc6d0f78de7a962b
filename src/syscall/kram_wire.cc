#include "syscall/kram_wire.hpp"

#include <algorithm>
#include <cerrno>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "kram_syscall.h"

namespace vorn::kram {
namespace {

using Clock = std::chrono::steady_clock;

// False when the deadline has passed. True is no promise: the caller tries again.
bool wait_until(int socket, short events, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  if (left <= 0) {
    errno = ETIMEDOUT;
    return false;
  }
  pollfd waiting{socket, events, 0};
  return poll(&waiting, 1, static_cast<int>(left)) >= 0 || errno == EINTR;
}

// Tries first: what was sent in one piece is there in one, and takes no waiting.
template <class Transfer>
ssize_t transfer_until(int socket, short events, const Deadline &deadline, Transfer transfer) {
  for (;;) {
    const ssize_t length = transfer(deadline ? MSG_DONTWAIT : 0);
    if (length >= 0) return length;
    if (errno == EINTR) continue;
    if (!deadline || errno != EAGAIN || !wait_until(socket, events, *deadline)) return -1;
  }
}

// Takes what was sent off the parts.
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

ssize_t receive_piece(int socket, void *buffer, std::size_t length, const Deadline &deadline) {
  return transfer_until(socket, POLLIN, deadline,
                        [=](int flags) { return recv(socket, buffer, length, flags); });
}

bool send_message(int socket, const WireHeader &header, const void *payload,
                  const Deadline &deadline) {
  iovec parts[2] = {{const_cast<WireHeader *>(&header), sizeof header},
                    {const_cast<void *>(payload), header.length}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  while (parts[0].iov_len + parts[1].iov_len != 0) {
    const ssize_t sent = transfer_until(socket, POLLOUT, deadline, [&](int flags) {
      return sendmsg(socket, &message, flags | MSG_NOSIGNAL);
    });
    if (sent < 0) return false;
    advance(parts, static_cast<std::size_t>(sent));
  }
  return true;
}

} // namespace vorn::kram
