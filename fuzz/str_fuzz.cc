// Checks the string functions against simple models. The first line of an input is a set of
// delimiters, the rest is the text.
// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/harness.hpp"
#include "vorn_str.h"

namespace {

using namespace fuzz;
using Words = std::vector<std::string>;

Words tokens(std::string text, const char *delimiters) {
  Words found;
  for (char *token = vorn_str_tok(text.data(), delimiters); token != nullptr;
       token = vorn_str_tok(nullptr, delimiters))
    found.emplace_back(token);
  return found;
}

Words expected_tokens(std::string_view text, std::string_view delimiters) {
  Words found;
  bool inside = false;
  for (const char character : text) {
    const bool splits = delimiters.find(character) != std::string_view::npos;
    if (!splits && !inside) found.emplace_back();
    if (!splits) found.back().push_back(character);
    inside = !splits;
  }
  return found.empty() ? Words{""} : found;
}

// Reads a number, at most UINT64_MAX. Returns false if text has other characters.
bool read_number(std::string_view text, std::uint64_t &value) {
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  const std::uint64_t base = hexadecimal ? 16 : 10;
  value = 0;
  for (const char character : text.substr(hexadecimal ? 2 : 0)) {
    const std::size_t digit = std::string_view("0123456789abcdef0123456789ABCDEF").find(character);
    if (digit == std::string_view::npos || digit % 16 >= base) return false;
    const bool fits = value <= (UINT64_MAX - digit % 16) / base;
    value = fits ? value * base + digit % 16 : UINT64_MAX;
    if (!fits) break;
  }
  return true;
}

bool is_number(std::string_view text) {
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  const std::string_view digits = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
  return text.substr(hexadecimal ? 2 : 0).find_first_not_of(digits) == std::string_view::npos;
}

void check_numbers(const std::string &text) {
  const char *string = text.c_str();
  expect(vorn_str_isuint(string) == (is_number(text) ? 0 : -1));
  const std::uint64_t value = vorn_str_tou64(string);
  std::uint64_t want = 0;
  if (is_number(text) && read_number(text, want)) expect(value == want);
  const auto negated = static_cast<std::uint64_t>(vorn_str_tos64(("-" + text).c_str()));
  expect(negated == std::uint64_t{0} - value);
}

void check_cut(const std::string &text) {
  std::string cut = text;
  vorn_filter_newlinesymbol(cut.data());
  expect(cut.c_str() == text.substr(0, text.find_first_of("\r\n")));
  unsigned int position = 0;
  const std::size_t want = text.find('\n');
  const int found = vorn_get_charpos(text.c_str(), '\n', &position);
  expect(want == std::string::npos ? found == -1 : found == 0 && position == want);
}

void check_lower(const std::string &text) {
  std::string lower = text;
  vorn_str_tolower(lower.data());
  expect(lower.size() == text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool upper = text[at] >= 'A' && text[at] <= 'Z';
    expect(lower[at] == (upper ? text[at] + 32 : text[at]));
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  std::string_view input = text_of(data, size);
  const std::string delimiters = c_string(take_until(input, '\n'));
  const std::string text = c_string(input);
  expect(tokens(text, delimiters.c_str()) == expected_tokens(text, delimiters));
  check_numbers(text);
  check_cut(text);
  check_lower(text);
  return 0;
}
