// Defines helpers for the fuzz targets: checks, parts of an input, a file in memory, and a logging
// library that formats each log message, so that the sanitizers check its arguments, and drops it.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_FUZZ_HARNESS_HPP
#define VORN_FUZZ_HARNESS_HPP

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include "evlog.h"
#include "vorn_list.h"

extern "C" {
int evlog_level_check(unsigned int, int) { return 0; }

int evlog(unsigned int, int, const char *, unsigned int, const char *, unsigned int,
          const char *format, ...) {
  char text[4096];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return 0;
}
}

namespace fuzz {

inline void expect(bool holds) {
  if (!holds) std::abort();
}

inline std::string_view text_of(const unsigned char *data, std::size_t size) {
  return {reinterpret_cast<const char *>(data), size};
}

// Removes the text up to the next mark, and the mark, from input. Takes all of it if there is no
// mark. Returns the text.
inline std::string take_until(std::string_view &input, char mark) {
  const std::size_t end = std::min(input.find(mark), input.size());
  const std::string taken(input.substr(0, end));
  input.remove_prefix(std::min(end + 1, input.size()));
  return taken;
}

// Returns the text up to its first NUL, as a C function reads it.
inline std::string c_string(std::string_view text) {
  return std::string(text.substr(0, text.find('\0')));
}

// A file in memory that has a path.
class File {
public:
  const char *path() const { return path_.c_str(); }
  int fd() const { return fd_; }

  void write(std::string_view text) const {
    expect(ftruncate(fd_, 0) == 0 && lseek(fd_, 0, SEEK_SET) == 0);
    expect(pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  }

private:
  int fd_ = memfd_create("input", MFD_CLOEXEC);
  std::string path_ = "/proc/self/fd/" + std::to_string(fd_);
};

inline const File &file() {
  static const File the_file;
  return the_file;
}

// Calls free with each node of a list. The head is not usable after that.
template <class Free> void free_nodes(const vorn_list_head_s &head, Free free) {
  for (vorn_list_head_s *at = vorn_list_first(&head); at != nullptr;) {
    vorn_list_head_s *node = at;
    at = vorn_list_next(&head, at);
    free(node);
  }
}

} // namespace fuzz

#endif
