// Reads a manifest line by line, in memory that does not depend on its length. Refuses anything
// that is not exactly as the writer writes it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_READER_HPP
#define SCRUB_MANIFEST_READER_HPP

#include <stdexcept>
#include <string>

#include "checksums.hpp"
#include "manifest.hpp"

namespace scrub {

// Says why a manifest is refused, with its name and line number.
struct ManifestError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class ManifestReader {
public:
  // Reads from the position of fd, which the caller keeps and closes. name is for messages. Throws
  // ManifestError, as the functions below do, or std::system_error when the file cannot be read.
  ManifestReader(int fd, std::string name);

  // Reads the line of the next file, and skips the unread blocks of the previous one. Returns false
  // at the end of the manifest; then the last line and the totals are right.
  bool next_file(FileRecord &file);

  // Reads the line of the file's next block. Returns false after the last block.
  bool next_block(Checksums &block);

  // The totals of the lines read so far.
  const Totals &totals() const { return totals_; }

private:
  std::string_view raw_line();
  std::string_view checked(std::string_view line);
  std::string_view next_line();
  void read_header();
  void check_path(const FileRecord &file) const;
  [[noreturn]] void refuse(const std::string &why) const;

  int fd_;
  std::string name_;
  Vector<char> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t line_ = 0;
  LineCode code_;

  String previous_path_;
  std::uint64_t size_ = 0;       // of the current file
  std::uint64_t next_block_ = 0; // the current file's next block
  Totals totals_;
};

} // namespace scrub

#endif
