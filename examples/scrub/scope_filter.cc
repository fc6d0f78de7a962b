// Matches the paths of a tree with what a run was told to take and to leave out.
// SPDX-License-Identifier: Apache-2.0
#include "scope_filter.hpp"

#include <algorithm>
#include <cstring>
#include <fnmatch.h>

namespace scrub {
namespace {

constexpr std::string_view kAnyDepth = "**/";

} // namespace

bool is_below(std::string_view path, std::string_view directory) {
  if (directory.empty()) return true;
  return path.size() > directory.size() && path.starts_with(directory) &&
         path[directory.size()] == '/';
}

bool normal_tree_path(std::string &path) {
  if (path.empty() || path[0] == '/') return false;
  std::string normal;
  for (std::string_view rest = path; !rest.empty();) {
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string_view component = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (component == "..") return false;
    if (component.empty() || component == ".") continue;
    if (!normal.empty()) normal += '/';
    normal += component;
  }
  path = normal;
  return true;
}

ScopeFilter::ScopeFilter(const Scope &scope, const TreeRecord &recorded)
    : only_(scope.only), one_file_system_(scope.one_file_system || recorded.one_file_system),
      pseudo_(scope.pseudo || recorded.pseudo) {
  for (const std::string &text : scope.excludes)
    add_pattern(text);
  for (const std::string &text : recorded.excludes)
    add_pattern(text);
}

void ScopeFilter::add_pattern(std::string_view text) {
  Pattern pattern;
  const bool from_root = text.starts_with('/');
  while (text.starts_with('/'))
    text.remove_prefix(1);
  while (text.ends_with('/')) {
    pattern.directories = true;
    text.remove_suffix(1);
  }
  if (!from_root && text.starts_with(kAnyDepth)) {
    pattern.any_depth = true;
    text.remove_prefix(kAnyDepth.size());
  }
  if (text.empty()) return;
  pattern.names = !from_root && text.find('/') == text.npos;
  pattern.text = text;
  patterns_.push_back(std::move(pattern));
}

bool ScopeFilter::Pattern::matches(const char *path, const char *name) const {
  if (names) return fnmatch(text.c_str(), name, 0) == 0;
  while (fnmatch(text.c_str(), path, FNM_PATHNAME) != 0) {
    const char *slash = any_depth ? std::strchr(path, '/') : nullptr;
    if (slash == nullptr) return false;
    path = slash + 1;
  }
  return true;
}

bool ScopeFilter::excluded(const String &path, bool is_directory) const {
  const char *name = path.c_str() + (path.rfind('/') + 1); // npos + 1 is 0
  return std::ranges::any_of(patterns_, [&](const Pattern &pattern) {
    return (is_directory || !pattern.directories) && pattern.matches(path.c_str(), name);
  });
}

bool ScopeFilter::wanted(std::string_view path) const {
  return only_.empty() || std::ranges::any_of(only_, [path](const std::string &only) {
           return path == only || is_below(path, only);
         });
}

bool ScopeFilter::leads_to_wanted(std::string_view directory) const {
  return only_.empty() || std::ranges::any_of(only_, [directory](const std::string &only) {
           return is_below(only, directory);
         });
}

bool ScopeFilter::covers(const String &path) const {
  if (!wanted(path)) return false;
  if (patterns_.empty()) return true;
  for (std::size_t end = path.find('/'); end != path.npos; end = path.find('/', end + 1)) {
    if (excluded(path.substr(0, end), true)) return false;
  }
  return !excluded(path, false);
}

} // namespace scrub
