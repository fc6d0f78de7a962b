// Reads a manifest line by line, in memory that does not depend on its length. Whatever is not
// exactly as the writer writes it is refused.
#ifndef SCRUB_MANIFEST_READER_HPP
#define SCRUB_MANIFEST_READER_HPP

#include <stdexcept>
#include <string>

#include "checksums.hpp"
#include "manifest.hpp"

namespace scrub {

// Why a manifest is refused, with its name and line number.
struct ManifestError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class ManifestReader {
public:
  // Reads from fd, which stays the caller's, at its position. name is for messages. Throws
  // ManifestError, as the functions below do, or std::system_error when the file cannot be read.
  ManifestReader(int fd, std::string name);

  // The next file, after any blocks of the one before that were not asked for. False at the end of
  // the manifest: its last line was there and its totals are right.
  bool next_file(FileRecord &file);

  // The next block of that file. False after its last.
  bool next_block(Checksums &block);

  // What has been read so far; all of the manifest once next_file has returned false.
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
  std::uint64_t next_block_ = 0; // its block that comes next
  Totals totals_;
};

} // namespace scrub

#endif
