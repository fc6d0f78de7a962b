// Builds HTML in which every value is escaped.
// SPDX-License-Identifier: Apache-2.0
#include "html.hpp"

#include <algorithm>
#include <cstdio>

#include "text.hpp"

namespace scrub {
namespace {

std::string_view entity(char c) {
  switch (c) {
  case '&':
    return "&amp;";
  case '<':
    return "&lt;";
  case '>':
    return "&gt;";
  case '"':
    return "&quot;";
  case '\'':
    return "&#39;";
  default:
    return {};
  }
}

// Returns the length of a character at the beginning of word that changes the direction of the text
// after it: U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069. Returns 0 for others.
std::size_t direction_length(std::string_view word) {
  if (word.starts_with("\xD8\x9C")) return 2;
  if (!word.starts_with("\xE2\x80") && !word.starts_with("\xE2\x81")) return 0;
  if (word.size() < 3) return 0;
  const auto last = static_cast<unsigned char>(word[2]);
  if (word[1] == '\x81') return last >= 0xA6 && last <= 0xA9 ? 3 : 0;
  return last == 0x8E || last == 0x8F || (last >= 0xAA && last <= 0xAE) ? 3 : 0;
}

} // namespace

// word holds neither control characters of ASCII nor invalid UTF-8.
void Html::add_word(std::string_view word) {
  while (!word.empty()) {
    const std::size_t direction = direction_length(word);
    const std::string_view escaped = entity(word[0]);
    for (const char c : word.substr(0, direction)) {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X",
                    static_cast<unsigned>(static_cast<unsigned char>(c)));
      text_ += code;
    }
    if (direction == 0 && escaped.empty()) text_ += word[0];
    text_ += escaped;
    word.remove_prefix(std::max<std::size_t>(direction, 1));
  }
}

// In a text a blank and '%' stand for themselves. A path cannot contain "%XX" otherwise than as an
// escape, but a text can, and is not meant to be read back.
Html &Html::text(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = std::min(text.find_first_of(" %\n"), text.size());
    add_word(escape(text.substr(0, length)));
    text.remove_prefix(length);
    if (text.empty()) break;
    text_ += text[0];
    text.remove_prefix(1);
  }
  return *this;
}

Html &Html::path(std::string_view path) {
  add_word(escape(path));
  return *this;
}

Html &Html::number(std::uint64_t number) {
  text_ += grouped(number);
  return *this;
}

Html &Html::at(double coordinate) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", coordinate);
  text_ += text;
  return *this;
}

} // namespace scrub
