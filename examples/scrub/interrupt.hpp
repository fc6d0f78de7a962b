// Ends the run in an orderly way on SIGINT, SIGTERM and SIGHUP, and tells of SIGUSR1, which asks
// for the run's progress.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_INTERRUPT_HPP
#define SCRUB_INTERRUPT_HPP

namespace scrub {

// Notes that SIGHUP is ignored, as nohup(1) sets it. Called before the library sets its handlers.
void note_ignored_signals();

// Leaves an ignored SIGHUP ignored. Also makes a closed pipe and the file size limit errors of
// write(2) instead of signals.
void catch_signals();

// Returns whether such a signal has arrived. Any thread may call it wherever the run may stop.
bool interrupted();

// Returns whether SIGUSR1 has arrived since the last call that returned true.
bool progress_wanted();

} // namespace scrub

#endif
