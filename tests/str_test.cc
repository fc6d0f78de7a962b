#include "vorn_str.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"

namespace {

TEST(Str, FindsCharactersAndLineEnds) {
  unsigned int position = 9;
  EXPECT_EQ(vorn_get_charpos("ab\xE4", '\xE4', &position), 0);
  EXPECT_EQ(position, 2u);
  EXPECT_EQ(vorn_get_charpos("abc", '\0', &position), -1);
  EXPECT_EQ(vorn_get_charpos(nullptr, 'x', &position), -22);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "vorn_get_charpos", "Parameter is NULL.");
  for (std::string line : {"a\n", "a\r\n", "a\nb\rc", "a\rb\nc", "a"}) {
    EXPECT_EQ(vorn_filter_newlinesymbol(line.data()), 0);
    EXPECT_STREQ(line.c_str(), "a");
  }
}

TEST(Str, TellsUnsignedNumbers) {
  for (const char *number : {"", "0", "0x", "123456789012345678901234567890", "0XDEADbeef"})
    EXPECT_EQ(vorn_str_isuint(number), 0) << number;
  for (const char *text : {"12a", "-1", " 1", "1 ", "0xg", "x1", "00x1", "\xB2"})
    EXPECT_EQ(vorn_str_isuint(text), -1) << text;
  EXPECT_EQ(vorn_str_isuint(nullptr), -22);
}

TEST(Str, ReadsNumbers) {
  const struct {
    const char *text;
    uint64_t value;
    int64_t signed_value;
  } rows[] = {
      {"16", 16, 16},
      {"0x10", 16, 16},
      {"010", 10, 10}, // not octal
      {"", 0, 0},
      {"-42", uint64_t{0} - 42, -42},
      {"--1", 0, 1},
      {"18446744073709551615", UINT64_MAX, -1},
      {"-9223372036854775808", uint64_t{1} << 63, INT64_MIN},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    errno = EIO;
    EXPECT_EQ(vorn_str_tou64(row.text), row.value);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(vorn_str_tos64(row.text), row.signed_value);
  }
  EXPECT_NO_RECORD();
  EXPECT_EQ(vorn_str_tou64("18446744073709551616"), UINT64_MAX);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "vorn_str_tou64",
                    "Strtou64 fail because of error 34, Numerical result out of range.");
  EXPECT_EQ(vorn_str_tos64(nullptr), 0);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_str.c", "vorn_str_tos64",
                    "Strtos64 fail because pStr is null.");
}

std::vector<std::string> tokens(std::string text, const char *delimiters) {
  std::vector<std::string> found;
  for (char *token = vorn_str_tok(text.data(), delimiters); token != nullptr;
       token = vorn_str_tok(nullptr, delimiters))
    found.emplace_back(token);
  return found;
}

TEST(Tokenizer, SplitsAtRuns) {
  const struct {
    const char *text;
    const char *delimiters;
    std::vector<std::string> tokens;
  } rows[] = {
      {"a,,b,", ",", {"a", "b"}},
      {",, a;b", ", ;", {"a", "b"}},
      {"a b", "", {"a b"}},
      {"abc", ",", {"abc"}},
      {"", ",", {""}},
      {",,,", ",", {""}},
      {"a=1;b=2", "=;", {"a", "1", "b", "2"}},
  };
  for (const auto &row : rows)
    EXPECT_EQ(tokens(row.text, row.delimiters), row.tokens) << row.text;
  EXPECT_EQ(capture::take_texts().at(1), "Param((nil))  is null."); // of the call that ends it

  char list[] = ",,a,,b";
  EXPECT_EQ(vorn_str_tok(list, ","), list + 2);
  EXPECT_EQ(vorn_str_tok(nullptr, nullptr), nullptr);
  EXPECT_EQ(vorn_str_tok(nullptr, ":"), list + 5); // the position is as it was
}

} // namespace
