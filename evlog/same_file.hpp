// Compares two results of fstat(2): tells whether both describe one file.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_SAME_FILE_HPP
#define VORN_EVLOG_SAME_FILE_HPP

#include <sys/stat.h>

namespace logging {

inline bool same_file(const struct stat &one, const struct stat &other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

} // namespace logging

#endif
