// Runs commands in a shell, and programs by execv(2), with checks against dangerous ones.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_str.c"
#include "vorn_cmd.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "str/spawn.hpp"

namespace vorn::str {
namespace {

constexpr int kDangerous = -29;

// A ";" at the end separates no commands.
bool has_separator(const char *command) {
  const char *semicolon = std::strchr(command, ';');
  if (semicolon != nullptr && semicolon[1] != '\0') return true;
  return std::strstr(command, "||") != nullptr;
}

// A checker may return a bool, of which only the low byte is defined.
bool is_refusal(int result) { return (result & 0xFF) == 0; }

} // namespace
} // namespace vorn::str

using namespace vorn::str;

int vorn_system(const char *command) {
  if (command == nullptr) return -EINVAL;
  if (has_separator(command)) return -1;
  const vorn::CancellationGuard off;
  const pid_t child = spawn_shell(command, nullptr);
  return child < 0 ? -1 : wait_for(child);
}

int vorn_cmd_exec(const char *command) {
  if (command == nullptr) return -EINVAL;
  return vorn_system(command);
}

int vorn_system_s(const char *command, const char *whitelist) {
  if (command == nullptr) return -EINVAL;
  if (isDangerousCmd(command, whitelist) != 0) return kDangerous;
  return vorn_system(command);
}

int system_s(const char *command, const char *whitelist) {
  if (command == nullptr) return -EINVAL;
  if (isDangerousCmd(command, whitelist) != 0) return kDangerous;
  return std::system(command);
}

int execv_s(const char *path, int count, char *const argv[], const char *whitelist,
            vorn_execv_checker_f checker) {
  if (path == nullptr || argv == nullptr || count < 0) return -EINVAL;
  for (int i = 0; i < count; ++i) {
    if (argv[i] == nullptr || isDangerousCmd(argv[i], whitelist) == 0) continue;
    return VORN_FAIL(kDangerous, "execv cmd is dangerous, argv[%d] is: %s.", i, argv[i]);
  }
  if (checker != nullptr && is_refusal(checker(path, count, argv))) return kDangerous;
  return execv(path, argv);
}
