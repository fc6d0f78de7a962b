// Trims, checks and copies texts of configuration files.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_text.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "base/log.hpp"
#include "vorn_cfg.h"

namespace vorn::cfg {
namespace {

constexpr std::array<bool, 256> kNameCharacters = [] {
  std::array<bool, 256> table{};
  for (const char c :
       std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_"))
    table[static_cast<unsigned char>(c)] = true;
  return table;
}();

} // namespace

std::string_view trim_end(std::string_view text) {
  while (!text.empty() && is_blank(text.back()))
    text.remove_suffix(1);
  return text;
}

std::string_view trim(std::string_view text) {
  text = trim_end(text);
  while (!text.empty() && is_leading_blank(text.front()))
    text.remove_prefix(1);
  return text;
}

bool vorn_cfg_check_name(std::string_view name) {
  return std::all_of(name.begin(), name.end(),
                     [](char c) { return kNameCharacters[static_cast<unsigned char>(c)]; });
}

bool holds_line_end(const char *text) { return std::strpbrk(text, "\n\r") != nullptr; }

int copy_text(char *dest, std::size_t size, std::string_view src) {
  if (dest == nullptr || size == 0) return EINVAL;
  dest[0] = '\0';
  if (src.size() >= size) return ERANGE;
  std::memcpy(dest, src.data(), src.size());
  dest[src.size()] = '\0';
  return 0;
}

} // namespace vorn::cfg

int vorn_remove_noneprint_characters(const char *src, int srcLen, char *dst, int dstSize) {
  if (src == nullptr || dst == nullptr) return VORN_FAIL(-1, "Param is null.");
  if (dstSize <= srcLen || dstSize < 1) return -1;
  int length = 0;
  while (length < srcLen && std::isprint(static_cast<unsigned char>(src[length])) != 0) {
    dst[length] = src[length];
    ++length;
  }
  dst[length] = '\0';
  return 0;
}
