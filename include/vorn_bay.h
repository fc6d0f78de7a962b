/* The bay configuration: one value for each key segment, which the node's script
 * "/WRK/script/os_get_bay_config_segment.sh" reads from "/WRK/conf/bay_config.ini" and prints as
 * the first line of its output. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_BAY_H
#define VORN_BAY_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Checks the arguments of vorn_get_bay_config_keyvalue.
 *   key_segment: key of the value, not empty
 *   out: where the value goes
 * Returns 0. Logs an error and returns -22 if an argument is NULL or the key segment is dangerous
 * (isDangerousCmd without a whitelist); logs an error and returns -1 if the key segment is empty.
 * Any thread may call, not a signal handler; never blocks. */
VORN_API int get_bay_config_keyvalue_param_check(const char *key_segment, const char *out);

/* Runs the script for key_segment and stores the value, without its line feed and with a NUL, in
 * the size bytes at out. Cuts a value longer than size - 1 bytes and drops carriage returns. An
 * empty line is a valid value. Always sets the last of the size bytes to zero.
 *
 * The key segment becomes part of a shell command: the shell interprets blanks, quotes, "#" and
 * other special characters that the check does not refuse. The command with the key segment has at
 * most 255 characters.
 *
 * The output passes through the file "/tmp/bay_cfg_segment_%d.conf", named with the process id. The
 * function removes the file after it has read the value or found it missing; after another failure
 * the next call removes it. Two calls of one process must therefore not overlap.
 *   key_segment: key of the value, not empty
 *   out: where the value goes
 *   size: bytes at out
 * Returns 0; if get_bay_config_keyvalue_param_check refuses the arguments, returns its result. Logs
 * an error and returns -1 if the command is too long, the temporary file cannot be created or
 * opened, the script fails or prints nothing, or size is below 2. Not safe in a signal handler; not
 * a cancellation point; blocks until the script ends. */
VORN_API int vorn_get_bay_config_keyvalue(const char *key_segment, char *out, uint32_t size);

VORN_END_DECLS

#endif
