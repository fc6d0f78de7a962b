// Walks the manifest and the tree side by side, both in path order, and says what is to be read.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PLANNER_HPP
#define SCRUB_PLANNER_HPP

#include <cstddef>
#include <functional>
#include <span>

#include "entry.hpp"
#include "manifest_reader.hpp"
#include "scope_filter.hpp"
#include "walk.hpp"
#include "window.hpp"

namespace scrub {

// What is read of a file that is recorded, and of one that is not.
struct Wanted {
  Action recorded;
  Action added;
  // The manifest was made of another tree, a copy of this one: the copy has other inodes, and other
  // times of change, which say nothing.
  bool foreign = false;
  std::function<bool(const String &path)> always = nullptr; // recorded files that are read anyway
};

class Planner {
public:
  // manifest may be NULL.
  Planner(ManifestReader *manifest, Walk &walk, const ScopeFilter &filter, const Window &window,
          Wanted wanted);

  // Fills entries, and returns the number of them; 0 at the end.
  std::size_t fill(std::span<Entry> entries);

private:
  void next_recorded();
  void next_found() { more_found_ = walk_.next(found_); }
  void take(Entry &entry);
  void take_recorded(Entry &entry);
  void take_found(Entry &entry);
  void select(Entry &entry);

  ManifestReader *const manifest_;
  Walk &walk_;
  const ScopeFilter &filter_;
  Window window_;
  const Wanted wanted_;

  FileRecord record_; // valid while more_recorded_
  Found found_;       // valid while more_found_
  bool more_recorded_ = false;
  bool more_found_ = false;
  bool started_ = false;
};

} // namespace scrub

#endif
