// Compares paths with patterns and with the paths that a run was told to look at.
// SPDX-License-Identifier: Apache-2.0
#include "scope_filter.hpp"

#include <algorithm>
#include <fnmatch.h>

namespace scrub {
namespace {

bool is_or_is_below(std::string_view path, std::string_view directory) {
  return path.starts_with(directory) &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

} // namespace

bool normal_tree_path(std::string &path) {
  if (path.starts_with('/')) return false;
  std::string normal;
  for (std::size_t at = 0; at <= path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string_view name = std::string_view(path).substr(at, end - at);
    at = end + 1;
    if (name == "..") return false;
    if (name.empty() || name == ".") continue;
    if (!normal.empty()) normal += '/';
    normal += name;
  }
  path = normal;
  return !path.empty();
}

ScopeFilter::ScopeFilter(const Scope &scope, const TreeRecord &recorded) : only_(scope.only) {
  for (const auto *patterns : {&recorded.excludes, &scope.excludes}) {
    for (std::string_view glob : *patterns) {
      const bool directories_only = glob.ends_with('/');
      if (directories_only) glob.remove_suffix(1);
      const bool whole_path = glob.find('/') != glob.npos;
      if (glob.starts_with('/')) glob.remove_prefix(1);
      patterns_.push_back({std::string(glob), whole_path, directories_only});
    }
  }
}

bool ScopeFilter::excluded(std::string_view path, bool is_directory) const {
  if (patterns_.empty()) return false;
  const std::string whole(path);
  const std::string name(path.substr(path.rfind('/') + 1));
  return std::ranges::any_of(patterns_, [&](const Pattern &pattern) {
    if (pattern.directories_only && !is_directory) return false;
    const std::string &subject = pattern.whole_path ? whole : name;
    return fnmatch(pattern.glob.c_str(), subject.c_str(), FNM_PATHNAME) == 0;
  });
}

bool ScopeFilter::wanted(std::string_view path) const {
  return only_.empty() || std::ranges::any_of(only_, [path](const std::string &only) {
           return is_or_is_below(path, only);
         });
}

bool ScopeFilter::leads_to_wanted(std::string_view directory) const {
  return wanted(directory) || std::ranges::any_of(only_, [directory](const std::string &only) {
           return is_or_is_below(only, directory);
         });
}

bool ScopeFilter::covers(std::string_view path) const {
  if (!wanted(path)) return false;
  if (patterns_.empty()) return true;
  for (std::size_t slash = path.find('/'); slash != path.npos; slash = path.find('/', slash + 1)) {
    if (excluded(path.substr(0, slash), true)) return false;
  }
  return !excluded(path, false);
}

} // namespace scrub
