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

void DamagedList::load() {
  empty_out();
  const std::vector<std::string> lines = file_.read();
  String path;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i == 0 && lines[i] == kTitle) continue;
    if (i == 1 && lines[i] == kAll) {
      all_ = true;
      continue;
    }
    if (i == 0 || !unescape(lines[i], path))
      throw std::runtime_error(file_.path() + " is no list of damaged files of this version");
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
  if (!directory || flock(directory.get(), LOCK_EX) != 0) return errno;
  try {
    load();
  } catch (const std::runtime_error &) {
    if (!cleared_) return EBADMSG; // another run, or the medium, has spoiled it
  }
  if (cleared_) empty_out();
  for (const auto &[path, added] : changes_)
    added ? insert(path) : erase(path);
  changes_.clear();
  cleared_ = false;
  return write();
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
