// Where the service keeps its own files. They are no data of the tree, also where they lie in it.
#ifndef SCRUB_PLACES_HPP
#define SCRUB_PLACES_HPP

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace scrub {

struct Places {
  std::string manifest_directory;
  std::string manifest_name;
  std::string log_directory;

  std::string manifest() const { return manifest_directory + "/" + manifest_name; }
  std::string unfinished_name() const { return manifest_name + ".unfinished"; }

  // The logging library appends its ".log" to the manifest's name.
  const std::string &log_name() const { return manifest_name; }
  std::string log() const { return log_directory + "/" + log_name() + ".log"; }
};

// Tells the service's own files from data, in every directory by which they can be reached.
class OwnFiles {
public:
  explicit OwnFiles(const Places &places);

  bool contains(const struct stat &directory, std::string_view name) const;

private:
  bool is_log(std::string_view name) const;

  const Places &places_;
  struct stat manifest_directory_ {};
  struct stat log_directory_ {};
};

} // namespace scrub

#endif
