// Recognizes the files of the service in a tree.
// SPDX-License-Identifier: Apache-2.0
#include "own_files.hpp"

#include "state_file.hpp"

namespace scrub {
namespace {

// If a directory does not exist, its fields stay 0 and match no directory of a walk.
struct stat status_of(const std::string &directory) {
  struct stat status {};
  stat(directory.c_str(), &status);
  return status;
}

bool same_directory(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

OwnFiles::OwnFiles(const OwnPaths &paths)
    : paths_(paths), manifest_directory_(status_of(paths.manifest_directory)),
      log_directory_(status_of(paths.log_directory)),
      page_directory_(status_of(paths.page_directory)) {}

bool OwnFiles::contains(const struct stat &directory, std::string_view name) const {
  if (same_directory(directory, manifest_directory_)) {
    if (is_beside_manifest(name)) return true;
    // A run without --log leaves its log there. With a name that the user chose, it may be data.
    if (paths_.manifest_name == kDefaultManifest && is_log(name)) return true;
  }
  if (same_directory(directory, log_directory_) && is_log(name)) return true;
  return same_directory(directory, page_directory_) && is_page(name);
}

bool OwnFiles::is_beside_manifest(std::string_view name) const {
  if (!name.starts_with(paths_.manifest_name)) return false;
  if (name == paths_.manifest_name || name == paths_.old_name() || name == paths_.unfinished_name())
    return true;
  // A killed run may leave what was to become a state file, too.
  if (name.ends_with(kUnfinishedState)) name.remove_suffix(kUnfinishedState.size());
  return name == paths_.checkpoint_name() || name == paths_.damaged_name() ||
         name == paths_.part_name();
}

// "NAME.log", and "NAME.log.1" and so on for the rotated logs.
bool OwnFiles::is_log(std::string_view name) const {
  const std::string log = paths_.log_name() + ".log";
  if (!name.starts_with(log)) return false;
  name.remove_prefix(log.size());
  if (name.empty()) return true;
  return name.size() > 1 && name[0] == '.' &&
         name.find_first_not_of("0123456789", 1) == std::string_view::npos;
}

// The page, and the temporary file that becomes the page.
bool OwnFiles::is_page(std::string_view name) const {
  if (paths_.page_name.empty() || !name.starts_with(paths_.page_name)) return false;
  name.remove_prefix(paths_.page_name.size());
  return name.empty() || name.starts_with(kUnfinishedPage);
}

} // namespace scrub
