// Makes the directories of a test, and mounts over the directories of the system.
// SPDX-License-Identifier: Apache-2.0
#include "support/scratch.hpp"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <system_error>
#include <unistd.h>

namespace scratch {

namespace fs = std::filesystem;

namespace {

// Returns whether a system call succeeded, of which result is the result: false if the user may not
// make it. Any other failure fails the test.
bool is_permitted(int result, const char *what) {
  if (result == 0) return true;
  if (errno == EPERM || errno == EACCES) return false;
  throw std::system_error(errno, std::generic_category(), what);
}

bool make_mounts_private() {
  const int result = mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
  if (result != 0 && errno == EINVAL) return false; // the root directory is not a mount point
  return is_permitted(result, "mount");
}

bool enter_mount_namespace() {
  static const bool entered =
      is_permitted(unshare(CLONE_NEWNS), "unshare") && make_mounts_private();
  return entered;
}

bool cover(const std::string &directory) {
  return is_permitted(mount("none", directory.c_str(), "tmpfs", 0, nullptr), "mount");
}

// Makes an entry of the machine's root visible below root, unless it is a file.
bool mirror(const fs::directory_entry &entry, const std::string &root) {
  const std::string path = root + entry.path().string();
  if (entry.is_symlink()) {
    fs::copy_symlink(entry.path(), path);
  } else if (entry.is_directory() && entry.path() != root) {
    fs::create_directory(path);
    return is_permitted(
        mount(entry.path().c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr), "mount");
  }
  return true;
}

// Gives the process its own root directory, in which it can create directories without a trace on
// the machine.
bool enter_own_root() {
  const std::string root = "/mnt"; // every system has it
  if (!cover(root)) return false;
  for (const auto &entry : fs::directory_iterator("/")) {
    if (!mirror(entry, root)) return false;
  }
  return is_permitted(chroot(root.c_str()), "chroot") && is_permitted(chdir("/"), "chdir");
}

bool make_missing(const fs::path &directory) {
  if (directory.parent_path() != "/") throw std::runtime_error(directory.string() + " is missing");
  return enter_own_root() && fs::create_directory(directory);
}

} // namespace

Directory::Directory() {
  char path[] = "/tmp/vorn-test-XXXXXX";
  if (mkdtemp(path) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = path;
}

Directory::~Directory() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

void write_file(const std::string &path, const std::string &content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

void write_program(const std::string &path, const std::string &commands) {
  write_file(path, "#!/bin/sh\n" + commands + "\n");
  fs::permissions(path, fs::perms(0755));
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

int next_descriptor() {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(fd);
  return fd;
}

bool cover_directory(const std::string &directory) {
  return enter_mount_namespace() && (fs::exists(directory) || make_missing(directory)) &&
         cover(directory);
}

} // namespace scratch
