// Formats names, numbers and times.
// SPDX-License-Identifier: Apache-2.0
#include "text.hpp"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>
#include <iterator>

namespace scrub {
namespace {

// Terminals obey the control characters U+0080 to U+009F as they do those of ASCII.
bool is_plain(std::uint32_t character) {
  if (character < 0x80) return character > ' ' && character != 0x7F && character != '%';
  return character >= 0xA0;
}

// Returns a path as a word in which only the characters that plain accepts stay as they are.
template <class Plain> String word_of(std::string_view path, Plain plain) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  String word;
  word.reserve(path.size());
  while (!path.empty()) {
    std::uint32_t character = 0;
    const std::size_t length = utf8_length(path, character);
    const std::size_t taken = std::max<std::size_t>(length, 1);
    if (length != 0 && plain(character)) {
      word += path.substr(0, taken);
    } else {
      for (const unsigned char byte : path.substr(0, taken))
        word += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    path.remove_prefix(taken);
  }
  return word;
}

} // namespace

std::size_t utf8_length(std::string_view text, std::uint32_t &character) {
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000}; // by length
  const auto first = static_cast<unsigned char>(text[0]);
  character = first;
  if (first < 0x80) return 1;

  const auto length = static_cast<std::size_t>(std::countl_one(first));
  if (length < 2 || length > 4 || length > text.size()) return 0;
  character = first & (0xFFu >> length);
  for (const unsigned char at : text.substr(1, length - 1)) {
    if ((at & 0xC0u) != 0x80) return 0;
    character = character << 6 | (at & 0x3Fu);
  }
  const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
  return character < kLeast[length] || character > 0x10FFFF || surrogate ? 0 : length;
}

bool changes_direction(std::uint32_t character) {
  return character == 0x061C || character == 0x200E || character == 0x200F ||
         (character >= 0x202A && character <= 0x202E) ||
         (character >= 0x2066 && character <= 0x2069);
}

String escape(std::string_view path) { return word_of(path, is_plain); }

String printable(std::string_view path) {
  return word_of(path, [](std::uint32_t character) {
    return is_plain(character) && !changes_direction(character);
  });
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

std::string duration_text(std::uint64_t seconds) {
  struct Unit {
    std::uint64_t seconds;
    const char *name;
  };
  constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
  const Unit *unit = std::find_if(std::begin(kUnits), std::end(kUnits) - 1,
                                  [seconds](const Unit &one) { return seconds >= one.seconds; });
  std::string text = grouped(seconds / unit->seconds) + " " + unit->name;
  if (unit->seconds == 1) return text;
  const std::uint64_t rest = seconds % unit->seconds / unit[1].seconds;
  return text + " " + std::to_string(rest) + " " + unit[1].name;
}

std::string utc_text(std::time_t time) {
  std::tm parts{};
  char text[64] = "";
  if (gmtime_r(&time, &parts) != nullptr)
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

} // namespace scrub
