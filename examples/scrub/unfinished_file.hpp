// Declares the file that a manifest is written to before it replaces the old one.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_UNFINISHED_FILE_HPP
#define SCRUB_UNFINISHED_FILE_HPP

#include <cstdint>
#include <string>
#include <string_view>

#include "fd.hpp"
#include "own_files.hpp"

namespace scrub {

class UnfinishedFile {
public:
  // Makes the file, and locks it so that one run at a time writes it. A file that another run left
  // is replaced; a descriptor that is open for it still reads it. Every function throws
  // std::system_error if it cannot do its work.
  explicit UnfinishedFile(const OwnPaths &paths);
  UnfinishedFile(const UnfinishedFile &) = delete;
  UnfinishedFile &operator=(const UnfinishedFile &) = delete;
  // Removes the file unless commit() or keep() has returned.
  ~UnfinishedFile();

  std::uint64_t length() const { return length_; }

  // Appends all the bytes. After an exception the length is as before.
  void append(std::string_view bytes);
  void cut(std::uint64_t length);

  // Syncs the file to the disk, keeps the old manifest as OwnPaths::old_name(), and renames the
  // file to the manifest. If it throws, the old manifest is in its place, unless only the last sync
  // of the directory failed.
  void commit();

  // Syncs the file to the disk and leaves it there.
  void keep();

  // Removes the name, and returns a descriptor at the beginning of what was written.
  Fd detach();

private:
  void check_replaceable(const std::string &name) const;
  struct stat open_locked(int flags);
  bool is_as_the_manifest() const;
  bool keep_old() const;
  void sync();

  const OwnPaths paths_;
  Fd directory_;
  Fd file_;
  std::uint64_t length_ = 0;
};

} // namespace scrub

#endif
