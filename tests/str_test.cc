#include "vorn_str.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"

namespace {

TEST(Str, FindsACharacter) {
  unsigned int position = 9;
  EXPECT_EQ(vorn_get_charpos("abcb", 'b', &position), 0);
  EXPECT_EQ(position, 1u);
  EXPECT_EQ(vorn_get_charpos("\xE4", '\xE4', &position), 0);
  EXPECT_EQ(position, 0u);
  EXPECT_EQ(vorn_get_charpos("abc", 'x', &position), -1);
  EXPECT_EQ(vorn_get_charpos("abc", '\0', &position), -1);
  EXPECT_EQ(position, 0u);
  EXPECT_NO_RECORD();
  EXPECT_EQ(vorn_get_charpos(nullptr, 'x', &position), -22);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "vorn_get_charpos", "Parameter is NULL.");
  EXPECT_EQ(vorn_get_charpos("abc", 'x', nullptr), -22);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "vorn_get_charpos", "Parameter is NULL.");
}

TEST(Str, CutsAtTheLineEnd) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"line\n", "line"}, {"line\r\n", "line"}, {"a\nb\rc", "a"},
      {"a\rb\nc", "a"},   {"\n", ""},           {"line", "line"}};
  for (const auto &[text, want] : rows) {
    std::string line = text;
    EXPECT_EQ(vorn_filter_newlinesymbol(line.data()), 0);
    EXPECT_EQ(line.c_str(), want);
  }
  EXPECT_NO_RECORD();
  EXPECT_EQ(vorn_filter_newlinesymbol(nullptr), 0);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "vorn_filter_newlinesymbol", "Parameter is NULL.");
}

TEST(Str, TellsUnsignedNumbers) {
  for (const char *number : {"", "0", "0x", "0X", "123456789012345678901234567890", "0xDEADbeef"})
    EXPECT_EQ(vorn_str_isuint(number), 0) << number;
  for (const char *text : {"12a", "a", "-1", "+1", " 1", "1 ", "0xg", "0x1 ", "x1", "00x1", "\xB2"})
    EXPECT_EQ(vorn_str_isuint(text), -1) << text;
  EXPECT_EQ(vorn_str_isuint(nullptr), -22);
  EXPECT_NO_RECORD();
}

TEST(Str, ReadsNumbers) {
  const struct {
    const char *text;
    uint64_t value;
    int64_t signed_value;
  } rows[] = {
      {"16", 16, 16},
      {"0x10", 16, 16},
      {"0X1f!", 31, 31},
      {"010", 10, 10}, // not octal
      {"", 0, 0},
      {"x", 0, 0},
      {"-42", uint64_t{0} - 42, -42},
      {"-0x10", 0, -16},
      {"--1", 0, 1},
      {" -1", uint64_t{0} - 1, -1},
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
}

TEST(Str, ReportsWhatIsNoNumber) {
  const std::string text = "Strtou64 fail because of error 34, Numerical result out of range.";
  EXPECT_EQ(vorn_str_tou64("18446744073709551616"), UINT64_MAX);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "vorn_str_tou64", text);
  EXPECT_EQ(vorn_str_tos64("-0x10000000000000000"), 1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "vorn_str_tou64", text);
  EXPECT_EQ(vorn_str_tou64(nullptr), 0u);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "vorn_str_tou64",
                    "Strtou64 fail because pStr is null.");
  EXPECT_EQ(vorn_str_tos64(nullptr), 0);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_str.c", "vorn_str_tos64",
                    "Strtos64 fail because pStr is null.");
}

TEST(Str, LowersAsciiLetters) {
  std::string all;
  std::string want;
  for (int code = 1; code < 256; ++code) {
    all.push_back(static_cast<char>(code));
    want.push_back(static_cast<char>(code >= 'A' && code <= 'Z' ? code + 32 : code));
  }
  vorn_str_tolower(all.data());
  EXPECT_EQ(all, want);
  vorn_str_tolower(nullptr);
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
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(tokens(row.text, row.delimiters), row.tokens);
    EXPECT_EQ(capture::take_texts(), (std::vector<std::string>{"Param((nil) (nil) )  is null.",
                                                               "Param((nil))  is null."}));
  }
}

TEST(Tokenizer, ReturnsPointersIntoTheString) {
  char text[] = "ab";
  EXPECT_EQ(vorn_str_tok(text + 2, ","), text + 2);
  char list[] = ",,a,,b";
  EXPECT_EQ(vorn_str_tok(list, ","), list + 2);
  EXPECT_EQ(std::string(list, 6), std::string("\0\0a\0\0b", 6));
  EXPECT_EQ(vorn_str_tok(nullptr, ":"), list + 5);
}

TEST(Tokenizer, ReportsMissingParameters) {
  char text[] = "a,b,c";
  EXPECT_STREQ(vorn_str_tok(text, ","), "a");
  EXPECT_EQ(vorn_str_tok(nullptr, nullptr), nullptr);
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].function, "check_parameter");
  EXPECT_EQ(records[1].function, "vorn_str_tok");
  for (const auto &record : records) {
    EXPECT_EQ(record.level, EVLOG_ERROR);
    EXPECT_EQ(record.file, "vorn_str.c");
    EXPECT_EQ(record.text, "Param((nil))  is null.");
  }
  EXPECT_STREQ(vorn_str_tok(nullptr, ","), "b"); // the position is as it was
}

TEST(Tokenizer, ChoosesWhatToScan) {
  char text[] = "a,b,c";
  char *none = nullptr;
  char *given = text;
  EXPECT_EQ(check_parameter(&given, nullptr, ","), text);
  EXPECT_EQ(check_parameter(&given, text + 2, ","), text);
  EXPECT_EQ(check_parameter(&none, text + 2, ","), text + 2);
  EXPECT_NO_RECORD();
  EXPECT_EQ(check_parameter(&none, nullptr, nullptr), nullptr);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "check_parameter", "Param((nil) (nil) )  is null.");
}

} // namespace
