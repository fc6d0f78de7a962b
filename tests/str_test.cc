// Tests texts and numbers.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_str.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"

namespace {

TEST(Str, ReadsCharactersAndNumbers) {
  unsigned int position = 9;
  EXPECT_EQ(vorn_get_charpos("ab\xE4", '\xE4', &position), 0);
  EXPECT_EQ(position, 2u);
  EXPECT_EQ(vorn_get_charpos("abc", '\0', &position), -1);

  const struct {
    const char *text;
    int is_unsigned;
    uint64_t value;
  } rows[] = {
      {"16", 0, 16},   {"0x10", 0, 16}, {"0XDEADbeef", 0, 0xDEADBEEF},
      {"010", 0, 10}, // not octal
      {"", 0, 0},      {"0x", 0, 0},    {"18446744073709551615", 0, UINT64_MAX},
      {"12a", -1, 12}, {" 1", -1, 1},   {"-42", -1, uint64_t{0} - 42},
      {"00x1", -1, 0}, {"\xB2", -1, 0}, {"-9223372036854775808", -1, uint64_t{1} << 63},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    errno = EIO;
    EXPECT_EQ(vorn_str_isuint(row.text), row.is_unsigned);
    EXPECT_EQ(vorn_str_tou64(row.text), row.value);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(vorn_str_tos64(row.text), static_cast<int64_t>(row.value));
  }
  EXPECT_EQ(vorn_str_tou64("--1"), 0u);
  EXPECT_EQ(vorn_str_tos64("--1"), 1);
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(vorn_str_tou64("18446744073709551616"), UINT64_MAX);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_str.c", "vorn_str_tou64",
                     "Strtou64 fail because of error 34, Numerical result out of range.");
}

TEST(Str, SplitsAtRunsOfDelimiters) {
  const struct {
    const char *text;
    const char *delimiters;
    std::vector<std::string> tokens;
  } rows[] = {
      {",, a;b,", ", ;", {"a", "b"}},
      {"a b", "", {"a b"}},
      {"", ",", {""}},
      {",,,", ",", {""}},
  };
  for (const auto &row : rows) {
    std::string text = row.text;
    std::vector<std::string> tokens;
    for (char *token = vorn_str_tok(text.data(), row.delimiters); token != nullptr;
         token = vorn_str_tok(nullptr, row.delimiters))
      tokens.emplace_back(token);
    EXPECT_EQ(tokens, row.tokens) << row.text;
  }
  EXPECT_EQ(capture::take_lines().at(1), "E Param((nil))  is null."); // of the call that ends it

  char list[] = ",,a,,b";
  EXPECT_EQ(vorn_str_tok(list, ","), list + 2);
  EXPECT_EQ(vorn_str_tok(nullptr, nullptr), nullptr);
  EXPECT_EQ(vorn_str_tok(nullptr, ":"), list + 5); // the position is as it was
}

} // namespace
