// Checks that for any bytes from a client the server answers as a simple model does, and stays
// within its buffers.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/socket.h>

#include "base/unique_fd.hpp"
#include "fuzz/harness.hpp"
#include "kram_syscall.h"
#include "syscall/kram_server.hpp"
#include "syscall/kram_wire.hpp"

namespace {

using namespace fuzz;
using vorn::kram::WireHeader;

constexpr std::size_t kBufferSize = KRAM_SYSCALL_BUFFER_SIZE;
constexpr std::size_t kMaxInput = 2048; // its replies fit into the socket

// Replies with the bytes of the request in reverse order, cut to the capacity.
int32_t reverse(uint32_t, kram_call_s *call) {
  const auto *input = static_cast<const unsigned char *>(call->input);
  call->output_length = std::min(call->input_length, call->output_capacity);
  std::reverse_copy(input, input + call->output_length, static_cast<unsigned char *>(call->output));
  return -static_cast<int32_t>(call->output_length);
}

// Fills the capacity, and sets the length of the reply from the request.
int32_t tell_length(uint32_t, kram_call_s *call) {
  std::memset(call->output, 'x', call->output_capacity);
  std::memset(static_cast<char *>(call->output) + call->output_capacity, 'y',
              kBufferSize - call->output_capacity);
  std::memcpy(&call->output_length, call->input,
              std::min<std::size_t>(call->input_length, sizeof call->output_length));
  return static_cast<int32_t>(call->output_capacity);
}

// Appends the reply to a request. Returns false if the connection ends.
bool answer(WireHeader header, std::string_view input, std::string &replies) {
  const std::size_t capacity = std::min<std::uint64_t>(header.capacity, kBufferSize);
  std::string output;
  header.result = -1;
  if (header.command == 0x1F00) {
    output = input.substr(0, capacity);
    std::reverse(output.begin(), output.end());
    header.result = -static_cast<std::int64_t>(output.size());
  } else if (header.command == 0x1F01) {
    std::uint32_t length = 0;
    std::memcpy(&length, input.data(), std::min(input.size(), sizeof length));
    if (length > kBufferSize) return false;
    output =
        (std::string(capacity, 'x') + std::string(kBufferSize - capacity, 'y')).substr(0, length);
    header.result = static_cast<std::int64_t>(capacity);
  }
  header.reserved = 0;
  header.length = output.size();
  replies.append(reinterpret_cast<const char *>(&header), sizeof header).append(output);
  return true;
}

std::string expected(std::string_view sent) {
  std::string replies;
  WireHeader header;
  while (sent.size() >= sizeof header) {
    std::memcpy(&header, sent.data(), sizeof header);
    sent.remove_prefix(sizeof header);
    if (header.length > kBufferSize || header.length > sent.size()) break;
    if (!answer(header, sent.substr(0, header.length), replies)) break;
    sent.remove_prefix(header.length);
  }
  return replies;
}

std::string served(std::string_view sent) {
  int ends[2];
  expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
  const vorn::UniqueFd client(ends[0]);
  expect(send(client.get(), sent.data(), sent.size(), 0) == static_cast<ssize_t>(sent.size()));
  shutdown(client.get(), SHUT_WR);
  {
    const vorn::UniqueFd server(ends[1]);
    vorn::kram::Activity activity;
    activity.become_idle();
    vorn::kram::serve(server.get(), activity, std::chrono::milliseconds(0));
  }
  std::string replies;
  char piece[4096];
  for (ssize_t length; (length = recv(client.get(), piece, sizeof piece, 0)) > 0;)
    replies.append(piece, static_cast<std::size_t>(length));
  return replies;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const kram_entry_s entries[] = {{0x1F00, KRAM_SYSCALL_DIRECT, reverse},
                                  {0x1F01, KRAM_SYSCALL_INDIRECT, tell_length}};
  expect(KRAM_RegSysCall(31, entries, 2) == 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  const std::string_view sent = text_of(data, size);
  expect(served(sent) == expected(sent));
  return 0;
}
