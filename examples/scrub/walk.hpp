// Walks a tree in path order, one file at a time. Its memory holds the names of the directories
// that lead to the current file, not of the whole tree.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_WALK_HPP
#define SCRUB_WALK_HPP

#include <cstdint>
#include <dirent.h>
#include <memory>
#include <string>

#include "memory.hpp"
#include "own_files.hpp"

namespace scrub {

// A regular file, or something that cannot be read: a directory, or a file whose path is too long.
// Valid until the next step of the walk.
struct Found {
  String path;
  int directory = -1;         // open it in this directory
  const char *name = nullptr; // under this name
  int error = 0;              // if not 0, why it cannot be read
};

class Walk {
public:
  // Throws std::system_error if root cannot be read.
  Walk(const std::string &root, const OwnFiles &own);

  // Returns false at the end.
  bool next(Found &found);

  // The number of links and of special files that the walk has skipped.
  std::uint64_t links() const { return links_; }
  std::uint64_t specials() const { return specials_; }

private:
  struct CloseDirectory {
    void operator()(DIR *directory) const { closedir(directory); }
  };
  struct Entry {
    String name;
    unsigned char type; // DT_REG and so on
  };
  struct Level {
    std::unique_ptr<DIR, CloseDirectory> directory;
    std::size_t path_length; // of the directory, with the slash after it
    Vector<Entry> entries;
    std::size_t next = 0;
  };

  int enter(int parent, const char *name);
  int list(Level &level) const;

  const OwnFiles &own_;
  Vector<Level> levels_;
  String path_; // of the current directory with its slash, or of the file found
  std::uint64_t links_ = 0;
  std::uint64_t specials_ = 0;
};

} // namespace scrub

#endif
