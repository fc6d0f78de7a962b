// Orders and checks the paths of a manifest.
// SPDX-License-Identifier: Apache-2.0
#include "manifest.hpp"

#include <algorithm>
#include <array>

namespace scrub {

bool path_before(std::string_view a, std::string_view b) {
  const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c); };
  return std::ranges::lexicographical_compare(a, b, {}, rank, rank);
}

bool is_tree_path(std::string_view path) {
  if (path.find('\0') != std::string_view::npos) return false;
  while (true) {
    const std::size_t slash = path.find('/');
    const std::string_view name = path.substr(0, slash);
    if (name.empty() || name == "." || name == "..") return false;
    if (slash == std::string_view::npos) return true;
    path.remove_prefix(slash + 1);
  }
}

const Checksums &zero_block() {
  static const Checksums sums = checksums_of(std::array<std::byte, kBlockSize>());
  return sums;
}

} // namespace scrub
