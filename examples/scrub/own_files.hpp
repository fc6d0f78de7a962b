// Names the files of the service. They do not count as data, even inside the tree.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_OWN_FILES_HPP
#define SCRUB_OWN_FILES_HPP

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace scrub {

constexpr std::string_view kDefaultManifest = ".vorn-scrub"; // in the root of the tree

// What mkostemp(3) gets after the name of a page.
constexpr std::string_view kUnfinishedPage = ".unfinished-";

struct OwnPaths {
  std::string manifest_directory;
  std::string manifest_name;
  std::string log_directory;
  std::string page_directory = {}; // of --report
  std::string page_name = {};      // empty if there is no page

  std::string manifest() const { return manifest_directory + "/" + manifest_name; }
  std::string unfinished() const { return manifest_directory + "/" + unfinished_name(); }

  std::string old_name() const { return manifest_name + ".old"; } // the manifest before
  std::string unfinished_name() const { return manifest_name + ".unfinished"; }
  std::string checkpoint_name() const { return manifest_name + ".checkpoint"; }
  std::string damaged_name() const { return manifest_name + ".damaged"; }
  std::string part_name() const { return manifest_name + ".part"; }

  // The logging library appends its ".log" to the manifest's name.
  const std::string &log_name() const { return manifest_name; }
  std::string log() const { return log_directory + "/" + log_name() + ".log"; }
};

// Recognizes the files of the service, whichever path leads a walk to them.
class OwnFiles {
public:
  explicit OwnFiles(const OwnPaths &paths);

  bool contains(const struct stat &directory, std::string_view name) const;

private:
  bool is_beside_manifest(std::string_view name) const;
  bool is_log(std::string_view name) const;
  bool is_page(std::string_view name) const;

  const OwnPaths &paths_;
  struct stat manifest_directory_ {};
  struct stat log_directory_ {};
  struct stat page_directory_ {};
};

} // namespace scrub

#endif
