// Walks a tree in path order.
// SPDX-License-Identifier: Apache-2.0
#include "walk.hpp"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "errors.hpp"
#include "manifest.hpp"

namespace scrub {
namespace {

// The levels whose descriptors are open: those above are opened again on the way back.
constexpr std::size_t kOpenLevels = 32;

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

Walk::Walk(const Tree &tree, const OwnFiles &own, const Scope &scope, const TreeRecord &recorded)
    : tree_(tree), own_(own), filter_(scope, recorded),
      one_file_system_(scope.one_file_system || recorded.one_file_system),
      pseudo_(scope.pseudo || recorded.pseudo) {
  Fd root(openat(tree.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const int error = root ? enter(std::move(root)) : errno;
  if (error != 0) fail("cannot read the directory", error);
}

bool Walk::next(Found &found) {
  while (!levels_.empty()) {
    Level &level = levels_.back();
    path_.resize(level.path_length);
    if (level.next < level.entries.size() && level.directory == nullptr) reopen(level);
    if (level.next == level.entries.size()) {
      if (leave(found)) return true;
      continue;
    }
    const Entry &entry = level.entries[level.next++];
    path_ += entry.name;
    if (take(entry, found)) return true;
  }
  return false;
}

// Goes back to the directory above. Returns true if not all files of the directory were found; then
// the directory itself is found, with its error.
bool Walk::leave(Found &found) {
  const int error = levels_.back().error;
  levels_.pop_back();
  if (error == 0) return false;
  found = {String(path_.substr(0, path_.empty() ? 0 : path_.size() - 1)), nullptr, {}, error, true};
  return true;
}

// Opens a directory again whose descriptor was closed. If another directory has its path now, gives
// up the names that are left.
void Walk::reopen(Level &level) {
  Fd fd = level.path_length == 0
              ? Fd(openat(tree_.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
              : tree_.open(path_.substr(0, level.path_length - 1), O_RDONLY | O_DIRECTORY);
  struct stat status {};
  int error = fd && fstat(fd.get(), &status) == 0 ? 0 : errno;
  if (error == 0 && (status.st_dev != level.device || status.st_ino != level.inode)) error = ESTALE;
  if (error == 0) {
    level.directory = std::make_shared<const Fd>(std::move(fd));
    return;
  }
  level.error = error;
  level.next = level.entries.size();
}

// Returns true if the entry is something to report.
bool Walk::take(const Entry &entry, Found &found) {
  const bool is_directory = entry.type == DT_DIR;
  if (is_directory ? !filter_.leads_to_wanted(path_) : !filter_.wanted(path_)) return false;
  if (filter_.excluded(path_, is_directory)) {
    ++counts_.excluded;
    return false;
  }
  switch (entry.type) {
  case DT_REG:
    found.path = path_;
    found.directory = levels_.back().directory;
    found.name = entry.name;
    found.error = path_.size() > kMaxPath ? ENAMETOOLONG : 0;
    found.is_directory = false;
    return true;
  case DT_DIR:
    return take_directory(entry, found);
  case DT_LNK:
    ++counts_.links;
    return false;
  default:
    ++counts_.specials;
    return false;
  }
}

bool Walk::take_directory(const Entry &entry, Found &found) {
  found.path = path_;
  const int error = path_.size() > kMaxPath ? ENAMETOOLONG : open_directory(entry);
  if (error == 0) return false;
  found.directory = nullptr;
  found.name = entry.name;
  found.error = error;
  found.is_directory = true;
  return true;
}

int Walk::open_directory(const Entry &entry) {
  const int parent = levels_.back().directory->get();
  Fd fd(openat(parent, entry.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return errno;
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) return errno;
  if (status.st_dev != levels_.back().device && is_left_out(fd.get(), status)) return 0;
  const bool is_loop = std::ranges::any_of(levels_, [&status](const Level &level) {
    return level.device == status.st_dev && level.inode == status.st_ino;
  });
  if (is_loop) return ELOOP;
  path_ += '/';
  return enter(std::move(fd));
}

// For a directory on another file system than the one above.
bool Walk::is_left_out(int fd, const struct stat &status) {
  if (one_file_system_ && status.st_dev != levels_.front().device) {
    ++counts_.other_file_systems;
    return true;
  }
  if (pseudo_ || pseudo_file_system(fd) == nullptr) return false;
  ++counts_.pseudo;
  return true;
}

// Returns 0, or the errno that says why the directory cannot be read.
int Walk::enter(Fd fd) {
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) return errno;
  Level level{nullptr, status.st_dev, status.st_ino, path_.size(), {}};
  level.directory = std::make_shared<const Fd>(std::move(fd));
  level.error = list(level);
  if (level.error != 0 && level.entries.empty()) return level.error;
  levels_.push_back(std::move(level));
  if (levels_.size() > kOpenLevels) levels_[levels_.size() - kOpenLevels - 1].directory = nullptr;
  return 0;
}

// Returns an errno if it could not read all names.
int Walk::list(Level &level) const {
  const int fd = level.directory->get();
  struct stat status {};
  if (fstat(fd, &status) != 0) return errno;
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0); // the stream closes it
  if (copy < 0) return errno;
  const std::unique_ptr<DIR, int (*)(DIR *)> names(fdopendir(copy), closedir);
  if (names == nullptr) {
    const int error = errno;
    close(copy);
    return error;
  }

  errno = 0;
  while (const dirent *entry = readdir(names.get())) {
    if (!is_dot(entry->d_name) && !own_.contains(status, entry->d_name))
      level.entries.push_back({entry->d_name, type_of(fd, *entry)});
    errno = 0;
  }
  const int error = errno;
  std::ranges::sort(level.entries, {}, &Entry::name);
  return error;
}

} // namespace scrub
