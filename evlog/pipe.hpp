// Declares writes to a pipe that may have lost its reader.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_PIPE_HPP
#define VORN_EVLOG_PIPE_HPP

#include <string_view>
#include <sys/types.h>

namespace logging {

// The number of bytes written, or -1. The write raises no SIGPIPE, and one of the
// process's own stays pending. Signal-safe.
ssize_t write_pipe(int fd, std::string_view text);

} // namespace logging

#endif
