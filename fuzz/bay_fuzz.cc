// fuzz-wraps: vorn_system_s
//
// Checks that the value is the first line that the node's script prints, cut to the buffer. The
// first line of an input is the key, the byte after it the size of the buffer, and the rest the
// output of the script.
// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <unistd.h>

#include "fuzz/harness.hpp"
#include "vorn_bay.h"

using namespace fuzz;

static std::string_view output;

extern "C" int __wrap_vorn_system_s(const char *command, const char *whitelist) {
  const std::string path = "/tmp/bay_cfg_segment_" + std::to_string(getpid()) + ".conf";
  if (whitelist == nullptr) return unlink(path.c_str()); // the clean-up
  expect(std::string_view(command).ends_with(" >" + path + " 2>/dev/null"));
  FILE *stream = fopen(path.c_str(), "w");
  expect(stream != nullptr && fwrite(output.data(), 1, output.size(), stream) == output.size());
  return fclose(stream);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  std::string_view input = text_of(data, size);
  const std::string key = c_string(take_until(input, '\n'));
  const std::size_t room = input.empty() ? 0 : static_cast<unsigned char>(input.front());
  output = input.substr(std::min<std::size_t>(1, input.size()));
  std::string value(room, '?');
  const int result =
      vorn_get_bay_config_keyvalue(key.c_str(), value.data(), static_cast<uint32_t>(room));
  if (result != 0) return 0;

  std::string wanted(output.substr(0, output.find('\n')));
  std::erase(wanted, '\r');
  expect(room > 1 && c_string(value) == c_string(wanted.substr(0, room - 1)));
  return 0;
}
