#include "manifest.hpp"

#include <algorithm>

#include "vorn_crc.h"

namespace scrub {

bool path_before(std::string_view a, std::string_view b) {
  const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c); };
  return std::ranges::lexicographical_compare(a, b, {}, rank, rank);
}

std::uint32_t LineCode::next(std::string_view text) {
  crc_ = vorn_crc32cContinue(crc_, text.data(), static_cast<std::uint32_t>(text.size()));
  crc_ = vorn_crc32cContinue(crc_, "\n", 1);
  return vorn_crc32cEnd(crc_);
}

} // namespace scrub
