// Reads version 1 of the manifest line by line, and refuses lines that its writer did not write.
// SPDX-License-Identifier: Apache-2.0
#include "manifest_v1.hpp"

#include <algorithm>
#include <charconv>
#include <concepts>

#include "text.hpp"
#include "vorn_crc.h"

namespace scrub {
namespace {

constexpr std::string_view kHeader =
    "vorn-scrub-manifest 1 block 4096 crc32c sector 512 crc16-t10dif";
constexpr std::size_t kMaxPathOfLine = 4096;
// The code, the longest path escaped, the rest of a file's line and the newline.
constexpr std::size_t kMaxLine = ManifestV1::kCodeLength + 3 * kMaxPathOfLine + 128;

// Parses a line from left to right. Accepts numbers only in the form that the writer printed.
class Fields {
public:
  explicit Fields(std::string_view text) : rest_(text) {}

  bool literal(std::string_view text) {
    if (!rest_.starts_with(text)) return false;
    rest_.remove_prefix(text.size());
    return true;
  }

  template <std::integral T> bool number(T &value) {
    const std::string_view digits = take_number(value, 10);
    const std::string_view magnitude = digits.substr(digits.starts_with('-') ? 1 : 0);
    return !digits.empty() && (magnitude[0] != '0' || digits == "0");
  }

  template <std::unsigned_integral T> bool hex(T &value) {
    const std::string_view digits = take_number(value, 16);
    return digits.size() == 2 * sizeof(T) &&
           std::ranges::none_of(digits, [](char c) { return c >= 'A' && c <= 'F'; });
  }

  bool nanoseconds(long &value) {
    const std::string_view digits = rest_.substr(0, 9);
    return digits.size() == 9 && digits[0] != '-' && take_number(value, 10).size() == 9;
  }

  std::string_view rest() const { return rest_; }
  bool at_end() const { return rest_.empty(); }

private:
  template <class T> std::string_view take_number(T &value, int base) {
    const char *begin = rest_.data();
    const auto [end, error] = std::from_chars(begin, begin + rest_.size(), value, base);
    if (error != std::errc()) return {};
    const std::string_view digits = rest_.substr(0, static_cast<std::size_t>(end - begin));
    rest_.remove_prefix(digits.size());
    return digits;
  }

  std::string_view rest_;
};

bool parse_file(std::string_view text, FileRecord &file) {
  Fields fields(text);
  file.changed = {0, -1};
  file.inode = 0;
  return fields.literal("file ") && fields.number(file.size) && fields.literal(" ") &&
         fields.number(file.written.tv_sec) && fields.literal(".") &&
         fields.nanoseconds(file.written.tv_nsec) && fields.literal(" ") &&
         unescape(fields.rest(), file.path);
}

// The block must have one guard for each of the sectors.
bool parse_block(std::string_view text, std::uint64_t &number, std::uint32_t sectors,
                 Checksums &block) {
  Fields fields(text);
  block = {};
  block.sectors = sectors;
  if (!fields.literal("block ") || !fields.number(number) || !fields.literal(" ") ||
      !fields.hex(block.crc))
    return false;
  for (std::size_t i = 0; i < sectors; ++i) {
    if (!fields.literal(" ") || !fields.hex(block.guards[i])) return false;
  }
  return fields.at_end();
}

bool parse_end(std::string_view text, Totals &totals) {
  Fields fields(text);
  return fields.literal("end files ") && fields.number(totals.files) &&
         fields.literal(" blocks ") && fields.number(totals.blocks) && fields.literal(" bytes ") &&
         fields.number(totals.bytes) && fields.at_end();
}

} // namespace

std::uint32_t LineCode::next(std::string_view text) {
  crc_ = vorn_crc32cContinue(crc_, text.data(), static_cast<std::uint32_t>(text.size()));
  crc_ = vorn_crc32cContinue(crc_, "\n", 1);
  return value();
}

std::uint32_t LineCode::value() const { return vorn_crc32cEnd(crc_); }

ManifestV1::ManifestV1(ManifestInput &input) : input_(input) {
  if (next_line() != kHeader) refuse("this program cannot read this kind of manifest");
}

bool ManifestV1::next_file(FileRecord &file) {
  Checksums ignored;
  while (next_block(ignored)) {
  }

  const std::string_view text = next_line();
  if (text.starts_with("file ")) {
    if (!parse_file(text, file)) refuse("this is no proper line of a file");
    if (file.path.size() > kMaxPathOfLine || !is_tree_path(file.path))
      refuse("this is not the path of a file below the directory");
    if (totals_.files != 0 && !path_before(previous_path_, file.path))
      refuse("this file is out of order");
    previous_path_ = file.path;
    begin_blocks(file.size);
    return true;
  }

  Totals stated;
  if (!parse_end(text, stated)) refuse("a line of a file, or the last line, should be here");
  if (stated != totals_) refuse("the totals do not fit the lines before");
  if (!raw_line().empty()) refuse("there is more text after the last line");
  return false;
}

bool ManifestV1::next_block(Checksums &block) {
  if (!has_blocks_left()) return false;
  const std::uint32_t sectors = sector_count(block_length(size_, next_block_));
  std::uint64_t number = 0;
  if (!parse_block(next_line(), number, sectors, block) || number != next_block_)
    refuse("the line of block " + std::to_string(next_block_) + " with " + std::to_string(sectors) +
           " guards should be here");
  ++next_block_;
  ++totals_.blocks;
  return true;
}

// Returns the next line with its newline. Returns the rest of the file if it has no newline: an
// empty text at the end of the file.
std::string_view ManifestV1::raw_line() {
  ++line_;
  const std::string_view held = input_.hold(kMaxLine + 1);
  const std::size_t newline = held.substr(0, kMaxLine + 1).find('\n');
  if (newline == std::string_view::npos && held.size() > kMaxLine) refuse("this line is too long");
  const std::string_view line =
      held.substr(0, newline == std::string_view::npos ? held.size() : newline + 1);
  input_.take(line.size());
  return line;
}

// Checks the code of the next line, and returns its text without code and newline.
std::string_view ManifestV1::next_line() {
  const std::string_view line = raw_line();
  if (line.empty()) refuse("the manifest is cut: its last line should be here");
  if (!line.ends_with('\n')) refuse("the manifest is cut within this line");

  Fields fields(line.substr(0, line.size() - 1));
  std::uint32_t code = 0;
  const bool coded = fields.hex(code) && fields.literal(" ");
  if (!coded || code_.next(fields.rest()) != code)
    refuse("this line is not as it was written, or one before it is lost");
  return fields.rest();
}

void ManifestV1::refuse(const std::string &why) const {
  throw ManifestError(input_.name() + ", line " + std::to_string(line_) + ": " + why);
}

} // namespace scrub
