// Maps the descriptor of a stream to its child, for vorn_pclose. The table is created once, with
// the limit of descriptors at that time as its size (up to 1048576), and stays.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_STR_PID_TABLE_HPP
#define VORN_STR_PID_TABLE_HPP

#include <sys/types.h>

namespace vorn::str {

// Creates the table if there is none. Returns false if the limit is below 1 or memory runs out.
bool pid_table_ready();

// Returns whether the table, which must exist, covers that descriptor.
bool pid_table_covers(int fd);

// Stores the child of a covered descriptor.
void pid_table_put(int fd, pid_t child);

// Removes and returns the child of any descriptor; returns 0 if there is none.
pid_t pid_table_take(int fd);

} // namespace vorn::str

#endif
