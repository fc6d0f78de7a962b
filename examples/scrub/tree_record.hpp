// Defines how a manifest names the tree that it belongs to, and the longest path in a tree.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_TREE_RECORD_HPP
#define SCRUB_TREE_RECORD_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "memory.hpp"

namespace scrub {

inline constexpr std::size_t kMaxPath = 1 << 20; // bytes

// The tree that a manifest belongs to, and what create was told to leave out.
struct TreeRecord {
  bool known = false;       // false: the manifest has version 1, which does not say
  String root;              // as given to create; for messages
  std::uint64_t device = 0; // st_dev and st_ino of the root
  std::uint64_t inode = 0;
  std::uint64_t file_system = 0; // f_fsid of statfs(2); 0: none
  String label;                  // of the file system; empty: none known
  bool one_file_system = false;
  bool pseudo = false;
  std::vector<std::string> excludes;
};

} // namespace scrub

#endif
