// Reads and writes the list of damaged files.
// SPDX-License-Identifier: Apache-2.0
#include "damaged_list.hpp"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <vector>

#include "fd.hpp"
#include "text.hpp"

namespace scrub {
namespace {

constexpr char kTitle[] = "vorn-scrub-damaged 1";
constexpr char kAll[] = "%";

} // namespace

DamagedList::DamagedList(const OwnPaths &paths)
    : directory_(paths.manifest_directory), file_(directory_ + "/" + paths.damaged_name()) {
  load();
}

// After an exception the list is as before.
void DamagedList::load() {
  const std::vector<std::string> lines = file_.read();
  const bool all = lines.size() > 1 && lines[1] == kAll;
  const std::size_t first = all ? 2 : 1;
  bool right = lines.empty() || lines[0] == kTitle;
  String path;
  for (std::size_t i = first; i < lines.size(); ++i)
    right = unescape(lines[i], path) && right;
  if (!right)
    throw std::runtime_error(file_.path() + " is no list of damaged files of this version");
  empty_out();
  all_ = all;
  for (std::size_t i = first; i < lines.size(); ++i) {
    unescape(lines[i], path);
    insert(path);
  }
}

bool DamagedList::contains(std::string_view path) const { return all_ || paths_.contains(path); }

void DamagedList::add(std::string_view path) {
  if (contains(path)) return;
  changes_.insert_or_assign(String(path), true);
  insert(path);
}

void DamagedList::remove(std::string_view path) {
  if (!paths_.contains(path)) return;
  changes_.insert_or_assign(String(path), false);
  erase(path);
}

void DamagedList::clear() {
  cleared_ = true;
  changes_.clear();
  empty_out();
}

void DamagedList::insert(std::string_view path) {
  if (contains(path)) return;
  if (paths_.size() >= kMost || bytes_ + path.size() > kMostBytes) {
    empty_out();
    all_ = true;
    return;
  }
  bytes_ += path.size();
  paths_.insert(String(path));
}

void DamagedList::erase(std::string_view path) {
  const auto at = paths_.find(path);
  if (at == paths_.end()) return;
  bytes_ -= path.size();
  paths_.erase(at);
}

void DamagedList::empty_out() {
  all_ = false;
  bytes_ = 0;
  paths_.clear();
}

int DamagedList::save() {
  if (changes_.empty() && !cleared_) return 0;
  const Fd directory(open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return errno;
  while (flock(directory.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return errno;
  }
  if (cleared_) {
    empty_out();
  } else {
    try {
      load();
    } catch (const std::runtime_error &) {
      return EBADMSG; // another run, or the medium, has spoiled it
    }
  }
  for (const auto &[path, added] : changes_)
    added ? insert(path) : erase(path);
  const int error = write();
  if (error != 0) return error; // the next call tries again
  changes_.clear();
  cleared_ = false;
  return 0;
}

int DamagedList::write() const {
  if (empty()) return file_.remove();
  std::vector<std::string> lines{kTitle};
  if (all_) lines.emplace_back(kAll);
  for (const String &path : paths_)
    lines.emplace_back(escape(path));
  return file_.write(lines);
}

} // namespace scrub
