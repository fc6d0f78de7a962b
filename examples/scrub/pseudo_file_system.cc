// Recognizes file systems whose files are not data by their magic numbers.
// SPDX-License-Identifier: Apache-2.0
#include "pseudo_file_system.hpp"

#include <cstdio>
#include <fstream>
#include <linux/magic.h>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

namespace scrub {
namespace {

struct FileSystem {
  unsigned int magic;
  const char *name;
};

constexpr FileSystem kPseudo[] = {
    {PROC_SUPER_MAGIC, "proc"},
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
    {HUGETLBFS_MAGIC, "hugetlbfs"},
    {BINFMTFS_MAGIC, "binfmt_misc"},
    {AUTOFS_SUPER_MAGIC, "autofs"},
    {NSFS_MAGIC, "nsfs"},
    // The kernel's headers for programs do not have these.
    {0x62656570, "configfs"},
    {0x65735543, "fusectl"},
    {0x19800202, "mqueue"},
    {0x67596969, "rpc_pipefs"},
    {0x6E667364, "nfsd"},
};

// devtmpfs has the magic number of tmpfs. The list of mounts tells them apart. Each of its lines
// has the device as the third word, and the type as the word after " - ".
bool is_devtmpfs(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return false;
  const std::string device =
      " " + std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev)) + " ";
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    const std::size_t third = line.find(' ', line.find(' ') + 1);
    if (third != line.npos && line.compare(third, device.size(), device) == 0)
      return line.find(" - devtmpfs ") != line.npos;
  }
  return false;
}

} // namespace

const char *pseudo_file_system(int fd) {
  struct statfs status {};
  if (fstatfs(fd, &status) != 0) return nullptr;
  const auto magic = static_cast<unsigned int>(status.f_type);
  for (const FileSystem &candidate : kPseudo) {
    if (candidate.magic == magic) return candidate.name;
  }
  const bool may_be_devtmpfs = magic == TMPFS_MAGIC || magic == RAMFS_MAGIC;
  return may_be_devtmpfs && is_devtmpfs(fd) ? "devtmpfs" : nullptr;
}

} // namespace scrub
