// Tells which paths of a tree a run looks at.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SCOPE_FILTER_HPP
#define SCRUB_SCOPE_FILTER_HPP

#include <string>
#include <string_view>
#include <vector>

#include "memory.hpp"
#include "scrub.hpp"
#include "tree_record.hpp"

namespace scrub {

// Brings a path below the root into the form of a manifest: "./a//b/" becomes "a/b". The root
// itself becomes empty. Returns false if the path is empty, absolute, or has the component "..".
bool normal_tree_path(std::string &path);

// Whether a path in this form is below a directory; all are below the root, which is empty.
bool is_below(std::string_view path, std::string_view directory);

// Paths are below the root, in the form of a manifest. Patterns are those of fnmatch(3). A pattern
// without a slash matches a name in any directory. Another one matches a path from the root, or, if
// it begins with a double star and a slash, from any directory; a star matches no slash. A slash at
// the end limits a pattern to directories, and one at the beginning makes it start at the root.
class ScopeFilter {
public:
  // What the manifest's tree leaves out is left out in addition to what the run leaves out. The
  // run's own wanted paths must be in normal form.
  ScopeFilter(const Scope &scope, const TreeRecord &recorded);

  // Whether a pattern matches the path itself. Everything in an excluded directory is excluded too,
  // but only covers() looks for that.
  bool excluded(const String &path, bool is_directory) const;
  bool wanted(std::string_view path) const;
  bool leads_to_wanted(std::string_view directory) const;

  // Whether the run looks at a recorded file.
  bool covers(const String &path) const;

  bool one_file_system() const { return one_file_system_; }
  bool pseudo() const { return pseudo_; }

private:
  struct Pattern {
    std::string text;
    bool names = false;       // matches names
    bool any_depth = false;   // matches paths from any directory
    bool directories = false; // matches only directories

    bool matches(const char *path, const char *name) const;
  };

  void add_pattern(std::string_view text);

  std::vector<Pattern> patterns_;
  std::vector<std::string> only_;
  bool one_file_system_;
  bool pseudo_;
};

} // namespace scrub

#endif
