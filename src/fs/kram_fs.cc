// Listens for events of file systems on netlink.
// SPDX-License-Identifier: Apache-2.0
#include "kram_fs.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <sys/time.h>

#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "base/mutex.hpp"
#include "base/system.hpp"
#include "base/timespec.hpp"
#include "mem/owned.hpp"

namespace vorn::fs {
namespace {

constexpr int kProtocol = 28;
constexpr unsigned int kGroup = 1;
constexpr std::size_t kHeaderSize = NLMSG_HDRLEN;
constexpr std::size_t kMessageSize = kHeaderSize + KRAM_EXT3_EVENT_SIZE;
static_assert(kMessageSize == 72);

// A listener, on the stack of its thread. Closing a socket does not wake a thread that is blocked
// in it, and netlink has no shutdown(2). So a listener receives from its own duplicate of the
// socket, whose number no other thread uses, and polls a wake-up descriptor too.
class Listener {
public:
  // Also binds the socket. On failure, errno tells why.
  Listener(int socket, int id);
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;
  ~Listener();

  bool is_bound() const { return is_bound_; }
  bool is_ready() const { return own_ && wake_; }

  // Receives the next message, fills the rest of message with zeros, and returns its length. At the
  // end returns 0, or -1 with errno: EBADF if the socket is released, EAGAIN after the receive
  // time-out.
  ssize_t receive(char *message);

  // Closes the socket and ends its listeners.
  static void release(int socket);

  // Called in a child of fork(), which shares the wake-up descriptors with its parent.
  static void end_all();

private:
  bool wait(const timespec *deadline);

  const int socket_;
  bool is_bound_ = false;
  UniqueFd own_;
  UniqueFd wake_; // readable once the socket is released
  Listener *next_ = nullptr;
};

// A listener binds and joins the list under the mutex. A release wakes and closes under it too. So
// the later of the two sees what the earlier one has done.
constinit Mutex mutex;
constinit Listener *listeners = nullptr;

bool bind_to_port(int socket, int id) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = static_cast<std::uint32_t>(id);
  address.nl_groups = kGroup;
  return bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

Listener::Listener(int socket, int id) : socket_(socket) {
  const MutexGuard hold{mutex};
  is_bound_ = bind_to_port(socket, id);
  if (!is_bound_) return;
  own_ = sys::duplicate(socket);
  if (own_) wake_ = sys::event();
  next_ = listeners;
  listeners = this;
}

// Closes its descriptors under the mutex too, so that a child finds them in the list or closed: a
// copy of the socket in a child would keep the port.
Listener::~Listener() {
  const MutexGuard hold{mutex};
  Listener **at = &listeners;
  while (*at != nullptr && *at != this)
    at = &(*at)->next_;
  if (*at == this) *at = next_;
  own_ = UniqueFd();
  wake_ = UniqueFd();
}

void Listener::release(int socket) {
  constexpr std::uint64_t kOnce = 1;
  const MutexGuard hold{mutex};
  for (const Listener *at = listeners; at != nullptr; at = at->next_) {
    if (at->socket_ == socket) sys::write(at->wake_.get(), &kOnce, sizeof kOnce);
  }
  const UniqueFd closed(socket);
}

void Listener::end_all() {
  for (Listener *at = listeners; at != nullptr; at = at->next_) {
    at->own_ = UniqueFd();
    at->wake_ = UniqueFd();
  }
  listeners = nullptr;
}

const ForkChild end_listeners{Listener::end_all};

// Reads the receive time-out that the caller has set on the socket. Returns false for no time-out.
bool time_limit(int socket, timespec *deadline) {
  timeval time{};
  socklen_t size = sizeof time;
  if (getsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, &size) != 0) return false;
  if (time.tv_sec == 0 && time.tv_usec == 0) return false;
  *deadline = monotonic_after(nanoseconds({time.tv_sec, time.tv_usec * 1000}));
  return true;
}

// Returns true if there may be a message.
bool Listener::wait(const timespec *deadline) {
  if (!is_ready()) { // the thread has forked and is in the child
    errno = EBADF;
    return false;
  }
  pollfd waiting[] = {{wake_.get(), POLLIN, 0}, {own_.get(), POLLIN, 0}};
  const int ready = sys::poll(waiting, 2, deadline);
  if (ready < 0) return false;
  if (ready > 0 && waiting[0].revents == 0) return true;
  errno = ready == 0 ? EAGAIN : EBADF;
  return false;
}

ssize_t Listener::receive(char *message) {
  std::memset(message, 0, kMessageSize);
  timespec deadline{};
  const bool is_limited = time_limit(own_.get(), &deadline);
  while (wait(is_limited ? &deadline : nullptr)) {
    const ssize_t length = sys::receive(own_.get(), message, kMessageSize, MSG_DONTWAIT);
    if (length >= 0 || errno != EAGAIN) return length;
  }
  return -1;
}

bool is_event(const char *message) {
  std::uint32_t tag = 0;
  std::memcpy(&tag, message + kHeaderSize, sizeof tag);
  return tag == KRAM_EXT3_EVENT_TAG;
}

} // namespace
} // namespace vorn::fs

using namespace vorn::fs;

int KRAM_Netlink_ext3_create() {
  vorn::UniqueFd sockfd = vorn::sys::socket(AF_NETLINK, SOCK_RAW, kProtocol);
  if (sockfd) return sockfd.release();
  return VORN_FAIL(-1, "KRAM_Netlink_ext3_create failed, sockfd:%d, errno:%d,%s.", sockfd.get(),
                   errno, std::strerror(errno));
}

int KRAM_Netlink_ext3_listen(int socket, int id, kram_ext3_event_f callback) {
  if (socket < 0) return -2;
  if (id < 1) return -7;
  if (callback == nullptr) return -3;
  const vorn::CancellationGuard off; // in the callback too: the listener is on this stack
  Listener listener(socket, id);
  if (!listener.is_bound()) return -4;
  if (!listener.is_ready()) return -5;
  const auto message = vorn::mem::allocate_block(kMessageSize);
  if (message == nullptr) return -5;
  ssize_t length = 0;
  while ((length = listener.receive(message.get())) > 0) {
    if (is_event(message.get())) callback(message.get() + kHeaderSize);
  }
  return length < 0 && errno == EBADF ? 0 : -6;
}

void KRAM_Netlink_ext3_release(int socket) {
  if (socket >= 0) Listener::release(socket);
}
