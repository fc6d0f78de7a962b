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

} // namespace

void Html::add_word(std::string_view word) {
  for (const char c : printable(word)) {
    const std::string_view escaped = entity(c);
    if (escaped.empty()) text_ += c;
    text_ += escaped;
  }
}

// In a text a blank and '%' stand for themselves. A path cannot contain "%XX" otherwise than as an
// escape, but a text can, and is not meant to be read back.
Html &Html::text(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = std::min(text.find_first_of(" %\n"), text.size());
    add_word(text.substr(0, length));
    text.remove_prefix(length);
    if (text.empty()) break;
    text_ += text[0];
    text.remove_prefix(1);
  }
  return *this;
}

Html &Html::path(std::string_view path) {
  add_word(path);
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
