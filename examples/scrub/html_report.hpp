// Makes the page of a run in a temporary file, which takes the page's name when it is complete.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_HTML_REPORT_HPP
#define SCRUB_HTML_REPORT_HPP

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "own_files.hpp"
#include "page.hpp"
#include "page_figures.hpp"
#include "verdict.hpp"

namespace scrub {

class HtmlReport {
public:
  // Opens a temporary file beside path, readable by its owner alone. Throws std::system_error if
  // that fails, and std::runtime_error if path names something other than a regular file, or a file
  // of the run: own has the paths of each directory.
  HtmlReport(const std::string &path, std::span<const OwnPaths> own);
  HtmlReport(const HtmlReport &) = delete;
  HtmlReport &operator=(const HtmlReport &) = delete;
  ~HtmlReport(); // removes the temporary file

  // The findings that follow are those of the next element of PageFigures::directories.
  void begin_directory() { tables_.emplace_back(); }

  // Keeps a row of each finding, as long as the page has room.
  void add_finding(const Finding &finding);

  // Makes the page and its temporary file files of a run.
  void name_in(OwnPaths &paths) const;

  // Writes the page and gives it its name. Throws std::system_error; a page that had the name
  // before is then as it was.
  void finish(const PageFigures &figures);

  // Limits of each kind of finding, for all directories together.
  static constexpr std::size_t kMostRows = 1000;
  static constexpr std::size_t kMostBytes = 512 * 1024;

private:
  struct Close {
    void operator()(std::FILE *file) const { std::fclose(file); }
  };
  struct Use {
    std::size_t rows = 0;
    std::size_t bytes = 0;
  };

  std::string path_;
  std::string temporary_; // empty once it has the page's name
  std::unique_ptr<std::FILE, Close> file_;
  std::vector<FindingTables> tables_;
  std::array<Use, kFindingKinds> used_{};
};

} // namespace scrub

#endif
