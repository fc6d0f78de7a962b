// Walks a tree in path order.
// SPDX-License-Identifier: Apache-2.0
#include "walk.hpp"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "errors.hpp"
#include "pseudo_file_system.hpp"

namespace scrub {
namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kOpenPlace = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr int kNoFollow = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;

bool is_dot(std::string_view name) { return name == "." || name == ".."; }

// Some file systems do not return the type with the name.
unsigned char type_of(int directory, const NameList::Entry &entry) {
  if (entry.type != DT_UNKNOWN) return entry.type;
  struct stat status {};
  // The run reports a name that has vanished when it opens it.
  if (fstatat(directory, entry.name.data(), &status, kNoFollow) != 0) return DT_REG;
  return IFTODT(status.st_mode);
}

// Calls act for each entry. Returns 0 or an errno. It does not use a stream of readdir(3), because
// the descriptor is shared, and would belong to the stream.
template <class Act> int for_each_entry(int directory, Act act) {
  if (lseek(directory, 0, SEEK_SET) < 0) return errno;
  alignas(dirent64) char buffer[32 << 10];
  for (;;) {
    const ssize_t size = getdents64(directory, buffer, sizeof buffer);
    if (size <= 0) return size < 0 ? errno : 0;
    for (ssize_t offset = 0; offset < size;) {
      const auto *entry = reinterpret_cast<const dirent64 *>(buffer + offset);
      act(std::string_view(entry->d_name), entry->d_type);
      offset += entry->d_reclen;
    }
  }
}

} // namespace

Walk::Walk(const Tree &tree, const OwnFiles &own, const Scope &scope, const TreeRecord &recorded)
    : tree_(tree), own_(own), filter_(scope, recorded) {
  Fd root = tree_.open("", kOpenDirectory);
  struct stat status {};
  int error = !root || fstat(root.get(), &status) != 0 ? errno : 0;
  if (error == 0) error = push(std::move(root), status, 0);
  if (error != 0) fail("cannot read directory " + tree_.root(), error);
}

bool Walk::next(Found &found) {
  while (!levels_.empty()) {
    Level &level = levels_.back();
    path_.resize(level.path_length);
    if (has_entry(level) ? visit(found) : leave(found)) return true;
  }
  return false;
}

bool Walk::has_entry(Level &level) {
  if (level.names == nullptr) return false;
  // Without an error: a directory that cannot be read to its end once more is not read forever.
  while (level.names->empty() && level.names->has_more() && level.error == 0)
    list(level);
  return !level.names->empty();
}

// Takes the next entry. Returns whether there is something to tell.
bool Walk::visit(Found &found) {
  const Level &level = levels_.back();
  const Directory directory = level.directory;
  const NameList::Entry entry = level.names->take();
  path_ += entry.name;
  const unsigned char type = type_of(directory->get(), entry);
  const bool is_directory = type == DT_DIR;

  if (filter_.excluded(path_, is_directory)) {
    ++counts_.excluded;
    return false;
  }
  if (!filter_.wanted(path_) && !(is_directory && filter_.leads_to_wanted(path_))) return false;
  if (type != DT_REG && !is_directory) {
    ++(type == DT_LNK ? counts_.links : counts_.specials);
    return false;
  }

  found.error = path_.size() > kMaxPath ? ENAMETOOLONG : 0;
  if (is_directory && found.error == 0) {
    found.error = enter(entry.name.data());
    if (found.error == 0) return false;
  }
  found.path = path_;
  found.directory = directory;
  found.name = entry.name;
  found.is_directory = is_directory;
  return true;
}

