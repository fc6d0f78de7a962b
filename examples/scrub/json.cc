// Builds JSON text on one line.
// SPDX-License-Identifier: Apache-2.0
#include "json.hpp"

#include <charconv>
#include <cstdio>

#include "text.hpp"

namespace scrub {
namespace {

bool is_utf8(std::string_view text) {
  std::uint32_t character = 0;
  while (!text.empty()) {
    const std::size_t length = utf8_length(text, character);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

// Some readers take U+2028 and U+2029 for the end of a line.
bool needs_escape(std::uint32_t character) {
  return character < 0x20 || character == '"' || character == '\\' ||
         (character >= 0x7F && character < 0xA0) || character == 0x2028 || character == 0x2029 ||
         changes_direction(character);
}

String base64(std::string_view bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  String text;
  for (; !bytes.empty(); bytes.remove_prefix(bytes.size() < 3 ? bytes.size() : 3)) {
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i)
      group = group << 8 | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0u);
    for (std::size_t i = 0; i < 4; ++i)
      text += i <= bytes.size() ? kDigits[group >> (18 - 6 * i) & 63] : '=';
  }
  return text;
}

} // namespace

Json &Json::key(std::string_view name) {
  separate();
  quote(name);
  text_ += ':';
  comma_ = false;
  return *this;
}

Json &Json::text(std::string_view text) {
  separate();
  quote(text);
  return *this;
}

Json &Json::number(std::uint64_t number) {
  char digits[24];
  return raw({digits, std::to_chars(digits, digits + sizeof digits, number).ptr});
}

Json &Json::real(double number) {
  char digits[352]; // the greatest double has 309 digits
  return raw(
      {digits,
       std::to_chars(digits, digits + sizeof digits, number, std::chars_format::fixed, 3).ptr});
}

Json &Json::flag(bool flag) { return raw(flag ? "true" : "false"); }

Json &Json::raw(std::string_view json) {
  separate();
  text_ += json;
  return *this;
}

Json &Json::path(std::string_view name, std::string_view path) {
  key(name).text(path);
  if (is_utf8(path)) return *this;
  return key(std::string(name) + "_bytes").text(base64(path));
}

Json &Json::open(char bracket) {
  separate();
  text_ += bracket;
  comma_ = false;
  return *this;
}

Json &Json::close(char bracket) {
  text_ += bracket;
  comma_ = true;
  return *this;
}

void Json::separate() {
  if (comma_) text_ += ',';
  comma_ = true;
}

void Json::quote(std::string_view text) {
  text_ += '"';
  while (!text.empty()) {
    std::uint32_t character = 0;
    const std::size_t length = utf8_length(text, character);
    if (length == 0) {
      text_ += "\\ufffd";
    } else if (needs_escape(character)) {
      char escaped[16];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned int>(character));
      text_ += escaped;
    } else {
      text_ += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  text_ += '"';
}

} // namespace scrub
