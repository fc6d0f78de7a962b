// Declares the console: descriptor 2, as long as it is the file that it was when the library was
// loaded.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_CONSOLE_HPP
#define VORN_EVLOG_CONSOLE_HPP

#include <string_view>
#include <sys/types.h>

namespace logging {

// The number of bytes written with one write; or -1, and the text is counted as dropped.
// Signal-safe.
ssize_t write_console(std::string_view text);

enum class Report { kScarce, kFinal };

// The number of texts dropped so far, when it is to be reported now; otherwise 0. A scarce report
// is due after the first text, and when the number is ten times that of the last report; a final
// one after any that was not reported. Of several threads one gets the number.
unsigned long take_console_report(Report report);

} // namespace logging

#endif
