// Declares the answers that a test sets in place of those of the stand-in.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSIM_RULES_HPP
#define VORNSIM_RULES_HPP

#include <cstdint>

namespace vornsim {

// One word, so that a thread that asks meanwhile sees all of a rule or nothing of it. Zeros are no
// rule.
struct alignas(std::uint64_t) Rule {
  enum Kind : std::uint32_t { kNone, kError, kAnswer };
  static constexpr std::uint32_t kMaxCall = (1u << 30) - 1;

  std::int32_t value; // the errno or the answer
  std::uint32_t kind : 2;
  std::uint32_t call : 30; // the one call that it is for, counted from the first; 0: every call

  bool applies_to(std::uint64_t number) const {
    return kind != kNone && (call == 0 || call == number);
  }
};

// Calls set(operation, rule) for each entry of a text as VORNSIM_ANSWER holds it. An entry that is
// none, or that set refuses by returning false, is reported on the console.
void parse_rules(const char *text, bool (*set)(unsigned int operation, const Rule &rule));

} // namespace vornsim

#endif
