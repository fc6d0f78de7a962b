#include "places.hpp"

namespace scrub {
namespace {

// A directory that is not there keeps its zeros, and is none that a walk meets.
struct stat status_of(const std::string &directory) {
  struct stat status {};
  stat(directory.c_str(), &status);
  return status;
}

bool same_directory(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

OwnFiles::OwnFiles(const Places &places)
    : places_(places), manifest_directory_(status_of(places.manifest_directory)),
      log_directory_(status_of(places.log_directory)) {}

bool OwnFiles::contains(const struct stat &directory, std::string_view name) const {
  if (same_directory(directory, manifest_directory_) &&
      (name == places_.manifest_name || name == places_.unfinished_name()))
    return true;
  return same_directory(directory, log_directory_) && is_log(name);
}

// "NAME.log", or "NAME.log.1" and so on for those that rotation keeps.
bool OwnFiles::is_log(std::string_view name) const {
  const std::string log = places_.log_name() + ".log";
  if (!name.starts_with(log)) return false;
  name.remove_prefix(log.size());
  if (name.empty()) return true;
  return name.size() > 1 && name[0] == '.' &&
         name.find_first_not_of("0123456789", 1) == std::string_view::npos;
}

} // namespace scrub
