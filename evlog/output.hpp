// Declares the log file, to which each text goes with one write.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_OUTPUT_HPP
#define VORN_EVLOG_OUTPUT_HPP

#include <string_view>
#include <sys/types.h>

namespace logging {

// Opens or moves the log file. 0, or -1 with errno, and then nothing has changed.
int open_log_file(const char *program, const char *directory);
void close_log_file();

bool has_log_file();

// The number of bytes written, or -1 where there is no file or it takes none. Signal-safe.
ssize_t write_log_file(std::string_view text);

} // namespace logging

#endif
