// Throws the errors that end a run with exit status 2. The run reports other errors and continues.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_ERRORS_HPP
#define SCRUB_ERRORS_HPP

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace scrub {

// Throws the error of a failed system call. what names the attempted action.
[[noreturn]] inline void fail(const std::string &what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

} // namespace scrub

#endif
