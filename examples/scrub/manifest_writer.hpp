// Writes a manifest into an unfinished file next to it, and renames that file to the manifest when
// it is complete. Until then, and after any failure, the old manifest stays as it is.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_WRITER_HPP
#define SCRUB_MANIFEST_WRITER_HPP

#include <string>

#include "checksums.hpp"
#include "fd.hpp"
#include "manifest.hpp"
#include "own_files.hpp"

namespace scrub {

class ManifestWriter {
public:
  // Every function throws std::system_error if the file cannot be written.
  explicit ManifestWriter(const OwnPaths &paths);
  ManifestWriter(const ManifestWriter &) = delete;
  ManifestWriter &operator=(const ManifestWriter &) = delete;
  // Removes the unfinished file.
  ~ManifestWriter();

  // Files are added in path order, each followed by all its blocks.
  void begin_file(const FileRecord &file);
  void add_block(const Checksums &block);

  // Removes the last file and its blocks.
  void drop_file();

  // Renames the complete file to the manifest and syncs it to the disk.
  void commit();

  const Totals &totals() const { return now_.totals; }

private:
  // Everything that a line changes. A copy of it lets the writer remove a file.
  struct State {
    std::uint64_t length = 0; // of the manifest, in bytes
    LineCode code;
    Totals totals;
  };

  void open_unfinished(const std::string &directory);
  void check_target() const;
  void add_line(std::string_view text);
  void flush();

  const std::string manifest_; // path, for messages
  const std::string name_;
  const std::string unfinished_;
  Fd directory_;
  Fd file_;
  Vector<char> buffer_;       // not yet written
  std::uint64_t written_ = 0; // bytes in the file
  State now_;
  State before_file_;
  std::uint64_t block_ = 0; // the current file's next
};

} // namespace scrub

#endif
