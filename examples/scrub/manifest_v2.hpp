// Declares the reader of version 2 of the manifest, binary records in frames that have a code.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_V2_HPP
#define SCRUB_MANIFEST_V2_HPP

#include <cstdint>
#include <string>
#include <string_view>

#include "manifest_encoding.hpp"
#include "manifest_format.hpp"
#include "manifest_input.hpp"

namespace scrub {

// Parses the records of a frame from left to right. A function that returns false did not find
// what it looks for, in the only form that the writer writes.
class RecordBytes {
public:
  explicit RecordBytes(std::string_view rest = {}) : rest_(rest) {}

  bool varint(std::uint64_t &value);
  bool difference(std::uint64_t base, std::uint64_t &value);
  bool bytes(std::size_t size, std::string_view &text);
  bool text(std::string_view &text); // its length comes first; has no NUL

  bool at_end() const { return rest_.empty(); }
  std::size_t size() const { return rest_.size(); }
  const char *data() const { return rest_.data(); }
  void skip(std::size_t size) { rest_.remove_prefix(size); }

private:
  std::string_view rest_;
};

class ManifestV2 final : public ManifestFormat {
public:
  // Reads the header, which input holds, and the record of the tree.
  explicit ManifestV2(ManifestInput &input);

  unsigned int version() const override { return 2; }
  bool next_file(FileRecord &file) override;
  bool next_block(Checksums &block) override;
  std::uint64_t next_zeros() override;
  std::uint32_t code() const override { return code_.value(); }

private:
  struct Head {
    RecordKind kind;
    std::uint64_t number;
  };

  void read_frame();
  Head next_head();
  void read_tree();
  bool parse_tree(std::uint64_t flags);
  bool add_to_path(std::size_t start, Head head, std::string_view text);
  void read_path(Head &head);
  bool parse_attributes(FileRecord &file);
  void read_end(std::uint64_t number);
  void skip_blocks();
  void begin_run();
  void begin_data_run(std::uint64_t count);
  [[noreturn]] void refuse(const std::string &why) const;

  ManifestInput &input_;
  FrameCode code_;
  RecordBytes frame_;              // the rest of the current frame
  const char *payload_ = nullptr;  // the beginning of the current frame's records
  std::uint64_t frame_offset_ = 0; // of them in the manifest
  std::uint64_t at_ = 0;           // byte of the record or frame, for messages

  FileBase base_;
  String path_;           // of the file whose record is read
  std::uint64_t run_ = 0; // blocks left of the current run
  bool zeros_ = false;    // the run is one of zeros
  bool first_run_ = true; // of the current file
};

} // namespace scrub

#endif
