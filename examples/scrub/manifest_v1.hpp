// Declares the reader of version 1 of the manifest, a text of lines that begin with a code.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_V1_HPP
#define SCRUB_MANIFEST_V1_HPP

#include <cstdint>
#include <string>
#include <string_view>

#include "manifest_format.hpp"
#include "manifest_input.hpp"

namespace scrub {

// Computes the codes of the lines: the CRC-32C of the texts, newlines included, of a line and of
// all lines before it, without their codes.
class LineCode {
public:
  // Returns the code of the next line, whose text has no newline.
  std::uint32_t next(std::string_view text);
  std::uint32_t value() const;

private:
  std::uint32_t crc_ = 0xFFFFFFFF;
};

class ManifestV1 final : public ManifestFormat {
public:
  static constexpr std::size_t kCodeLength = 9; // eight digits and a blank

  // Reads the header, which input holds.
  explicit ManifestV1(ManifestInput &input);

  unsigned int version() const override { return 1; }
  bool next_file(FileRecord &file) override;
  bool next_block(Checksums &block) override;
  std::uint32_t code() const override { return code_.value(); }

private:
  std::string_view raw_line();
  std::string_view next_line();
  [[noreturn]] void refuse(const std::string &why) const;

  ManifestInput &input_;
  std::uint64_t line_ = 0;
  LineCode code_;
  String previous_path_;
};

} // namespace scrub

#endif
