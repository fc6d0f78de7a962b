// Writes a manifest, and replaces the old one when it is complete.
// SPDX-License-Identifier: Apache-2.0
#include "manifest_writer.hpp"

#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "errors.hpp"

namespace scrub {
namespace {

constexpr std::size_t kBufferSize = 256 * 1024;

} // namespace

ManifestWriter::ManifestWriter(const OwnPaths &paths)
    : manifest_(paths.manifest()), name_(paths.manifest_name), unfinished_(paths.unfinished_name()),
      directory_(open(paths.manifest_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!directory_) fail("cannot open " + paths.manifest_directory);
  check_target();
  open_unfinished(paths.manifest_directory);
  buffer_.reserve(kBufferSize);
  add_line(kManifestHeader);
}

ManifestWriter::~ManifestWriter() {
  if (file_) unlinkat(directory_.get(), unfinished_.c_str(), 0);
}

void ManifestWriter::begin_file(const FileRecord &file) {
  before_file_ = now_;
  block_ = 0;
  ++now_.totals.files;
  now_.totals.bytes += file.size;

  add_line(file_line(file));
}

void ManifestWriter::add_block(const Checksums &block) {
  ++now_.totals.blocks;
  add_line(block_line(block_++, block));
}

void ManifestWriter::drop_file() {
  now_ = before_file_;
  if (now_.length >= written_) {
    buffer_.resize(now_.length - written_);
    return;
  }
  if (ftruncate(file_.get(), static_cast<off_t>(now_.length)) != 0) fail("cannot cut " + manifest_);
  written_ = now_.length;
  buffer_.clear();
}

void ManifestWriter::commit() {
  add_line(end_line(now_.totals));
  flush();

  if (fsync(file_.get()) != 0) fail("cannot write " + manifest_);
  if (renameat(directory_.get(), unfinished_.c_str(), directory_.get(), name_.c_str()) != 0)
    fail("cannot replace " + manifest_);
  file_ = Fd();
  // Syncing the directory puts the new name on the disk. Some file systems do not support it
  // (EINVAL).
  if (fsync(directory_.get()) != 0 && errno != EINVAL) fail("cannot write " + manifest_);
}

// Refuses to replace anything but a regular file, such as a device or a directory.
void ManifestWriter::check_target() const {
  struct stat status {};
  if (fstatat(directory_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (!S_ISREG(status.st_mode)) fail("cannot replace " + manifest_ + ", no regular file", EEXIST);
}

// A lock on the unfinished file lets one run at a time write it. The file of a killed run has no
// lock and is used again.
void ManifestWriter::open_unfinished(const std::string &directory) {
  Fd file(openat(directory_.get(), unfinished_.c_str(),
                 O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  if (!file) fail("cannot write into " + directory + ", choose another place with --manifest");
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) fail("another run is writing " + manifest_);

  // Between the two calls, another run may have renamed the file to the manifest.
  struct stat opened {};
  struct stat named {};
  if (fstat(file.get(), &opened) != 0 ||
      fstatat(directory_.get(), unfinished_.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
      opened.st_ino != named.st_ino)
    fail("another run has just written " + manifest_, EBUSY);
  if (!S_ISREG(opened.st_mode)) fail("cannot write " + directory + "/" + unfinished_, EEXIST);
  file_ = std::move(file);
  if (ftruncate(file_.get(), 0) != 0) {
    const int error = errno;
    unlinkat(directory_.get(), unfinished_.c_str(), 0);
    fail("cannot write " + directory + "/" + unfinished_, error);
  }
}

void ManifestWriter::add_line(std::string_view text) {
  char code[16];
  std::snprintf(code, sizeof code, "%08" PRIx32 " ", now_.code.next(text));
  const std::string_view digits(code);
  if (buffer_.size() + digits.size() + text.size() + 1 > kBufferSize) flush();
  buffer_.insert(buffer_.end(), digits.begin(), digits.end());
  buffer_.insert(buffer_.end(), text.begin(), text.end());
  buffer_.push_back('\n');
  now_.length += digits.size() + text.size() + 1;
}

void ManifestWriter::flush() {
  std::size_t done = 0;
  while (done < buffer_.size()) {
    const ssize_t put = pwrite(file_.get(), buffer_.data() + done, buffer_.size() - done,
                               static_cast<off_t>(written_ + done));
    if (put < 0) fail("cannot write " + manifest_);
    done += static_cast<std::size_t>(put);
  }
  written_ += done;
  buffer_.clear();
}

} // namespace scrub
