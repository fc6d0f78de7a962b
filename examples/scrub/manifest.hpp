// Defines what a manifest holds: the tree that it belongs to, and each file with the checksums of
// its blocks. docs/manifest.md describes the bytes of both versions.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_HPP
#define SCRUB_MANIFEST_HPP

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "checksums.hpp"
#include "memory.hpp"

namespace scrub {

inline constexpr std::size_t kMaxPath = 1 << 20; // bytes

// Says why a manifest is refused, with its name and the place.
struct ManifestError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct FileRecord {
  String path;
  std::uint64_t size = 0;
  timespec written{};      // time of the last write
  timespec changed{0, -1}; // time of the last change of the inode; tv_nsec is -1 if it is not known
  std::uint64_t inode = 0; // 0: not known

  bool has_changed_time() const { return changed.tv_nsec >= 0; }
};

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

struct Totals {
  std::uint64_t files = 0;
  std::uint64_t blocks = 0;
  std::uint64_t bytes = 0;

  bool operator==(const Totals &) const = default;
};

// Compares paths in the order of a manifest: by bytes, but '/' comes before every other byte. A
// walk that takes the names of each directory in byte order yields this order.
bool path_before(std::string_view a, std::string_view b);

// Returns whether the path is relative, stays below the root, and has no superfluous component.
bool is_tree_path(std::string_view path);

// Returns the checksums of a whole block of zeros.
const Checksums &zero_block();

} // namespace scrub

#endif
