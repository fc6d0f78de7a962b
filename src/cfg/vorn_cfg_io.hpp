// Declares the calls by which the configuration engine opens, reads and writes files. None is a
// cancellation point, creates a standard descriptor, or fails because of a signal.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_IO_HPP
#define VORN_CFG_IO_HPP

#include <cstddef>
#include <fcntl.h>
#include <string_view>

#include "base/system.hpp"
#include "base/unique_fd.hpp"
#include "vorn_fileops.h"

namespace vorn::cfg {

// The result is close-on-exec, or invalid with errno on failure.
inline UniqueFd open_file(const char *path, int flags, mode_t mode = 0) {
  return sys::above_standard(
      sys::uninterrupted([=] { return vorn_open(path, flags | O_CLOEXEC, mode); }));
}

inline ssize_t read_file(int fd, void *to, std::size_t size) {
  return sys::uninterrupted([=] { return vorn_read(fd, to, size); });
}

// Returns false with errno if it could not write the whole text.
inline bool write_file(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written =
        sys::uninterrupted([=] { return vorn_write(fd, text.data(), text.size()); });
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

inline bool sync_file(int fd) {
  return sys::uninterrupted([=] { return vorn_sync(fd); }) == 0;
}

} // namespace vorn::cfg

#endif
