// Which child is behind which descriptor: the streams that are closed by vorn_pclose. The table is
// made once, as large as the limit of descriptors is then (up to 1048576), and stays.
#ifndef VORN_STR_PID_TABLE_HPP
#define VORN_STR_PID_TABLE_HPP

#include <sys/types.h>

namespace vorn::str {

// Makes the table unless it is there. False where the limit is below 1 or memory runs out.
bool pid_table_ready();

// Whether the table, which is ready, has an entry for that descriptor.
bool pid_table_covers(int fd);

// Notes the child behind a descriptor that is covered.
void pid_table_put(int fd, pid_t child);

// Takes the child behind any descriptor out of the table; 0 where there is none.
pid_t pid_table_take(int fd);

} // namespace vorn::str

#endif
