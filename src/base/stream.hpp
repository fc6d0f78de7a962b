// Owns a stream of the C library.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_STREAM_HPP
#define VORN_BASE_STREAM_HPP

#include <cstdio>
#include <memory>

#include "base/cancellation_guard.hpp"

namespace vorn {

struct CloseStream {
  void operator()(std::FILE *stream) const {
    const CancellationGuard off;
    std::fclose(stream);
  }
};
using Stream = std::unique_ptr<std::FILE, CloseStream>;

} // namespace vorn

#endif
