// Declares the reader of manifests of every version. It reads in memory that does not depend on
// the manifest's length, and refuses anything that is not exactly as the writer writes it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_READER_HPP
#define SCRUB_MANIFEST_READER_HPP

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "manifest.hpp"
#include "manifest_format.hpp"
#include "manifest_input.hpp"

namespace scrub {

class ManifestReader {
public:
  // A partial manifest was not completed, and may be cut anywhere. It ends where it is no longer as
  // it was written.
  enum class Kind { kWhole, kPartial };

  // Reads the header and the tree from the position of fd, which the caller keeps and closes. name
  // is for messages. Throws ManifestError or std::system_error if it cannot read them.
  ManifestReader(int fd, std::string name, Kind kind = Kind::kWhole);

  unsigned int version() const { return format_->version(); }
  const TreeRecord &tree() const { return format_->tree(); }

  // The functions below throw std::system_error if the file cannot be read, and ManifestError
  // unless the manifest is partial. After an exception, only the destructor may be called.

  // Reads the record of the next file, and skips the unread blocks of the previous one. Returns
  // false at the end; then the totals of a whole manifest are right, and nothing follows them.
  bool next_file(FileRecord &file);

  // Reads the checksums of the file's next block. Returns false after the last block.
  bool next_block(Checksums &block);

  // Passes over the run of zeros that is next in the file. Returns the number of its blocks, 0 if
  // the next block has other content or there is none. Version 1 has no runs.
  std::uint64_t next_zeros();

  // Returns whether a partial manifest ended before the last block of its last file.
  bool block_missing() const { return ended_ && format_->has_blocks_left(); }

  // The totals of what was read or skipped so far.
  const Totals &totals() const { return format_->totals(); }

  // The CRC-32C of the manifest up to the end of the frame or line that was read last. At the end
  // it tells this manifest from others.
  std::uint32_t code() const { return format_->code(); }

private:
  template <class Function> std::invoke_result_t<Function> unless_ended(Function read);

  ManifestInput input_;
  const Kind kind_;
  bool ended_ = false;
  std::unique_ptr<ManifestFormat> format_;
};

} // namespace scrub

#endif
