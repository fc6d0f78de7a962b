// Refuses the values of options and settings that are no number, part, pattern or file.
// SPDX-License-Identifier: Apache-2.0
#include "values.hpp"

#include <algorithm>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>

#include "text.hpp"

namespace scrub {
namespace {

constexpr std::uint64_t kMaxParts = 10000;

// Digits alone: no sign, no blank.
std::optional<std::uint64_t> number_of(std::string_view text, const Range &range) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
  if (error != std::errc() || end != text.end() || number < range.least || number > range.most ||
      number % range.step != 0)
    return std::nullopt;
  return number;
}

std::string range_text(const Range &range) {
  const std::string ends = std::to_string(range.least) + " to " + std::to_string(range.most);
  return range.step == 1 ? ends : ends + ", a multiple of " + std::to_string(range.step);
}

} // namespace

std::string readable(std::string_view text) {
  constexpr std::string_view kKept = " %"; // printable() would change these too
  std::string shown;
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find_first_of(kKept), text.size());
    shown += printable(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) break;
    shown += text[0];
    text.remove_prefix(1);
  }
  return shown;
}

void refuse_value(std::string_view name, std::string_view text, const std::string &wanted) {
  throw std::invalid_argument(std::string(name) + " is '" + readable(text) +
                              "', wanted: " + wanted);
}

std::uint64_t number_value(std::string_view name, std::string_view text, const Range &range) {
  const auto number = number_of(text, range);
  if (!number) refuse_value(name, text, range_text(range));
  return *number;
}

Part part_value(std::string_view name, std::string_view text) {
  const std::size_t slash = std::min(text.find('/'), text.size());
  const std::string_view first = text.substr(0, slash);
  const auto of = number_of(text.substr(std::min(slash + 1, text.size())), {1, kMaxParts});
  if (of && first == "next") return {0, *of};
  const auto number = of ? number_of(first, {1, *of}) : std::nullopt;
  if (!number) refuse_value(name, text, "K/N or next/N, with K from 1 to N, and N from 1 to 10000");
  return {*number, *of};
}

std::string pattern_value(std::string_view name, std::string_view text) {
  if (text.find_first_not_of('/') == text.npos)
    refuse_value(name, text, "a pattern of names or of paths");
  return std::string(text);
}

std::string file_value(std::string_view name, std::string_view text) {
  const std::string path(text);
  if (path.empty()) refuse_value(name, text, "a file");
  struct stat status {};
  if (path.ends_with('/') || (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)))
    refuse_value(name, text, "a file, not a directory");
  return path;
}

} // namespace scrub
