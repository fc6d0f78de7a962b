// Declares the writer of manifests, in version 2. It writes into an unfinished file, which replaces
// the manifest when it is complete. Until then, and after any failure, the old manifest stays.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_WRITER_HPP
#define SCRUB_MANIFEST_WRITER_HPP

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "manifest.hpp"
#include "manifest_encoding.hpp"
#include "own_files.hpp"
#include "unfinished_file.hpp"

namespace scrub {

class ManifestWriter {
public:
  // Every function throws std::system_error if the file cannot be written, and std::logic_error
  // rather than write a manifest that the reader would refuse.
  ManifestWriter(const OwnPaths &paths, const TreeRecord &tree);

  // Files are added in path order, each followed by all its blocks. A path has at most kMaxPath
  // bytes.
  void begin_file(const FileRecord &file);
  void add_block(const Checksums &block);
  void add_zero_blocks(std::uint64_t count); // whole blocks of zeros

  // Removes the last file and its blocks. Nothing has been dropped since the file began.
  void drop_file();

  // Syncs the complete file to the disk and renames it to the manifest. The manifest that it
  // replaces is kept as OwnPaths::old_name().
  void commit();

  // Leaves the unfinished file, without the last file if blocks of it are missing.
  void keep_unfinished();

  const Totals &totals() const { return now_.totals; }

  // The code that a reader of this manifest has at its end, after commit().
  std::uint32_t code() const { return now_.code.value(); }

private:
  // Everything that a record changes. A copy of it lets the writer remove a file.
  struct State {
    std::uint64_t written = 0; // bytes of the complete frames
    std::size_t frame = 0;     // bytes of the frame
    FrameCode code;            // of the complete frames
    FileBase base;
    Totals totals;
  };

  void put_tree(const TreeRecord &tree);
  void put_path(std::string_view path);
  void put_run();
  void put_head(RecordKind kind, std::uint64_t number);
  void put_varint(std::uint64_t number);
  void put_difference(std::uint64_t value, std::uint64_t base) { put_varint(zigzag(value - base)); }
  void put_bytes(std::string_view bytes);
  void put_text(std::string_view text);
  std::size_t room() const { return kFrameHead + kMaxPayload - frame_.size(); }
  void make_room(std::size_t size);
  void flush_frame();
  void end_file();

  UnfinishedFile file_;
  Vector<char> frame_; // with room for its head at the beginning
  Vector<char> run_;   // bytes of the blocks of the current run
  std::uint64_t run_blocks_ = 0;
  std::uint64_t zeros_ = 0; // blocks of the current run of zeros
  State now_;
  State before_file_;
  std::uint64_t size_ = 0;  // of the current file
  std::uint64_t block_ = 0; // the current file's next
};

} // namespace scrub

#endif
