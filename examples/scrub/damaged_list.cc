// Reads and writes the list of damaged files.
// SPDX-License-Identifier: Apache-2.0
#include "damaged_list.hpp"

#include <stdexcept>
#include <string>
#include <vector>

#include "text.hpp"

namespace scrub {
namespace {

constexpr char kTitle[] = "vorn-scrub-damaged 1";
constexpr char kAll[] = "%";

} // namespace

DamagedList::DamagedList(const OwnPaths &paths)
    : file_(paths.manifest_directory + "/" + paths.damaged_name()) {
  const std::vector<std::string> lines = file_.read();
  if (lines.empty()) return;
  String path;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i == 0 && lines[i] == kTitle) continue;
    if (i == 1 && lines[i] == kAll) {
      all_ = true;
      continue;
    }
    if (i == 0 || !unescape(lines[i], path))
      throw std::runtime_error(file_.path() + " is no list of damaged files of this version");
    bytes_ += path.size();
    paths_.insert(path);
  }
}

bool DamagedList::contains(std::string_view path) const { return all_ || paths_.contains(path); }

void DamagedList::add(std::string_view path) {
  if (contains(path)) return;
  changed_ = true;
  if (paths_.size() >= kMost || bytes_ + path.size() > kMostBytes) {
    all_ = true;
    bytes_ = 0;
    paths_.clear();
    return;
  }
  bytes_ += path.size();
  paths_.insert(String(path));
}

void DamagedList::remove(std::string_view path) {
  const auto at = paths_.find(path);
  if (at == paths_.end()) return;
  bytes_ -= path.size();
  paths_.erase(at);
  changed_ = true;
}

void DamagedList::clear() {
  changed_ |= all_ || !paths_.empty();
  all_ = false;
  bytes_ = 0;
  paths_.clear();
}

int DamagedList::save() {
  if (!changed_) return 0;
  changed_ = false;
  if (paths_.empty() && !all_) return file_.remove();
  std::vector<std::string> lines{kTitle};
  if (all_) lines.emplace_back(kAll);
  for (const String &path : paths_)
    lines.emplace_back(escape(path));
  return file_.write(lines);
}

} // namespace scrub
