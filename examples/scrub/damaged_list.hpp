// Keeps the paths of the files that were found damaged, so that an update does not take them for
// files that were written on purpose.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_DAMAGED_LIST_HPP
#define SCRUB_DAMAGED_LIST_HPP

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "memory.hpp"
#include "own_files.hpp"
#include "state_file.hpp"

namespace scrub {

class DamagedList {
public:
  // Reads the list. Throws std::runtime_error if it is not as it was written.
  explicit DamagedList(const OwnPaths &paths);

  bool empty() const { return paths_.empty() && !all_; }
  // Whether there were too many: the list stands for every file, until it is cleared.
  bool holds_all() const { return all_; }
  bool contains(std::string_view path) const;
  void add(std::string_view path);
  // For a file whose content is as recorded again, or is recorded anew.
  void remove(std::string_view path);

  void clear();

  // Writes the changes into the list, which another run may have changed meanwhile. Returns 0 or an
  // errno.
  int save();

private:
  // Beyond this the list stands for every file.
  static constexpr std::size_t kMost = 4096;
  static constexpr std::size_t kMostBytes = 256 << 10; // of all paths

  void load();
  void insert(std::string_view path);
  void erase(std::string_view path);
  void empty_out();
  int write() const;

  const std::string directory_;
  StateFile file_;
  std::set<String, std::less<>> paths_;
  std::size_t bytes_ = 0;
  bool all_ = false;

  // Since the list was read or written:
  std::map<String, bool, std::less<>> changes_; // whether the path was added
  bool cleared_ = false;                        // before these
};

} // namespace scrub

#endif
