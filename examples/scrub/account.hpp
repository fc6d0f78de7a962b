// Draws the conclusions from the counts of a run: its exit status, its verdict in one line, and the
// figures of its account.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_ACCOUNT_HPP
#define SCRUB_ACCOUNT_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "instance.hpp"
#include "page_figures.hpp"
#include "scrub.hpp"
#include "summary.hpp"
#include "verdict.hpp"

namespace scrub {

// Returns "clean", "silent damage", "could not run", "incomplete" or "differences".
const char *status_name(ExitStatus status);

// Returns "create", "verify" or "update".
const char *command_name(Command command);

// Differences count for verify alone: update records them.
ExitStatus status_of(Command command, const Tally &tally, bool interrupted, bool limited);

// Returns "INCOMPLETE: 2 unreadable, interrupted (part 3 of 30)" and the like.
std::string verdict_line(Command command, const Tally &tally, const Summary &summary);

// What was read and recorded, and how. taken is the time of the run in nanoseconds.
std::vector<Row> read_rows(Command command, const Tally &tally, const Summary &summary,
                           std::uint64_t taken);

} // namespace scrub

#endif
