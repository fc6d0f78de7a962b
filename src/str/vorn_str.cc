// Converts texts to numbers and to lower case, and finds characters in them.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_str.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/log.hpp"

namespace vorn::str {
namespace {

constexpr char kDecimal[] = "0123456789";
constexpr char kHexadecimal[] = "0123456789abcdefABCDEF";
constexpr std::size_t kHexPrefix = 2; // characters

bool has_hex_prefix(const char *string) {
  return string[0] == '0' && (string[1] == 'x' || string[1] == 'X');
}

bool holds_only(const char *string, const char *set) {
  return string[std::strspn(string, set)] == '\0';
}

} // namespace
} // namespace vorn::str

using namespace vorn::str;

int vorn_get_charpos(const char *string, char character, unsigned int *position) {
  if (string == nullptr || position == nullptr) return VORN_FAIL(-EINVAL, "Parameter is NULL.");
  const char *found = character == '\0' ? nullptr : std::strchr(string, character);
  if (found == nullptr) return -1;
  *position = static_cast<unsigned int>(found - string);
  return 0;
}

int vorn_filter_newlinesymbol(char *string) {
  if (string == nullptr) return VORN_FAIL(0, "Parameter is NULL.");
  char *end = std::strpbrk(string, "\r\n");
  if (end != nullptr) *end = '\0';
  return 0;
}

int vorn_str_isuint(const char *string) {
  if (string == nullptr) return -EINVAL;
  const bool is_number = has_hex_prefix(string) ? holds_only(string + kHexPrefix, kHexadecimal)
                                                : holds_only(string, kDecimal);
  return is_number ? 0 : -1;
}

uint64_t vorn_str_tou64(const char *string) {
  if (string == nullptr) return VORN_FAIL(uint64_t{0}, "Strtou64 fail because pStr is null.");
  errno = 0;
  const uint64_t value = std::strtoull(string, nullptr, has_hex_prefix(string) ? 16 : 10);
  if (errno == 0) return value;
  char buffer[128];
  return VORN_FAIL(value, "Strtou64 fail because of error %d, %s.", errno,
                   strerror_r(errno, buffer, sizeof buffer));
}

int64_t vorn_str_tos64(const char *string) {
  if (string == nullptr) {
    VORN_LOG(vorn::kInfo, "Strtos64 fail because pStr is null.");
    return 0;
  }
  const uint64_t value =
      string[0] == '-' ? uint64_t{0} - vorn_str_tou64(string + 1) : vorn_str_tou64(string);
  return static_cast<int64_t>(value);
}

void vorn_str_tolower(char *string) {
  if (string == nullptr) return;
  for (char *at = string; *at != '\0'; ++at) {
    if (*at >= 'A' && *at <= 'Z') *at = static_cast<char>(*at - 'A' + 'a');
  }
}
