// Forms the lines of a manifest and their codes.
// SPDX-License-Identifier: Apache-2.0
#include "manifest.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "text.hpp"
#include "vorn_crc.h"

namespace scrub {

bool path_before(std::string_view a, std::string_view b) {
  const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c); };
  return std::ranges::lexicographical_compare(a, b, {}, rank, rank);
}

String file_line(const FileRecord &file) {
  char text[80];
  std::snprintf(text, sizeof text, "file %" PRIu64 " %jd.%09ld ", file.size,
                static_cast<std::intmax_t>(file.written.tv_sec), file.written.tv_nsec);
  return text + escape(file.path);
}

String block_line(std::uint64_t number, const Checksums &block) {
  char text[40];
  std::snprintf(text, sizeof text, "block %" PRIu64 " %08" PRIx32, number, block.crc);
  String line(text);
  for (std::size_t i = 0; i < block.sectors; ++i) {
    std::snprintf(text, sizeof text, " %04x", block.guards[i]);
    line += text;
  }
  return line;
}

String end_line(const Totals &totals) {
  char text[96];
  std::snprintf(text, sizeof text, "end files %" PRIu64 " blocks %" PRIu64 " bytes %" PRIu64,
                totals.files, totals.blocks, totals.bytes);
  return text;
}

std::uint32_t LineCode::next(std::string_view text) {
  crc_ = vorn_crc32cContinue(crc_, text.data(), static_cast<std::uint32_t>(text.size()));
  crc_ = vorn_crc32cContinue(crc_, "\n", 1);
  return vorn_crc32cEnd(crc_);
}

} // namespace scrub
