// Makes the page of a run in a temporary file.
// SPDX-License-Identifier: Apache-2.0
#include "html_report.hpp"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.hpp"
#include "fd.hpp"
#include "text.hpp"

#include <fcntl.h>

namespace scrub {
namespace {

std::string directory_of(const std::string &path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string shown(const std::string &path) { return std::string(escape(path)); }

// Follows symbolic links, so that they stay, if there is such a file.
std::string resolved(const std::string &path) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr),
                                                         &std::free);
  return real == nullptr ? path : real.get();
}

// A file of data is not replaced: a name may be mistyped.
bool may_replace(const std::string &path) {
  const Fd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file) return errno == ENOENT;
  std::string start(kPageStart.text().size(), '\0');
  const ssize_t got = pread(file.get(), start.data(), start.size(), 0);
  return got == 0 || start == kPageStart.text();
}

void refuse_others(const std::string &path, std::span<const OwnPaths> own) {
  if (path.empty() || path.back() == '/')
    throw std::runtime_error("--report needs the name of a file, not '" + shown(path) + "'");
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    throw std::runtime_error("--report " + shown(path) + " is not a regular file");
  if (!may_replace(path))
    throw std::runtime_error("--report " + shown(path) +
                             " is a file that vorn-scrub did not write, and is not replaced");
  if (stat(directory_of(path).c_str(), &status) != 0)
    fail("cannot write to " + shown(directory_of(path)));
  const std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
  for (const OwnPaths &paths : own) {
    if (OwnFiles(paths).contains(status, name))
      throw std::runtime_error("--report " + shown(path) + " is a file of the run itself");
  }
}

// The file's new name survives a crash of the system only once the directory is on the medium. Some
// file systems cannot do that; the page is there all the same.
void flush_directory(const std::string &path) {
  const Fd directory(open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() >= 0) fsync(directory.get());
}

} // namespace

HtmlReport::HtmlReport(const std::string &path, std::span<const OwnPaths> own)
    : path_(resolved(path)) {
  refuse_others(path_, own);
  std::string name = path_ + std::string(kUnfinishedPage) + "XXXXXX";
  const int fd = mkostemp(name.data(), O_CLOEXEC); // mode 0600
  if (fd < 0) fail("cannot write " + shown(path));
  file_.reset(fdopen(fd, "w"));
  if (file_ == nullptr) {
    const int error = errno;
    close(fd);
    unlink(name.c_str());
    fail("cannot write " + shown(path), error);
  }
  temporary_ = name;
}

HtmlReport::~HtmlReport() {
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void HtmlReport::name_in(OwnPaths &paths) const {
  paths.page_directory = directory_of(path_);
  paths.page_name = path_.substr(path_.rfind('/') + 1);
}

void HtmlReport::add_finding(const Finding &finding) {
  if (tables_.empty()) begin_directory();
  const auto kind = static_cast<std::size_t>(kind_of(finding.verdict));
  FindingTable &table = tables_.back()[kind];
  Use &use = used_[kind];
  if (use.rows == kMostRows || use.bytes >= kMostBytes) {
    ++table.left_out;
    return;
  }
  const Html row = finding_row(finding);
  ++use.rows;
  use.bytes += row.markup().size();
  table.rows << row;
}

void HtmlReport::finish(const PageFigures &figures) {
  std::FILE *file = file_.get();
  errno = 0;
  write_page(file, figures, tables_);
  if (std::fflush(file) != 0 || std::ferror(file) != 0 || fsync(fileno(file)) != 0)
    fail("cannot write " + shown(path_), errno == 0 ? EIO : errno);
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) fail("cannot write " + shown(path_));
  temporary_.clear();
  flush_directory(path_);
}

} // namespace scrub
