// Owns a directory stream of the C library.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_DIRECTORY_HPP
#define VORN_BASE_DIRECTORY_HPP

#include <dirent.h>
#include <memory>

#include "base/cancellation_guard.hpp"

namespace vorn {

struct CloseDirectory {
  void operator()(DIR *directory) const {
    const CancellationGuard off;
    closedir(directory);
  }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

} // namespace vorn

#endif
