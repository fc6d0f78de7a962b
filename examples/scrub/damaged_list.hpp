// Keeps the paths of the files that were found damaged, so that an update does not take them for
// files that were written on purpose.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_DAMAGED_LIST_HPP
#define SCRUB_DAMAGED_LIST_HPP

#include <functional>
#include <set>
#include <string_view>

#include "memory.hpp"
#include "own_files.hpp"
#include "state_file.hpp"

namespace scrub {

class DamagedList {
public:
  // Reads the list. Throws std::runtime_error if it is not as it was written.
  explicit DamagedList(const OwnPaths &paths);

  bool contains(std::string_view path) const;
  void add(std::string_view path);
  // For a file whose content is as recorded again, or is recorded anew.
  void remove(std::string_view path);

  void clear();

  // Writes the list if it has changed. Returns 0 or an errno.
  int save();

private:
  // Beyond this the list stands for every file.
  static constexpr std::size_t kMost = 16384;
  static constexpr std::size_t kMostBytes = 1 << 20; // of all paths

  StateFile file_;
  std::set<String, std::less<>> paths_;
  std::size_t bytes_ = 0;
  bool all_ = false;
  bool changed_ = false;
};

} // namespace scrub

#endif
