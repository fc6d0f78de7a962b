// What the server does with a connection.
#ifndef VORN_SYSCALL_KRAM_SERVER_HPP
#define VORN_SYSCALL_KRAM_SERVER_HPP

#include <chrono>

#include "base/unique_fd.hpp"

namespace vorn::kram {

// Answers the requests of a stream socket until its peer leaves, sends what does not fit, or takes
// longer than time_limit over a message.
void serve(UniqueFd socket, std::chrono::milliseconds time_limit);

} // namespace vorn::kram

#endif
