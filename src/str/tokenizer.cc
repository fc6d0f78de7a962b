// Cuts a text into tokens at delimiters.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_str.c"
#include "vorn_str.h"

#include <cstring>

#include "base/log.hpp"

namespace vorn::str {
namespace {

constinit char *saved_position = nullptr; // where the next call without a string continues

char *finish(char *token) {
  saved_position = nullptr;
  return token;
}

// Replaces a run of delimiters by NULs and returns the first character after it.
char *erase_run(char *at, const char *delimiters) {
  for (; *at != '\0' && std::strchr(delimiters, *at) != nullptr; ++at)
    *at = '\0';
  return at;
}

} // namespace
} // namespace vorn::str

using namespace vorn::str;

char *check_parameter(char **string, char *saved, const char *delimiters) {
  char *given = string == nullptr ? nullptr : *string;
  char *scanned = given != nullptr ? given : saved;
  if (scanned == nullptr)
    return VORN_FAIL(nullptr, "Param(%p %p )  is null.", static_cast<void *>(given),
                     static_cast<void *>(saved));
  if (delimiters == nullptr)
    return VORN_FAIL(nullptr, "Param(%p)  is null.", static_cast<const void *>(delimiters));
  return scanned;
}

char *vorn_str_tok(char *string, const char *delimiters) {
  char *token = check_parameter(&string, saved_position, delimiters);
  if (token == nullptr)
    return VORN_FAIL(nullptr, "Param(%p)  is null.", static_cast<void *>(token));
  for (;;) {
    char *run = std::strpbrk(token, delimiters);
    if (run == nullptr) return finish(token);
    char *next = erase_run(run, delimiters);
    if (*next == '\0') return finish(token);
    if (run == token) {
      token = next;
      continue;
    }
    saved_position = next;
    return token;
  }
}
