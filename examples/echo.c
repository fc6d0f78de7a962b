/* Serves clients: sends back what they send, until SIGTERM or SIGINT.
 *
 *   ./echo                          and in another terminal: socat - UNIX-CONNECT:echo.socket
 *
 * Each client has a thread. The service waits for the end of every thread before it shuts the
 * library down. The log is echo.log. */
/* SPDX-License-Identifier: Apache-2.0 */
#define _GNU_SOURCE /* accept4 */
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <evlog.h>
#include <vorn_init.h>
#include <vorn_log.h>
#include <vorn_sched.h>
#include <vorn_sem_enhance.h>
#include <vorn_thrd.h>

#define MODULE 900u
#define LOG(level, ...)                                                                            \
  (void)(evlog_level_check(MODULE, level) == 0 &&                                                  \
         evlog(MODULE, level, "echo.c", __LINE__, __func__, 0, __VA_ARGS__))

static const struct sockaddr_un kAddress = {AF_UNIX, "echo.socket"};
static int stopping = -1;        /* an eventfd, readable after the service has begun to stop */
static vorn_sem_enhance_s ended; /* a unit for each thread that has ended */

static int send_all(int client, const char *bytes, size_t length) {
  while (length > 0) {
    const ssize_t sent = send(client, bytes, length, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return -1;
    bytes += sent;
    length -= (size_t)sent;
  }
  return 0;
}

static void echo(int client) {
  struct pollfd watched[] = {{client, POLLIN, 0}, {stopping, POLLIN, 0}};
  char bytes[4096];
  for (;;) {
    if (poll(watched, 2, -1) < 0) continue; /* a signal that has a handler */
    if (watched[1].revents != 0) return;
    const ssize_t length = recv(client, bytes, sizeof bytes, 0);
    if (length <= 0 || send_all(client, bytes, (size_t)length) != 0) return;
  }
}

static void *serve(void *argument) {
  const int client = (int)(intptr_t)argument;
  vorn_thrd_setname("echo_%d", client);
  LOG(EVLOG_INFO, "serving client %d", client);
  echo(client);
  close(client);
  vorn_sem_enhance_up(&ended);
  return NULL;
}

/* Returns the number of threads that it started: 1 or 0. */
static unsigned int accept_client(int listener) {
  const struct timeval patience = {5, 0}; /* for a client that sends and does not read */
  const int client = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
  if (client >= 0 && setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) == 0 &&
      vorn_thrd_create(serve, (void *)(intptr_t)client, NULL) == 0)
    return 1;
  LOG(EVLOG_ERROR, "cannot serve a client, errno %d", errno);
  if (client >= 0) close(client);
  vorn_msleep(100); /* until a descriptor or a thread may be free */
  return 0;
}

static void run(int listener, int signals) {
  struct pollfd watched[] = {{listener, POLLIN, 0}, {signals, POLLIN, 0}};
  unsigned int threads = 0;
  puts("ready");
  for (;;) {
    if (poll(watched, 2, -1) < 0) continue; /* a signal that has a handler */
    if (watched[1].revents != 0) break;
    threads += accept_client(listener);
  }
  eventfd_write(stopping, 1);
  for (unsigned int i = 0; i < threads; ++i)
    vorn_sem_enhance_down(&ended);
  unlink(kAddress.sun_path);
  printf("stopped after %u clients\n", threads);
}

int main(void) {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  sigprocmask(SIG_BLOCK, &ending, NULL); /* first, so that every thread inherits it */
  if (vorn_log_init("echo", ".") != 0 || vorn_Init() != 0) {
    fputs("echo: the library does not start\n", stderr);
    return 1;
  }
  vorn_sem_enhance_init(&ended, 0);
  stopping = eventfd(0, EFD_CLOEXEC);
  const int signals = signalfd(-1, &ending, SFD_CLOEXEC);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int ready = stopping >= 0 && signals >= 0 && listener >= 0 &&
                    bind(listener, (const struct sockaddr *)&kAddress, sizeof kAddress) == 0 &&
                    listen(listener, 8) == 0;
  if (!ready) perror("echo: cannot listen at echo.socket");
  if (ready) run(listener, signals);
  vorn_destory();
  vorn_log_destroy((uintptr_t)0);
  return ready ? 0 : 1;
}
