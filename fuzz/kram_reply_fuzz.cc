// Checks that for any bytes from a server the client of private calls takes only its own reply,
// closes the connection if it receives anything else, and stays within the caller's buffer. The
// first byte of an input is the size of the buffer, the rest is what the server sends.
// SPDX-License-Identifier: Apache-2.0
#include "syscall/kram_client.cc"

#include <cstring>
#include <string>
#include <sys/socket.h>

#include "fuzz/harness.hpp"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  if (size == 0 || size > 4096) return 0; // fits into the socket buffer
  const std::string_view sent = text_of(data + 1, size - 1);
  std::string output(data[0], '?');
  int ends[2];
  expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
  vorn::UniqueFd server(ends[1]);
  expect(send(server.get(), sent.data(), sent.size(), 0) == static_cast<ssize_t>(sent.size()));
  shutdown(server.get(), SHUT_WR);

  connection = ends[0];
  kram_request_s request{0, data[0], nullptr, output.data()};
  int result = -1;
  const Outcome outcome = call(0x500, request, result, false);
  disconnect();

  WireHeader header = {};
  std::memcpy(&header, sent.data(), std::min(sent.size(), sizeof header));
  const std::string_view payload = sent.substr(std::min(sent.size(), sizeof header));
  const bool is_whole = sent.size() >= sizeof header && header.length <= payload.size();
  const std::string_view at_once = sent.substr(0, kMessageSize); // one receive gets it
  const bool is_longer = is_whole && at_once.size() > sizeof header + header.length;
  expect((outcome == Outcome::kAnswered) == (is_whole && !is_longer));
  if (!is_whole || header.length > data[0]) {
    expect(result == -1);
  } else {
    expect(result == static_cast<int>(header.result) && request.output_length == header.length);
    expect(output.starts_with(payload.substr(0, header.length)));
  }
  return 0;
}
