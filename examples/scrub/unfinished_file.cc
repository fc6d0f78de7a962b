// Writes the unfinished file of a manifest, and replaces the old manifest with it.
// SPDX-License-Identifier: Apache-2.0
#include "unfinished_file.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "errors.hpp"
#include "manifest_encoding.hpp"
#include "manifest_v1.hpp"

namespace scrub {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr std::size_t kChunk = 65536; // of a comparison

} // namespace

UnfinishedFile::UnfinishedFile(const OwnPaths &paths)
    : paths_(paths),
      directory_(open(paths.manifest_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!directory_) fail("cannot open " + paths_.manifest_directory);
  check_replaceable(paths_.manifest_name);
  check_replaceable(paths_.old_name());

  const struct stat status = open_locked(O_CREAT);
  if (status.st_size == 0 && (status.st_mode & ~S_IFMT & ~kOwnerOnly) == 0) return;
  // Another run left the file, perhaps for others to read. The lock on it is held until the new one
  // is locked.
  const Fd left = std::move(file_);
  if (unlinkat(directory_.get(), paths_.unfinished_name().c_str(), 0) != 0)
    fail("cannot replace " + paths_.unfinished());
  open_locked(O_CREAT | O_EXCL);
}

UnfinishedFile::~UnfinishedFile() {
  if (file_) unlinkat(directory_.get(), paths_.unfinished_name().c_str(), 0);
}

void UnfinishedFile::append(std::string_view bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t put = pwrite(file_.get(), bytes.data() + done, bytes.size() - done,
                               static_cast<off_t>(length_ + done));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) fail("cannot write " + paths_.manifest());
    done += static_cast<std::size_t>(put);
  }
  length_ += done;
}

void UnfinishedFile::cut(std::uint64_t length) {
  if (ftruncate(file_.get(), static_cast<off_t>(length)) != 0)
    fail("cannot cut " + paths_.unfinished());
  length_ = length;
}

void UnfinishedFile::commit() {
  const int directory = directory_.get();
  const std::string &name = paths_.manifest_name;
  sync();
  if (is_as_the_manifest()) { // keep the one before, which differs
    if (unlinkat(directory, paths_.unfinished_name().c_str(), 0) != 0)
      fail("cannot remove " + paths_.unfinished());
    file_ = Fd();
    return;
  }
  const bool moved = keep_old();
  if (renameat(directory, paths_.unfinished_name().c_str(), directory, name.c_str()) != 0) {
    const int error = errno;
    if (moved) renameat(directory, paths_.old_name().c_str(), directory, name.c_str());
    fail("cannot replace " + paths_.manifest(), error);
  }
  file_ = Fd();
  // An old manifest of another owner keeps its mode.
  [[maybe_unused]] const int changed =
      fchmodat(directory, paths_.old_name().c_str(), kOwnerOnly, 0);
  // Syncing the directory puts the new name on the disk. Some file systems do not support it
  // (EINVAL).
  if (fsync(directory) != 0 && errno != EINVAL) fail("cannot write " + paths_.manifest());
}

void UnfinishedFile::keep() {
  sync();
  file_ = Fd();
}

Fd UnfinishedFile::detach() {
  if (unlinkat(directory_.get(), paths_.unfinished_name().c_str(), 0) != 0 ||
      lseek(file_.get(), 0, SEEK_SET) != 0)
    fail("cannot read " + paths_.unfinished());
  return std::move(file_);
}

// Returns whether there is a manifest with the same content and the mode of a new one.
bool UnfinishedFile::is_as_the_manifest() const {
  const Fd old(openat(directory_.get(), paths_.manifest_name.c_str(),
                      O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!old || fstat(old.get(), &status) != 0) return false;
  if (static_cast<std::uint64_t>(status.st_size) != length_) return false;
  if ((status.st_mode & ~S_IFMT) != kOwnerOnly || status.st_uid != geteuid()) return false;
  std::vector<char> ours(kChunk);
  std::vector<char> theirs(kChunk);
  for (std::uint64_t at = 0; at < length_;) {
    const ssize_t got = pread(file_.get(), ours.data(), kChunk, static_cast<off_t>(at));
    if (got <= 0 || pread(old.get(), theirs.data(), kChunk, static_cast<off_t>(at)) != got ||
        std::memcmp(ours.data(), theirs.data(), static_cast<std::size_t>(got)) != 0)
      return false;
    at += static_cast<std::uint64_t>(got);
  }
  return true;
}

// Makes the old name a second name of the manifest, so that the manifest is never without its own.
// If the file system has no links, renames the manifest and returns true.
bool UnfinishedFile::keep_old() const {
  const int directory = directory_.get();
  const std::string &name = paths_.manifest_name;
  const std::string old = paths_.old_name();
  if (faccessat(directory, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
    return false;
  if (unlinkat(directory, old.c_str(), 0) != 0 && errno != ENOENT)
    fail("cannot replace " + paths_.manifest_directory + "/" + old);
  if (linkat(directory, name.c_str(), directory, old.c_str(), 0) == 0) return false;
  if (renameat(directory, name.c_str(), directory, old.c_str()) != 0)
    fail("cannot keep " + paths_.manifest() + " as " + old);
  return true;
}

// Refuses to replace anything but a manifest, such as a device, a directory or a file of data.
void UnfinishedFile::check_replaceable(const std::string &name) const {
  const std::string path = paths_.manifest_directory + "/" + name;
  struct stat status {};
  if (fstatat(directory_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (!S_ISREG(status.st_mode))
    throw std::runtime_error("cannot replace " + path + ": it is no regular file");
  if (status.st_size == 0) return;
  const Fd file(
      openat(directory_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) fail("cannot read " + path);
  char start[ManifestV1::kCodeLength + kManifestTitle.size()];
  const ssize_t got = pread(file.get(), start, sizeof start, 0);
  if (got < 0) fail("cannot read " + path);
  const std::string_view text(start, static_cast<std::size_t>(got));
  if (!text.starts_with(kManifestTitle) && !text.ends_with(kManifestTitle))
    throw std::runtime_error("cannot replace " + path + ": it is no manifest");
}

struct stat UnfinishedFile::open_locked(int flags) {
  const std::string name = paths_.unfinished_name();
  Fd file(openat(directory_.get(), name.c_str(),
                 O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, kOwnerOnly));
  if (!file)
    fail("cannot write into " + paths_.manifest_directory +
         ", choose another place with --manifest");
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) fail("cannot lock " + paths_.unfinished());
    throw std::runtime_error("another run is writing " + paths_.manifest());
  }

  // Between the two calls, another run may have renamed or replaced the file.
  struct stat opened {};
  struct stat named {};
  if (fstat(file.get(), &opened) != 0 ||
      fstatat(directory_.get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
      opened.st_ino != named.st_ino)
    fail("another run has just written " + paths_.manifest(), EBUSY);
  if (!S_ISREG(opened.st_mode)) fail("cannot write " + paths_.unfinished(), EEXIST);
  file_ = std::move(file);
  return opened;
}

void UnfinishedFile::sync() {
  if (fsync(file_.get()) != 0) fail("cannot write " + paths_.manifest());
}

} // namespace scrub
