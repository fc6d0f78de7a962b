// What the server does with a connection.
#ifndef VORN_SYSCALL_KRAM_SERVER_HPP
#define VORN_SYSCALL_KRAM_SERVER_HPP

#include <chrono>

namespace vorn::kram {

// Answers the requests of a stream socket until its peer leaves, sends what does not fit, or takes
// longer than time_limit over a message. The socket stays the caller's to close.
void serve(int socket, std::chrono::milliseconds time_limit);

} // namespace vorn::kram

#endif
