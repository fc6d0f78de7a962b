// Checks commands before a shell runs them.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cmd.h"

#include <cstring>

namespace vorn::str {
namespace {

constexpr char kBlackSet[] = "|;&$<>!\n`";

// The NUL at the end of a set does not belong to it.
bool contains(const char *set, char character) {
  return character != '\0' && std::strchr(set, character) != nullptr;
}

} // namespace
} // namespace vorn::str

using namespace vorn::str;

int isBlackChar(const char *character) {
  return character != nullptr && contains(kBlackSet, *character);
}

int isWhiteChar(const char *character, const char *whitelist) {
  return character != nullptr && whitelist != nullptr && contains(whitelist, *character);
}

int isDangerousCmd(const char *command, const char *whitelist) {
  if (command == nullptr) return 0;
  for (const char *at = command; *at != '\0'; ++at) {
    if (isBlackChar(at) != 0 && isWhiteChar(at, whitelist) == 0) return 1;
  }
  return 0;
}