// Enters a directory of the current one, unless it is left out. Returns 0 or an errno.
int Walk::enter(const char *name) {
  const dev_t device = levels_.back().device;
  const int parent = levels_.back().directory->get();
  struct stat status {};
  if (fstatat(parent, name, &status, kNoFollow) != 0) return errno;
  // Opening the directory itself would have the automounter mount something.
  if (status.st_dev != device) {
    const Fd place(openat(parent, name, kOpenPlace));
    if (!place) return errno;
    if (leaves_out(place.get())) return 0;
  }

  Fd directory(openat(parent, name, kOpenDirectory));
  if (!directory || fstat(directory.get(), &status) != 0) return errno;
  // Something may have been mounted in between.
  if (status.st_dev != device && leaves_out(directory.get())) return 0;
  return push(std::move(directory), status, path_.size() + 1);
}

bool Walk::leaves_out(int directory) {
  if (filter_.one_file_system()) {
    ++counts_.other_file_systems;
    return true;
  }
  if (filter_.pseudo() || pseudo_file_system(directory) == nullptr) return false;
  ++counts_.pseudo;
  return true;
}

// Adds a level. Returns 0, or an errno if nothing can be read in the directory.
int Walk::push(Fd directory, const struct stat &status, std::size_t path_length) {
  const auto is_this = [&](const Level &level) {
    return level.inode == status.st_ino && level.device == status.st_dev;
  };
  if (std::ranges::any_of(levels_, is_this)) return ELOOP;

  Level level{std::make_shared<const Fd>(std::move(directory)), status.st_dev, status.st_ino,
              static_cast<std::uint32_t>(path_length)};
  level.names = std::make_unique<NameList>(limit_of_names());
  list(level);
  if (level.error != 0 && level.names->empty()) return level.error;

  if (!levels_.empty() && levels_.back().has_no_names()) levels_.back().names.reset();
  levels_.push_back(std::move(level));
  path_.resize(path_length, '/');
  if (levels_.size() > kOpenLevels) levels_[levels_.size() - 1 - kOpenLevels].directory.reset();
  return 0;
}

// The wide directories above leave less memory to those below, which are read more often instead.
std::size_t Walk::limit_of_names() const {
  constexpr std::size_t kLeast = 64 << 10;
  std::size_t room = NameList::kLimit;
  for (const Level &level : levels_) {
    if (level.names != nullptr) room -= std::min(room, level.names->capacity() / 2);
  }
  return std::max(room, kLeast);
}

void Walk::list(Level &level) {
  struct stat status {};
  status.st_dev = level.device;
  status.st_ino = level.inode;
  NameList &names = *level.names;
  names.begin();
  level.error = for_each_entry(level.directory->get(), [&](std::string_view name, auto type) {
    if (!is_dot(name) && !own_.contains(status, name)) names.add(name, type);
  });
  names.end();
}

// Returns to the parent. Returns whether there is an error to tell.
bool Walk::leave(Found &found) {
  const Level left = std::move(levels_.back());
  levels_.pop_back();
  if (!levels_.empty() && levels_.back().directory == nullptr)
    open_again(levels_.back(), left.directory);
  if (left.error == 0) return false;

  found.path = path_.empty() ? "." : path_.substr(0, path_.size() - 1);
  found.directory = nullptr;
  found.name.clear();
  found.error = left.error;
  found.is_directory = true;
  return true;
}

// Opens the directory of a level again. The child may be another directory's by now, so that ".."
// leads into another tree; the path may still lead to the right one.
void Walk::open_again(Level &level, const Directory &child) {
  const auto open_checked = [&level](Fd fd) {
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) return errno;
    if (status.st_dev != level.device || status.st_ino != level.inode) return ESTALE;
    level.directory = std::make_shared<const Fd>(std::move(fd));
    return 0;
  };
  int error = ESTALE;
  if (child != nullptr) error = open_checked(Fd(openat(child->get(), "..", kOpenDirectory)));
  const std::string_view path(path_.data(), std::max(level.path_length, 1U) - 1);
  if (error != 0 && open_checked(tree_.open(path, kOpenDirectory)) == 0) error = 0;
  if (error == 0) return;

  if (!level.has_no_names()) level.error = error;
  level.names.reset();
}

} // namespace scrub
