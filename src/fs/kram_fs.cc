#include "kram_fs.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "base/log.hpp"
#include "base/mutex.hpp"
#include "base/unique_fd.hpp"
#include "fileops/block.hpp"

namespace vorn::fs {
namespace {

constexpr int kProtocol = 28;
constexpr unsigned int kGroup = 1;
constexpr std::size_t kHeaderSize = NLMSG_HDRLEN;
constexpr std::size_t kMessageSize = kHeaderSize + KRAM_EXT3_EVENT_SIZE;
static_assert(kMessageSize == 72);

// The listeners, which stand on the stacks of their threads. Closing a socket does not wake whoever
// is blocked in it, and netlink knows no shutdown(2). So a listener receives from a duplicate of
// its own, the number of which is nobody else's, and waits for a wake-up beside it.
class Listener {
public:
  // Binds the socket as well. errno tells why where it cannot.
  Listener(int socket, int id);
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;
  ~Listener();

  bool is_bound() const { return is_bound_; }
  bool is_ready() const { return own_ && wake_; }

  // The next message: its length, 0 behind it up to the end of message. 0 or -1 with errno at the
  // end, EBADF when the socket is released.
  ssize_t receive(char *message);

  // Closes the socket, and ends those who listen on it.
  static void release(int socket);

  // In a child of fork(), which shares the wake-ups with its parent.
  static void end_all_in_child();

private:
  bool wait();

  const int socket_;
  bool is_bound_ = false;
  UniqueFd own_;
  UniqueFd wake_; // readable once the socket is released
  Listener *next_ = nullptr;
};

// A listener binds and joins the list under the mutex, a release wakes and closes under it: whoever
// comes second sees what the first has done.
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
  own_ = UniqueFd(fcntl(socket, F_DUPFD_CLOEXEC, 0));
  if (own_) wake_ = UniqueFd(eventfd(0, EFD_CLOEXEC));
  next_ = listeners;
  listeners = this;
}

Listener::~Listener() {
  const MutexGuard hold{mutex};
  Listener **at = &listeners;
  while (*at != nullptr && *at != this)
    at = &(*at)->next_;
  if (*at == this) *at = next_;
}

void Listener::release(int socket) {
  const MutexGuard hold{mutex};
  for (const Listener *at = listeners; at != nullptr; at = at->next_) {
    if (at->socket_ == socket) eventfd_write(at->wake_.get(), 1);
  }
  close(socket);
}

void Listener::end_all_in_child() {
  for (Listener *at = listeners; at != nullptr; at = at->next_) {
    at->own_ = UniqueFd();
    at->wake_ = UniqueFd();
  }
  listeners = nullptr;
  mutex.unlock();
}

[[gnu::constructor]] void watch_forks() {
  pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, Listener::end_all_in_child);
}

// True when there may be a message.
bool Listener::wait() {
  if (!is_ready()) { // this thread has forked, and is the child's
    errno = EBADF;
    return false;
  }
  pollfd waiting[] = {{wake_.get(), POLLIN, 0}, {own_.get(), POLLIN, 0}};
  if (poll(waiting, 2, -1) < 0) return errno == EINTR;
  if (waiting[0].revents == 0) return true;
  errno = EBADF;
  return false;
}

ssize_t Listener::receive(char *message) {
  std::memset(message, 0, kMessageSize);
  while (wait()) {
    const ssize_t length = recv(own_.get(), message, kMessageSize, MSG_DONTWAIT);
    if (length >= 0 || (errno != EAGAIN && errno != EINTR)) return length;
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

int KRAM_Netlink_ext3_create() {
  const int sockfd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, vorn::fs::kProtocol);
  if (sockfd >= 0) return sockfd;
  const int error = errno;
  return VORN_FAIL(-1, "KRAM_Netlink_ext3_create failed, sockfd:%d, errno:%d,%s.", sockfd, error,
                   std::strerror(error));
}

int KRAM_Netlink_ext3_listen(int socket, int id, kram_ext3_event_f callback) {
  if (socket < 0) return -2;
  if (id < 1) return -7;
  if (callback == nullptr) return -3;
  vorn::fs::Listener listener(socket, id);
  if (!listener.is_bound()) return -4;
  if (!listener.is_ready()) return -5;
  const auto message = vorn::fileops::allocate_block(vorn::fs::kMessageSize);
  if (message == nullptr) return -5;
  ssize_t length = 0;
  while ((length = listener.receive(message.get())) > 0) {
    if (vorn::fs::is_event(message.get())) callback(message.get() + vorn::fs::kHeaderSize);
  }
  return length < 0 && errno == EBADF ? 0 : -6;
}

void KRAM_Netlink_ext3_release(int socket) {
  if (socket >= 0) vorn::fs::Listener::release(socket);
}
