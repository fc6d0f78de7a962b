// Makes the system's calls in the forms that base/system.hpp declares.
// SPDX-License-Identifier: Apache-2.0
#include "base/system.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/cancellation_guard.hpp"
#include "base/timespec.hpp"

namespace vorn::sys {
namespace {

template <class Call> auto uncancelled(Call call) {
  const CancellationGuard off;
  return call();
}

int milliseconds_until(const timespec &deadline) {
  const std::uint64_t end = nanoseconds(deadline);
  const std::uint64_t start = monotonic_nanoseconds();
  if (end <= start) return 0;
  return static_cast<int>(std::min<std::uint64_t>((end - start + 999999) / 1000000, INT_MAX));
}

// After EINTR, the kernel goes on making the connection.
bool wait_until_connected(int socket) {
  pollfd waiting{socket, POLLOUT, 0};
  int error = 0;
  socklen_t size = sizeof error;
  if (poll(&waiting, 1, nullptr) < 0) return false;
  if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return false;
  errno = error;
  return error == 0;
}

} // namespace

UniqueFd above_standard(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return UniqueFd(fd);
  const UniqueFd standard(fd);
  const int flags = fcntl(fd, F_GETFD);
  const bool inherited = flags >= 0 && (flags & FD_CLOEXEC) == 0;
  return UniqueFd(fcntl(fd, inherited ? F_DUPFD : F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

UniqueFd open(const char *path, int flags, mode_t mode) {
  return above_standard(uncancelled([=] { return ::open(path, flags | O_CLOEXEC, mode); }));
}

UniqueFd duplicate(int fd) { return UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)); }

UniqueFd socket(int domain, int type, int protocol) {
  return above_standard(::socket(domain, type | SOCK_CLOEXEC, protocol));
}

UniqueFd accept(int socket) {
  return above_standard(
      uninterrupted([=] { return accept4(socket, nullptr, nullptr, SOCK_CLOEXEC); }));
}

UniqueFd event() { return above_standard(eventfd(0, EFD_CLOEXEC)); }

bool pipe(UniqueFd &reading, UniqueFd &writing) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  UniqueFd first(ends[0]); // stays open, so that the other one gets another number
  UniqueFd second(ends[1]);
  reading = above_standard(first.release());
  writing = above_standard(second.release());
  return reading && writing;
}

Stream open_stream(const char *path) {
  UniqueFd fd = open(path, O_RDONLY);
  if (!fd) return nullptr;
  Stream stream(fdopen(fd.get(), "r"));
  if (stream != nullptr) fd.release();
  return stream;
}

Directory open_directory(const char *path) {
  UniqueFd fd = open(path, O_RDONLY | O_DIRECTORY);
  if (!fd) return nullptr;
  Directory directory(fdopendir(fd.get()));
  if (directory != nullptr) fd.release();
  return directory;
}

char *read_line(char *line, int size, const Stream &stream) {
  return uncancelled([&] { return std::fgets(line, size, stream.get()); });
}

const dirent *read_entry(const Directory &directory) {
  return uncancelled([&] { return readdir(directory.get()); });
}

ssize_t read(int fd, void *buffer, std::size_t size) {
  return uninterrupted([=] { return ::read(fd, buffer, size); });
}

ssize_t pread(int fd, void *buffer, std::size_t size, off_t position) {
  return uninterrupted([=] { return ::pread(fd, buffer, size, position); });
}

ssize_t write(int fd, const void *buffer, std::size_t size) {
  return uninterrupted([=] { return ::write(fd, buffer, size); });
}

bool write_all(int fd, const void *buffer, std::size_t size) {
  const auto *at = static_cast<const char *>(buffer);
  while (size > 0) {
    const ssize_t length = write(fd, at, size);
    if (length <= 0) return false;
    at += length;
    size -= static_cast<std::size_t>(length);
  }
  return true;
}

int sync(int fd) {
  return uninterrupted([=] { return fsync(fd); });
}

int ioctl(int fd, unsigned long request, void *argument) {
  return uncancelled([=] { return ::ioctl(fd, request, argument); });
}

ssize_t receive(int socket, void *buffer, std::size_t size, int flags) {
  return uninterrupted([=] { return recv(socket, buffer, size, flags); });
}

ssize_t send(int socket, const msghdr &message, int flags) {
  return uninterrupted([&] { return sendmsg(socket, &message, flags | MSG_NOSIGNAL); });
}

ssize_t send(int socket, const void *buffer, std::size_t size, int flags) {
  return uninterrupted([=] { return ::send(socket, buffer, size, flags | MSG_NOSIGNAL); });
}

bool connect(int socket, const sockaddr *address, socklen_t size) {
  if (uncancelled([=] { return ::connect(socket, address, size); }) == 0) return true;
  return errno == EINTR && wait_until_connected(socket);
}

int unacknowledged(int socket) {
  int count = 0;
  return uncancelled([&] { return ioctl(socket, SIOCOUTQ, &count); }) == 0 ? count : -1;
}

int poll(pollfd *fds, nfds_t count, const timespec *deadline) {
  return uninterrupted(
      [=] { return ::poll(fds, count, deadline != nullptr ? milliseconds_until(*deadline) : -1); });
}

void sleep(const timespec &time) {
  uncancelled([&] { return nanosleep(&time, nullptr); });
}

void wait(sem_t *semaphore) {
  uninterrupted([=] { return sem_wait(semaphore); });
}

void wait_until(pthread_cond_t *condition, pthread_mutex_t *mutex, const timespec &deadline) {
  uncancelled([&] { return pthread_cond_timedwait(condition, mutex, &deadline); });
}

pid_t wait_for_child(pid_t child, int *status) {
  return uninterrupted([=] { return waitpid(child, status, 0); });
}

int join(pthread_t thread) {
  const CancellationGuard off;
  return pthread_join(thread, nullptr);
}

} // namespace vorn::sys
