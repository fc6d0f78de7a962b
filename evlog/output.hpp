// Where texts go: the log file and the console, each with one write. Writing is signal-safe.
#ifndef VORN_EVLOG_OUTPUT_HPP
#define VORN_EVLOG_OUTPUT_HPP

#include <string_view>
#include <sys/types.h>

namespace logging {

// Opens or moves the log file. 0, or -1 with errno, and then nothing has changed.
int open_log_file(const char *program, const char *directory);
void close_log_file();

// The number of bytes written, or -1 where there is no file or it takes none.
ssize_t write_log_file(std::string_view text);
ssize_t write_console(std::string_view text);

// While locked nothing is opened, closed or rotated.
void lock_log_file();
void unlock_log_file();

} // namespace logging

#endif
