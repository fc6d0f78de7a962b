// Walks a tree in path order, one file at a time. Its memory holds names of the directories that
// lead to the current file, not of the whole tree.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_WALK_HPP
#define SCRUB_WALK_HPP

#include <cstdint>
#include <memory>
#include <sys/stat.h>

#include "fd.hpp"
#include "memory.hpp"
#include "name_list.hpp"
#include "own_files.hpp"
#include "scope_filter.hpp"
#include "tree.hpp"

namespace scrub {

using Directory = std::shared_ptr<const Fd>;

// A regular file, or something that cannot be read.
struct Found {
  String path;
  // Open the file in this directory under this name. Any thread may use the directory, also after
  // the walk has left it.
  Directory directory;
  String name;
  // If not 0, why it cannot be read. There may be no directory then. If a directory cannot be read
  // to its end, it comes after what was found in it. The path of the root is then ".".
  int error = 0;
  bool is_directory = false;
};

class Walk {
public:
  // Levels of directories that the walk keeps open. It opens those above again when it comes back.
  static constexpr std::size_t kOpenLevels = 32;

  struct Counts {
    std::uint64_t links = 0;
    std::uint64_t specials = 0; // FIFOs, sockets, devices
    std::uint64_t excluded = 0; // entries that a pattern matches; not what is in such a directory
    std::uint64_t other_file_systems = 0; // directories
    std::uint64_t pseudo = 0;             // directories
  };

  // The arguments must outlive the walk, except the record. Throws std::system_error if the root
  // cannot be read.
  Walk(const Tree &tree, const OwnFiles &own, const Scope &scope, const TreeRecord &recorded);

  // Returns false at the end.
  bool next(Found &found);

  const Counts &counts() const { return counts_; }

private:
  struct Level {
    Directory directory; // null if it is closed
    dev_t device;
    ino_t inode;
    std::uint32_t path_length;         // of the directory, with the slash after it
    int error = 0;                     // why the directory could not be read to its end
    std::unique_ptr<NameList> names{}; // null if all were taken

    bool has_no_names() const { return names == nullptr || (names->empty() && !names->has_more()); }
  };

  bool has_entry(Level &level);
  bool visit(Found &found);
  int enter(const char *name);
  int push(Fd directory, const struct stat &status, std::size_t path_length);
  std::size_t limit_of_names() const;
  void list(Level &level);
  bool leaves_out(int directory);
  bool leave(Found &found);
  void open_again(Level &level, const Directory &child);

  const Tree &tree_;
  const OwnFiles &own_;
  const ScopeFilter filter_;
  Vector<Level> levels_;
  String path_; // of the current directory with its slash, or of the file found
  Counts counts_;
};

} // namespace scrub

#endif
