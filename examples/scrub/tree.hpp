// Declares the tree that a run looks at: a directory, and what is below it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_TREE_HPP
#define SCRUB_TREE_HPP

#include <string>
#include <string_view>
#include <sys/stat.h>

#include "fd.hpp"
#include "manifest.hpp"

namespace scrub {

class Tree {
public:
  // Only the root may be a link: the caller means its target. Throws std::system_error if it cannot
  // be opened.
  explicit Tree(const std::string &root);

  int fd() const { return root_.get(); }

  // Opens a path below the root, one component at a time: no link is followed, and the path may be
  // longer than the system takes at once. Does not block on a FIFO. Returns no descriptor, with
  // errno, if it cannot.
  Fd open(std::string_view path, int flags) const;

  // Asks for the attributes of a path; of a link itself. Returns false with errno.
  bool status(std::string_view path, struct stat &status) const;

  // Names the tree for a manifest.
  TreeRecord identity() const;

  // The name of the pseudo file system that the root is on, as "proc"; NULL for a real one.
  const char *pseudo_name() const;

private:
  template <class Use> auto below(std::string_view path, Use use) const;

  const std::string name_;
  Fd root_;
  struct stat status_ {};
};

// Returns whether a manifest's tree is the one found: the same root on the same file system, whose
// id survives a restart. Some file systems have no id; then the device must be the same.
bool same_tree(const TreeRecord &recorded, const TreeRecord &found);

// Returns the name of the pseudo file system that a descriptor is on; NULL for a real one.
const char *pseudo_file_system(int fd);

} // namespace scrub

#endif
