// SIGINT, SIGTERM and SIGHUP end the run in an orderly way.
#ifndef SCRUB_INTERRUPT_HPP
#define SCRUB_INTERRUPT_HPP

namespace scrub {

// Also has a closed pipe and the file size limit come back as errors of write(2).
void catch_signals();

// Whether such a signal has come; the second one throws then: called by any thread wherever the run
// may stop.
bool interrupted();
void check_interrupt();

} // namespace scrub

#endif
