// Says which paths of the tree a run covers.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SCOPE_FILTER_HPP
#define SCRUB_SCOPE_FILTER_HPP

#include <string>
#include <string_view>
#include <vector>

#include "manifest.hpp"
#include "scrub.hpp"

namespace scrub {

// Brings a path in the tree to the form of a manifest: no "." and no superfluous slash. Returns
// false if it is absolute, leads out of the tree or names the root.
bool normal_tree_path(std::string &path);

class ScopeFilter {
public:
  // Leaves out what the run or the manifest excludes.
  ScopeFilter(const Scope &scope, const TreeRecord &recorded);

  // Whether a pattern matches the path; the directories above are not looked at.
  bool excluded(std::string_view path, bool is_directory) const;
  // Whether the path is one that the run was told to look at, or below one.
  bool wanted(std::string_view path) const;
  // Whether such a path is below the directory.
  bool leads_to_wanted(std::string_view directory) const;
  // Whether the run covers a file: it is wanted, and neither it nor a directory above is excluded.
  bool covers(std::string_view path) const;

private:
  struct Pattern {
    std::string glob;
    bool whole_path;       // matches the path, not the name
    bool directories_only; // "cache/"
  };

  std::vector<Pattern> patterns_;
  std::vector<std::string> only_;
};

} // namespace scrub

#endif
