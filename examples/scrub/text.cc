#include "text.hpp"

#include <charconv>
#include <cstdio>
#include <iterator>

namespace scrub {
namespace {

bool needs_escape(unsigned char c) { return c <= ' ' || c == 0x7F || c == '%'; }

} // namespace

String escape(std::string_view path) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  String word;
  word.reserve(path.size());
  for (const char at : path) {
    const auto c = static_cast<unsigned char>(at);
    if (needs_escape(c)) {
      word += {'%', kDigits[c >> 4], kDigits[c & 15]};
    } else {
      word += at;
    }
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
