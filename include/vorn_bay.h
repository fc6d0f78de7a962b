/* The bay configuration: one value per key segment, which the node's script
 * "/WRK/script/os_get_bay_config_segment.sh" reads from "/WRK/conf/bay_config.ini" and prints as
 * the first line of its output. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_BAY_H
#define VORN_BAY_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Whether these arguments can be asked for.
 *   key_segment: key of the value, not empty
 *   out: where the value goes
 * Returns 0; -22 after an error message when one is NULL or the key segment dangerous
 * (isDangerousCmd without a whitelist); -1 after one when it is empty. Any thread may call, not a
 * signal handler; never blocks. */
VORN_API int get_bay_config_keyvalue_param_check(const char *key_segment, const char *out);

/* Runs the script for key_segment and stores the value, without its line feed, and a NUL into the
 * size bytes at out; a value longer than size - 1 is cut there. Carriage returns are left out. An
 * empty line is a value. The last of the size bytes is set to zero in any case.
 *
 * The key segment becomes part of a shell command: beside the refused characters, blanks, quotes,
 * "#" and the like mean there what they mean to the shell. Command and key segment together take at
 * most 255 characters.
 *
 * The output passes through "/tmp/bay_cfg_segment_%d.conf" with the process id, which is removed
 * after the value was read or was found missing, and by the next call after other failures. So two
 * calls of one process must not overlap.
 *   key_segment: key of the value, not empty
 *   out: where the value goes
 *   size: bytes at out
 * Returns 0; what get_bay_config_keyvalue_param_check refuses with; -1 after an error message when
 * the command is too long, the temporary file cannot be made or opened, the script fails, or it
 * prints nothing (size below 2 included). Not safe in a signal handler; blocks until the script has
 * ended, and is no cancellation point. */
VORN_API int vorn_get_bay_config_keyvalue(const char *key_segment, char *out, uint32_t size);

VORN_END_DECLS

#endif
