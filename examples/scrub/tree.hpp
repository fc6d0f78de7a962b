// Opens files of the directory that a run looks at, whatever the length of their paths.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_TREE_HPP
#define SCRUB_TREE_HPP

#include <string>
#include <string_view>
#include <sys/stat.h>

#include "fd.hpp"
#include "tree_record.hpp"

namespace scrub {

// May be used by several threads.
class Tree {
public:
  // Only the root may be a link: the caller means its target. Throws std::system_error if it cannot
  // be opened as a directory.
  explicit Tree(const std::string &root);

  int fd() const { return root_.get(); }
  const std::string &root() const { return name_; } // as given

  // Opens a path below the root, or the root if it is empty. It opens the directories on the way
  // one by one and follows no link, so that the path may be longer than PATH_MAX. Adds O_NOFOLLOW,
  // O_CLOEXEC, O_NOCTTY and O_NONBLOCK to the flags. If it fails, the result is empty and errno
  // says why.
  Fd open(std::string_view path, int flags) const;

  // Reads the status of such a path, of a link itself. Returns false with errno.
  bool status(std::string_view path, struct stat &status) const;

  // Names the tree. The caller adds what is left out.
  TreeRecord identity() const;

  // Returns the name of the root's file system if its files are not data, or a null pointer.
  const char *pseudo_name() const;

private:
  struct Place;
  Place find(std::string_view path) const;

  std::string name_;
  Fd root_;
};

// Returns whether two records name the same tree. The number of a device may change with each boot,
// so that it counts only if one of the file systems has no number.
bool same_tree(const TreeRecord &recorded, const TreeRecord &found);

} // namespace scrub

#endif
