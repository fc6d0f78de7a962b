// What ends a run with exit status 2. Everything else is reported, and the run goes on.
#ifndef SCRUB_FAILURE_HPP
#define SCRUB_FAILURE_HPP

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace scrub {

// A failed system call, with errno's text behind what was tried.
[[noreturn]] inline void fail(const std::string &what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

} // namespace scrub

#endif
