// Opens trees and manifests, and refuses those that do not fit.
// SPDX-License-Identifier: Apache-2.0
#include "opening.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>

#include "errors.hpp"
#include "text.hpp"

namespace scrub {
namespace {

bool hanging = false; // only the thread of main and of the instance, which main waits for

std::string tree_text(const TreeRecord &tree) {
  char id[64];
  std::snprintf(
      id, sizeof id, " (inode %llu, file system %llx", static_cast<unsigned long long>(tree.inode),
      static_cast<unsigned long long>(tree.file_system != 0 ? tree.file_system : tree.device));
  const std::string label =
      tree.label.empty() ? std::string() : std::string(", label ") + escape(tree.label).c_str();
  return std::string(escape(tree.root).c_str()) + id + label + ")";
}

} // namespace

void check_readable(const Tree &tree, const Job &job) {
  const char *name = tree.pseudo_name();
  if (job.options.scope.pseudo || name == nullptr) return;
  throw std::runtime_error(job.root + " is a " + name +
                           " file system, which holds no data; --pseudo reads it");
}

bool is_foreign(const TreeRecord &recorded, const Tree &tree, const Job &job) {
  const TreeRecord found = tree.identity();
  if (!recorded.known || same_tree(recorded, found)) return false;
  if (job.options.any_tree) return true;
  throw std::runtime_error(job.paths.manifest() + " belongs to another tree: it records " +
                           tree_text(recorded) + ", this is " + tree_text(found) +
                           "; --any-tree takes it");
}

Fd open_manifest(const std::string &path) {
  Fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) fail("cannot open " + path);
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) fail("cannot open " + path);
  if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + " is no regular file");
  return fd;
}

Fd open_again(const Fd &fd, const std::string &path) {
  const std::string link = "/proc/self/fd/" + std::to_string(fd.get());
  Fd again(open(link.c_str(), O_RDONLY | O_CLOEXEC));
  if (!again) fail("cannot open " + path + " again");
  return again;
}

const char *reason(int error) {
  if (error == ENOENT) return "vanished after the run had found it";
  if (error == ESTALE) return "replaced after the run had found it";
  return std::strerror(error);
}

bool is_gone(int error) { return error == ENOENT || error == ESTALE; }

int why_not_found(const Tree &tree, const ScopeFilter &filter, const String &path) {
  struct stat status {};
  struct stat root {};
  if (tree.status(path, status)) {
    if (!S_ISREG(status.st_mode)) return 0;
    const bool left_out =
        filter.one_file_system() && fstat(tree.fd(), &root) == 0 && root.st_dev != status.st_dev;
    return left_out ? EXDEV : ESTALE;
  }
  return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? 0 : errno;
}

Opened open_file(const Entry &entry, bool cached) {
  Opened opened{std::make_shared<DataFile>()};
  opened.error = opened.file->open(entry.file.directory->get(), entry.file.name.c_str(), cached);
  return opened;
}

void note_hanging_thread() { hanging = true; }

bool has_hanging_thread() { return hanging; }

} // namespace scrub
