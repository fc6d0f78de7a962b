// Compares a private call over loopback with a plain exchange of the same bytes: blocking sockets
// with TCP_NODELAY, one send and as few receives as possible on each side. All threads share a CPU;
// otherwise, most of the measured time would be the wake-up time of a CPU.
// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "kram_syscall.h"
#include "support/bench.hpp"
#include "vorn_log.h"

namespace {

constexpr std::size_t kHeader = 32;

int32_t echo(uint32_t, kram_call_s *call) {
  std::memcpy(call->output, call->input, call->input_length);
  call->output_length = call->input_length;
  return 0;
}

void receive(int socket, char *buffer, std::size_t length) {
  for (ssize_t piece; length != 0; length -= static_cast<std::size_t>(piece), buffer += piece) {
    piece = recv(socket, buffer, length, 0);
    if (piece <= 0) return;
  }
}

// The two ends of the peer's connection, and a thread that sends back all bytes that it receives.
class PingPong {
public:
  explicit PingPong(std::size_t length) : length_(length) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(listener, reinterpret_cast<const sockaddr *>(&address), size);
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size);
    near_ = socket(AF_INET, SOCK_STREAM, 0);
    connect(near_, reinterpret_cast<const sockaddr *>(&address), size);
    far_ = accept(listener, nullptr, nullptr);
    close(listener);
    const int on = 1;
    for (const int end : {near_, far_})
      setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    echo_ = std::thread([this] {
      char buffer[1024];
      ssize_t piece = 0;
      while ((piece = recv(far_, buffer, sizeof buffer, 0)) > 0)
        send(far_, buffer, static_cast<std::size_t>(piece), MSG_NOSIGNAL);
    });
  }
  ~PingPong() {
    shutdown(near_, SHUT_RDWR);
    echo_.join();
    close(near_);
    close(far_);
  }

  void round_trip() {
    char buffer[1024] = {};
    send(near_, buffer, length_, 0);
    receive(near_, buffer, length_);
  }

private:
  std::size_t length_;
  int near_ = -1;
  int far_ = -1;
  std::thread echo_;
};

void stay_on_this_cpu() {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(sched_getcpu(), &set);
  sched_setaffinity(0, sizeof set, &set);
}

int call(std::uint32_t length) {
  char input[KRAM_SYSCALL_BUFFER_SIZE] = {};
  char output[KRAM_SYSCALL_BUFFER_SIZE];
  kram_request_s request{length, sizeof output, input, output};
  return KRAM_SysCall(0x400, &request);
}

} // namespace

int main(int argc, char **argv) {
  stay_on_this_cpu();
  vorn_log_init("kram_bench", "/tmp"); // receives the log messages of the first attempts
  const kram_entry_s entry{0x400, KRAM_SYSCALL_DIRECT, echo};
  KRAM_PrivateSysCallInit();
  KRAM_RegSysCall(4, &entry, 1);
  for (int i = 0; call(0) != 0; ++i) { // until the server listens
    if (i == 1000) return 1;
    usleep(1000);
  }
  const bench::Table table{argc, argv, "Private calls over loopback"};
  for (const std::uint32_t length : {0u, 64u, 510u}) {
    PingPong peer(kHeader + length);
    const std::string name = "call with " + std::to_string(length) + " bytes each way";
    table.row(name.c_str(), {bench::ours([length] { return call(length); }),
                             bench::peer("ping-pong", [&peer] { peer.round_trip(); })});
  }
  vorn_log_destroy(0);
}
