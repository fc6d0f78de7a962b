// Formats names and numbers.
// SPDX-License-Identifier: Apache-2.0
#include "text.hpp"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>
#include <iterator>

namespace scrub {
namespace {

// Returns the length of the first character of text if it needs no escape. Otherwise returns 0, and
// the caller escapes the first byte. Terminals obey the control characters U+0080 to U+009F as they
// do those of ASCII.
std::size_t plain_length(std::string_view text) {
  constexpr std::uint32_t kLeast[] = {0, 0, 0xA0, 0x800, 0x10000}; // by length
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return first > ' ' && first != 0x7F && first != '%' ? 1 : 0;

  const auto length = static_cast<std::size_t>(std::countl_one(first));
  if (length < 2 || length > 4 || length > text.size()) return 0;
  std::uint32_t character = first & (0xFFu >> length);
  for (const unsigned char at : text.substr(1, length - 1)) {
    if ((at & 0xC0u) != 0x80) return 0;
    character = character << 6 | (at & 0x3Fu);
  }
  const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
  return character < kLeast[length] || character > 0x10FFFF || surrogate ? 0 : length;
}

} // namespace

String escape(std::string_view path) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  String word;
  word.reserve(path.size());
  while (!path.empty()) {
    const std::size_t plain = plain_length(path);
    const auto first = static_cast<unsigned char>(path[0]);
    if (plain != 0) {
      word += path.substr(0, plain);
    } else {
      word += {'%', kDigits[first >> 4], kDigits[first & 15]};
    }
    path.remove_prefix(std::max<std::size_t>(plain, 1));
  }
  return word;
}

bool unescape(std::string_view word, String &path) {
  path.clear();
  for (std::size_t at = 0; at < word.size(); ++at) {
    if (word[at] != '%') {
      path += word[at];
      continue;
    }
    if (word.size() - at < 3) return false;
    unsigned char c = 0;
    const char *digits = word.data() + at + 1;
    const auto end = std::from_chars(digits, digits + 2, c, 16).ptr;
    if (end != digits + 2) return false;
    path += static_cast<char>(c);
    at += 2;
  }
  return escape(path) == word;
}

std::string grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (auto at = static_cast<std::ptrdiff_t>(text.size()) - 3; at > 0; at -= 3)
    text.insert(static_cast<std::size_t>(at), 1, ',');
  return text;
}

std::string bytes_text(double bytes) {
  constexpr const char *kUnits[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
  std::size_t unit = 0;
  while (bytes >= 999.95 && unit + 1 < std::size(kUnits)) {
    bytes /= 1000;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.*f %s", unit == 0 ? 0 : 1, bytes, kUnits[unit]);
  return text;
}

std::string counted(std::uint64_t number, std::string_view noun) {
  std::string text = grouped(number);
  text.append(" ").append(noun);
  if (number != 1) text += 's';
  return text;
}

} // namespace scrub
