// Walks a tree in path order, one file at a time. Its memory holds the names of the directories
// that lead to the current file, not of the whole tree, and it keeps few descriptors open.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_WALK_HPP
#define SCRUB_WALK_HPP

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <sys/stat.h>

#include "fd.hpp"
#include "memory.hpp"
#include "own_files.hpp"
#include "scope_filter.hpp"
#include "tree.hpp"

namespace scrub {

// A directory that a file is opened in. A thread may use it after the walk has left it.
using Directory = std::shared_ptr<const Fd>;

// A regular file, or something that cannot be read: a directory, or a file whose path is too long.
struct Found {
  String path;
  Directory directory; // open it in this directory
  String name;         // under this name
  int error = 0;       // if not 0, why it cannot be read
  bool is_directory = false;
};

class Walk {
public:
  // Leaves out what scope and the manifest exclude. Throws std::system_error if the root cannot be
  // read.
  Walk(const Tree &tree, const OwnFiles &own, const Scope &scope, const TreeRecord &recorded);

  // Returns false at the end.
  bool next(Found &found);

  // What the walk has left out.
  struct Counts {
    std::uint64_t links = 0;
    std::uint64_t specials = 0;           // devices, FIFOs, sockets
    std::uint64_t excluded = 0;           // files and directories
    std::uint64_t other_file_systems = 0; // directories
    std::uint64_t pseudo = 0;             // directories on file systems such as proc
  };
  const Counts &counts() const { return counts_; }

private:
  struct Entry {
    String name;
    unsigned char type; // DT_REG and so on
  };
  struct Level {
    Directory directory; // NULL while the walk is far below it
    dev_t device;
    ino_t inode;
    std::size_t path_length; // of the directory, with the slash after it
    Vector<Entry> entries;
    std::size_t next = 0;
    int error = 0; // why not all names are known
  };

  int enter(Fd fd);
  int list(Level &level) const;
  bool leave(Found &found);
  void reopen(Level &level);
  bool take(const Entry &entry, Found &found);
  bool take_directory(const Entry &entry, Found &found);
  int open_directory(const Entry &entry);
  bool is_left_out(int fd, const struct stat &status);

  const Tree &tree_;
  const OwnFiles &own_;
  const ScopeFilter filter_;
  const bool one_file_system_;
  const bool pseudo_;
  std::deque<Level> levels_;
  String path_; // of the current directory with its slash, or of the entry
  Counts counts_;
};

} // namespace scrub

#endif
