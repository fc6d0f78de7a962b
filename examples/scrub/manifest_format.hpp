// Declares what a reader of one version of the manifest does.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_FORMAT_HPP
#define SCRUB_MANIFEST_FORMAT_HPP

#include <cstdint>

#include "manifest.hpp"

namespace scrub {

// The functions throw ManifestError and std::system_error. ManifestReader describes them.
class ManifestFormat {
public:
  virtual ~ManifestFormat() = default;

  virtual unsigned int version() const = 0;
  virtual bool next_file(FileRecord &file) = 0;
  virtual bool next_block(Checksums &block) = 0;
  virtual std::uint64_t next_zeros() { return 0; }
  virtual std::uint32_t code() const = 0;

  const TreeRecord &tree() const { return tree_; }
  const Totals &totals() const { return totals_; }
  bool has_blocks_left() const { return next_block_ != block_count(size_); }

protected:
  void begin_blocks(std::uint64_t size) {
    size_ = size;
    next_block_ = 0;
    ++totals_.files;
    totals_.bytes += size;
  }

  TreeRecord tree_;
  Totals totals_;
  std::uint64_t size_ = 0;       // of the current file
  std::uint64_t next_block_ = 0; // the current file's next block
};

} // namespace scrub

#endif
