// Walks a tree in path order.
// SPDX-License-Identifier: Apache-2.0
#include "walk.hpp"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.hpp"
#include "manifest.hpp"

namespace scrub {
namespace {

bool is_dot(std::string_view name) { return name == "." || name == ".."; }

// Some file systems do not return the type with the name.
unsigned char type_of(int directory, const dirent &entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type;
  struct stat status {};
  // The run reports a name that has vanished when it opens it.
  if (fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return DT_REG;
  return IFTODT(status.st_mode);
}

} // namespace

Walk::Walk(const std::string &root, const OwnFiles &own) : own_(own) {
  // Only the root may be a link: the caller means its target.
  if (const int error = enter(AT_FDCWD, (root + "/.").c_str()); error != 0)
    fail("cannot read directory " + root, error);
}

bool Walk::next(Found &found) {
  while (!levels_.empty()) {
    Level &level = levels_.back();
    path_.resize(level.path_length);
    if (level.next == level.entries.size()) {
      levels_.pop_back();
      continue;
    }

    const Entry &entry = level.entries[level.next++];
    found.directory = dirfd(level.directory.get());
    found.name = entry.name.c_str();
    path_ += entry.name;
    found.error = path_.size() > kMaxPath ? ENAMETOOLONG : 0;
    switch (entry.type) {
    case DT_REG:
      found.path = path_;
      return true;
    case DT_DIR:
      found.path = path_;
      path_ += '/';
      if (found.error == 0) found.error = enter(found.directory, found.name);
      if (found.error != 0) return true;
      break;
    case DT_LNK:
      ++links_;
      break;
    default:
      ++specials_;
    }
  }
  return false;
}

// Returns 0, or the errno that says why the directory cannot be read.
int Walk::enter(int parent, const char *name) {
  const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno;
  DIR *directory = fdopendir(fd);
  if (directory == nullptr) {
    const int error = errno;
    close(fd);
    return error;
  }

  Level level{{}, path_.size(), {}};
  level.directory.reset(directory);
  if (const int error = list(level); error != 0) return error;
  levels_.push_back(std::move(level));
  return 0;
}

int Walk::list(Level &level) const {
  struct stat status {};
  const int fd = dirfd(level.directory.get());
  if (fstat(fd, &status) != 0) return errno;

  errno = 0;
  while (const dirent *entry = readdir(level.directory.get())) {
    if (!is_dot(entry->d_name) && !own_.contains(status, entry->d_name))
      level.entries.push_back({entry->d_name, type_of(fd, *entry)});
    errno = 0;
  }
  if (errno != 0) return errno;
  std::ranges::sort(level.entries, {}, &Entry::name);
  return 0;
}

} // namespace scrub
