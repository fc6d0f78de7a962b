// Opens what is below a directory, and names the directory.
// SPDX-License-Identifier: Apache-2.0
#include "tree.hpp"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <memory>
#include <sys/vfs.h>

#include "errors.hpp"

namespace scrub {
namespace {

// Those that linux/magic.h of some systems lacks.
constexpr long kFuseControl = 0x65735543;
constexpr long kConfig = 0x62656570;
constexpr long kMessageQueues = 0x19800202;
constexpr long kRemoteCallPipes = 0x67596969;
constexpr long kNfsServer = 0x6e667364;

const struct {
  long type;
  const char *name;
} kPseudo[] = {{PROC_SUPER_MAGIC, "proc"},
               {SYSFS_MAGIC, "sysfs"},
               {DEVPTS_SUPER_MAGIC, "devpts"},
               {CGROUP_SUPER_MAGIC, "cgroup"},
               {CGROUP2_SUPER_MAGIC, "cgroup2"},
               {DEBUGFS_MAGIC, "debugfs"},
               {TRACEFS_MAGIC, "tracefs"},
               {SECURITYFS_MAGIC, "securityfs"},
               {SELINUX_MAGIC, "selinuxfs"},
               {PSTOREFS_MAGIC, "pstore"},
               {EFIVARFS_MAGIC, "efivarfs"},
               {BPF_FS_MAGIC, "bpf"},
               {kConfig, "configfs"},
               {kFuseControl, "fusectl"},
               {kMessageQueues, "mqueue"},
               {HUGETLBFS_MAGIC, "hugetlbfs"},
               {BINFMTFS_MAGIC, "binfmt_misc"},
               {AUTOFS_SUPER_MAGIC, "autofs"},
               {NSFS_MAGIC, "nsfs"},
               {kRemoteCallPipes, "rpc_pipefs"},
               {kNfsServer, "nfsd"}};

// The names in /dev/disk/by-label write a blank, for example, as "\x20".
String unescaped(std::string_view name) {
  String label;
  while (!name.empty()) {
    unsigned char byte = 0;
    const bool escaped =
        name.size() >= 4 && name.starts_with("\\x") &&
        std::from_chars(name.data() + 2, name.data() + 4, byte, 16).ptr == name.data() + 4;
    label += escaped ? static_cast<char>(byte) : name[0];
    name.remove_prefix(escaped ? 4 : 1);
  }
  return label;
}

String label_of(dev_t device) {
  const std::unique_ptr<DIR, int (*)(DIR *)> labels(opendir("/dev/disk/by-label"), closedir);
  if (labels == nullptr) return {};
  while (const dirent *entry = readdir(labels.get())) {
    struct stat status {};
    if (fstatat(dirfd(labels.get()), entry->d_name, &status, 0) == 0 &&
        S_ISBLK(status.st_mode) && status.st_rdev == device)
      return unescaped(entry->d_name);
  }
  return {};
}

} // namespace

const char *pseudo_file_system(int fd) {
  struct statfs status {};
  if (fstatfs(fd, &status) != 0) return nullptr;
  for (const auto &[type, name] : kPseudo) {
    if (static_cast<long>(status.f_type) == type) return name;
  }
  return nullptr;
}

Tree::Tree(const std::string &root)
    : name_(root), root_(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!root_ || fstat(root_.get(), &status_) != 0) fail("cannot read directory " + root);
}

// Calls use(directory, name) for the last component.
template <class Use> auto Tree::below(std::string_view path, Use use) const {
  Fd directory;
  int at = root_.get();
  for (std::size_t slash; (slash = path.find('/')) != path.npos;) {
    const std::string name(path.substr(0, slash));
    Fd next(openat(at, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next) return use(-1, "");
    directory = std::move(next);
    at = directory.get();
    path.remove_prefix(slash + 1);
  }
  return use(at, std::string(path).c_str());
}

Fd Tree::open(std::string_view path, int flags) const {
  return below(path, [flags](int directory, const char *name) {
    if (directory < 0) return Fd();
    return Fd(openat(directory, name, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  });
}

bool Tree::status(std::string_view path, struct stat &status) const {
  return below(path, [&status](int directory, const char *name) {
    return directory >= 0 && fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
  });
}

TreeRecord Tree::identity() const {
  TreeRecord record;
  record.known = true;
  record.root = name_;
  record.device = status_.st_dev;
  record.inode = status_.st_ino;
  struct statfs system {};
  if (fstatfs(root_.get(), &system) == 0) {
    static_assert(sizeof system.f_fsid == sizeof record.file_system);
    std::memcpy(&record.file_system, &system.f_fsid, sizeof record.file_system);
  }
  record.label = label_of(status_.st_dev);
  return record;
}

const char *Tree::pseudo_name() const { return pseudo_file_system(root_.get()); }

bool same_tree(const TreeRecord &recorded, const TreeRecord &found) {
  if (recorded.inode != found.inode) return false;
  if (recorded.file_system != 0 && found.file_system != 0)
    return recorded.file_system == found.file_system;
  return recorded.device == found.device;
}

} // namespace scrub
