// fuzz-wraps: vfork
//
// Checks the command guard and the scan for separators against simple models. The first line of an
// input is the whitelist, the rest is the command. Runs no command: vfork() always fails here.
// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <string>
#include <string_view>
#include <unistd.h>

#include "fuzz/harness.hpp"
#include "vorn_cmd.h"

static int spawned = 0;

extern "C" {
pid_t __wrap_vfork() {
  ++spawned;
  errno = EAGAIN;
  return -1;
}
}

namespace {

using namespace fuzz;

bool is_dangerous(std::string_view command, std::string_view whitelist) {
  for (const char character : command) {
    if (std::string_view("|;&$<>!\n`").find(character) == std::string_view::npos) continue;
    if (whitelist.find(character) == std::string_view::npos) return true;
  }
  return false;
}

bool is_several(std::string_view command) {
  for (std::size_t at = 0; at + 1 < command.size(); ++at) {
    if (command[at] == ';' || command.substr(at, 2) == "||") return true;
  }
  return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  std::string_view input = text_of(data, size);
  const std::string whitelist = c_string(take_until(input, '\n'));
  const std::string command = c_string(input);

  const bool dangerous = is_dangerous(command, whitelist);
  expect(isDangerousCmd(command.c_str(), whitelist.c_str()) == dangerous);
  expect(isDangerousCmd(command.c_str(), nullptr) == is_dangerous(command, ""));
  char *const argv[] = {const_cast<char *>(command.c_str()), nullptr};
  const int executed = execv_s("/no/such/program", 1, argv, whitelist.c_str(), nullptr);
  expect(executed == (dangerous ? -29 : -1));

  spawned = 0;
  expect(vorn_system_s(command.c_str(), whitelist.c_str()) == (dangerous ? -29 : -1));
  expect(spawned == (!dangerous && !is_several(command)));
  return 0;
}
