// Opens files of a tree component by component, and names the tree.
// SPDX-License-Identifier: Apache-2.0
#include "tree.hpp"

#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/vfs.h>

#include "errors.hpp"
#include "pseudo_file_system.hpp"

namespace scrub {
namespace {

constexpr char kLabels[] = "/dev/disk/by-label";

struct CloseDirectory {
  void operator()(DIR *directory) const { closedir(directory); }
};

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// The names of the links have "\x20" instead of a blank, and so on.
String unescape_label(std::string_view name) {
  String label;
  while (!name.empty()) {
    const bool escaped = name.size() >= 4 && name.starts_with("\\x") && hex_digit(name[2]) >= 0 &&
                         hex_digit(name[3]) >= 0;
    label += escaped ? static_cast<char>(hex_digit(name[2]) * 16 + hex_digit(name[3])) : name[0];
    name.remove_prefix(escaped ? 4 : 1);
  }
  return label;
}

String label_of(dev_t device) {
  const std::unique_ptr<DIR, CloseDirectory> labels(opendir(kLabels));
  if (labels == nullptr) return {};
  while (const dirent *entry = readdir(labels.get())) {
    struct stat target {};
    if (fstatat(dirfd(labels.get()), entry->d_name, &target, 0) == 0 && S_ISBLK(target.st_mode) &&
        target.st_rdev == device)
      return unescape_label(entry->d_name);
  }
  return {};
}

std::uint64_t file_system_number(int fd) {
  struct statfs status {};
  if (fstatfs(fd, &status) != 0) return 0;
  std::uint64_t number = 0;
  static_assert(sizeof status.f_fsid == sizeof number);
  std::memcpy(&number, &status.f_fsid, sizeof number);
  return number;
}

} // namespace

// The directory of a path's last component, and that component with a zero byte after it.
struct Tree::Place {
  int directory = -1; // -1: it cannot be opened, errno says why
  Fd opened;          // keeps the directory open, unless it is the root
  char name[NAME_MAX + 1] = ".";

  bool take_name(std::string_view component) {
    if (component.size() > NAME_MAX) {
      errno = ENAMETOOLONG;
      return false;
    }
    name[component.copy(name, NAME_MAX)] = '\0';
    return true;
  }

  // With O_PATH, it takes the permission to search the directory, not to read it.
  bool descend() {
    opened = Fd(openat(directory, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    directory = opened.get();
    return directory >= 0;
  }
};

Tree::Tree(const std::string &root)
    : name_(root),
      root_(::open(root.empty() ? "" : (root + "/.").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!root_) fail("cannot read directory " + root);
}

Tree::Place Tree::find(std::string_view path) const {
  Place place;
  place.directory = fd();
  while (!path.empty()) {
    const std::size_t end = path.find('/');
    const bool last = end == path.npos;
    if (!place.take_name(path.substr(0, end)) || (!last && !place.descend())) {
      place.directory = -1;
      return place;
    }
    path.remove_prefix(last ? path.size() : end + 1);
  }
  return place;
}

Fd Tree::open(std::string_view path, int flags) const {
  const Place place = find(path);
  if (place.directory < 0) return Fd();
  flags |= O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  return Fd(openat(place.directory, place.name, flags));
}

bool Tree::status(std::string_view path, struct stat &status) const {
  const Place place = find(path);
  if (place.directory < 0) return false;
  constexpr int kFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
  return fstatat(place.directory, place.name, &status, kFlags) == 0;
}

TreeRecord Tree::identity() const {
  struct stat status {};
  if (fstat(fd(), &status) != 0) fail("cannot read directory " + name_);
  TreeRecord record;
  record.known = true;
  record.root = name_;
  record.device = status.st_dev;
  record.inode = status.st_ino;
  record.file_system = file_system_number(fd());
  record.label = label_of(status.st_dev);
  return record;
}

const char *Tree::pseudo_name() const { return pseudo_file_system(fd()); }

bool same_tree(const TreeRecord &recorded, const TreeRecord &found) {
  if (recorded.inode != found.inode) return false;
  if (recorded.file_system != 0 && found.file_system != 0)
    return recorded.file_system == found.file_system;
  return recorded.device == found.device;
}

} // namespace scrub
