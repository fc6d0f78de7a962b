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
#include "tree_record.hpp"

namespace scrub {

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

struct Totals {
  std::uint64_t files = 0;
  std::uint64_t blocks = 0;
  std::uint64_t bytes = 0;

  bool operator==(const Totals &) const = default;
};

// Compares paths in the order of a manifest: by bytes, but '/' comes before every other byte. A
// walk that takes the names of each directory in byte order yields this order.
bool path_before(std::string_view a, std::string_view b);

struct PathBefore {
  bool operator()(const String &a, const String &b) const { return path_before(a, b); }
};

// Returns whether the path is relative, stays below the root, and has no superfluous component.
bool is_tree_path(std::string_view path);

// Returns the checksums of a whole block of zeros.
const Checksums &zero_block();

} // namespace scrub

#endif
