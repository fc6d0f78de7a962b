// Reads VORNSIM_ANSWER.
// SPDX-License-Identifier: Apache-2.0
#include "rules.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "console.hpp"

namespace vornsim {
namespace {

constexpr char kSeparators[] = ", \t\n";
constexpr int kLastErrno = 133; // EHWPOISON

// Parses a number and advances *text to its end.
bool parse_number(const char **text, long least, long most, long *out) {
  char *end = nullptr;
  errno = 0;
  *out = std::strtol(*text, &end, 0);
  if (end == *text || errno != 0 || *out < least || *out > most) return false;
  *text = end;
  return true;
}

// Returns the errno whose name begins the text, or 0 if there is none.
int parse_errno(const char **text) {
  const std::size_t length = std::strcspn(*text, "@");
  for (int error = 1; error <= kLastErrno; ++error) {
    const char *name = strerrorname_np(error);
    if (name == nullptr || std::strlen(name) != length || std::memcmp(name, *text, length) != 0)
      continue;
    *text += length;
    return error;
  }
  return 0;
}

// Parses OPERATION=ANSWER[@CALL].
bool parse_entry(const char *text, unsigned int *operation, Rule *rule) {
  long number = 0;
  if (!parse_number(&text, 0, INT_MAX, &number) || *text++ != '=') return false;
  *operation = static_cast<unsigned int>(number);
  *rule = Rule{};
  if (const int error = parse_errno(&text); error != 0) {
    rule->kind = Rule::kError;
    rule->value = error;
  } else {
    if (!parse_number(&text, INT_MIN, INT_MAX, &number)) return false;
    rule->kind = Rule::kAnswer;
    rule->value = static_cast<std::int32_t>(number);
  }
  if (*text == '\0') return true;
  if (*text++ != '@' || !parse_number(&text, 1, Rule::kMaxCall, &number)) return false;
  rule->call = static_cast<std::uint32_t>(number) & Rule::kMaxCall;
  return *text == '\0';
}

} // namespace

void parse_rules(const char *text, bool (*set)(unsigned int operation, const Rule &rule)) {
  for (text += std::strspn(text, kSeparators); *text != '\0';
       text += std::strspn(text, kSeparators)) {
    const std::size_t length = std::strcspn(text, kSeparators);
    char entry[64] = {};
    std::memcpy(entry, text, length < sizeof entry ? length : sizeof entry - 1);
    text += length;
    unsigned int operation = 0;
    Rule rule{};
    if (length < sizeof entry && parse_entry(entry, &operation, &rule) && set(operation, rule))
      continue;
    print("vornsim: VORNSIM_ANSWER: '%s' is left out: wanted is OPERATION=ERRNO or "
          "OPERATION=NUMBER, and @CALL\n",
          entry);
  }
}

} // namespace vornsim
