// Declares the system's calls as the library makes them.
//
//   - None is a cancellation point, so the library may hold anything while it makes them.
//   - None creates descriptor 0, 1 or 2: a process that has closed these would use a file of the
//     library as its standard streams.
//   - Calls that transfer data or wait continue after a signal, except sleep().
//
// Otherwise, results and errno are the system's. The calls on descriptors, poll() and sleep() are
// safe in a signal handler.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_SYSTEM_HPP
#define VORN_BASE_SYSTEM_HPP

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "base/cancellation_guard.hpp"
#include "base/directory.hpp"
#include "base/stream.hpp"
#include "base/unique_fd.hpp"

namespace vorn::sys {

// Makes any other call: not a cancellation point, and repeated after a signal.
template <class Call> auto uninterrupted(Call call) {
  const CancellationGuard off;
  auto result = call();
  while (result < 0 && errno == EINTR)
    result = call();
  return result;
}

// Create descriptors, all close-on-exec. On failure, the result is invalid and errno is set.
UniqueFd open(const char *path, int flags, mode_t mode = 0); // not repeated after a signal
UniqueFd duplicate(int fd);
UniqueFd socket(int domain, int type, int protocol);
UniqueFd accept(int socket);
UniqueFd event(); // eventfd(2) of 0
bool pipe(UniqueFd &reading, UniqueFd &writing);

// Returns fd, or a duplicate that replaces it if it is a standard descriptor. For other calls.
UniqueFd above_standard(int fd);

// Open for reading. NULL with errno on failure.
Stream open_stream(const char *path);
Directory open_directory(const char *path);

// fgets(3), readdir(3).
char *read_line(char *line, int size, const Stream &stream);
const dirent *read_entry(const Directory &directory);

ssize_t read(int fd, void *buffer, std::size_t size);
ssize_t pread(int fd, void *buffer, std::size_t size, off_t position);
ssize_t write(int fd, const void *buffer, std::size_t size);
bool write_all(int fd, const void *buffer, std::size_t size);
int sync(int fd);
int ioctl(int fd, unsigned long request, void *argument); // not repeated after a signal

ssize_t receive(int socket, void *buffer, std::size_t size, int flags);
ssize_t send(int socket, const void *buffer, std::size_t size, int flags);
ssize_t send(int socket, const msghdr &message, int flags);
bool connect(int socket, const sockaddr *address, socklen_t size);

// Returns the number of bytes sent that the peer's system has not acknowledged, even if the
// connection has ended.
int unacknowledged(int socket);

// Waits until deadline on CLOCK_MONOTONIC, or forever if it is NULL. Returns 0 at the deadline.
int poll(pollfd *fds, nfds_t count, const timespec *deadline);

// nanosleep(2): a signal ends it.
void sleep(const timespec &time);

void wait(sem_t *semaphore);

// pthread_cond_timedwait(3), by the condition's own clock.
void wait_until(pthread_cond_t *condition, pthread_mutex_t *mutex, const timespec &deadline);

pid_t wait_for_child(pid_t child, int *status); // waitpid(2)

int join(pthread_t thread); // pthread_join(3) without the thread's result

} // namespace vorn::sys

#endif
