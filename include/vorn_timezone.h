/* The node's time zone: functions that set and read it through the operating system or the node's
 * script, and pass it to the kernel module. Text arguments must end in a NUL. Unless a function
 * says otherwise, it logs an error and returns -1 if an argument is NULL.
 *
 * The functions run tools and scripts and wait for them, and change shared files of the node: only
 * one thread of the node may call them at a time. None is safe in a signal handler, and none is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TIMEZONE_H
#define VORN_TIMEZONE_H

#include <time.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

#define VORN_ZONENAME_SIZE 64u /* size of a zone's name in bytes, with its NUL */

/* Sets the zone, for example "Europe/Berlin", with timedatectl; if that fails, with the link
 * /etc/localtime, which must then exist.
 *   name: name of the zone
 * Returns 0. On failure, logs an error and returns -22 if name is NULL or has a character that
 * isDangerousCmd (vorn_cmd.h) refuses, -2 if /etc/localtime or the zone does not exist, and -1
 * otherwise. */
VORN_API int vorn_timezone_set(const char *name);

/* Sets the zone with the node's script, /WRK/script/os_get_tmtz.sh, which also distributes it.
 *   name: name of the zone
 * Returns 0. On failure, logs an error and returns -22 if name is NULL, and -1 if the script fails
 * or isDangerousCmd (vorn_cmd.h) refuses the name. */
VORN_API int vorn_timezone_set_shell(const char *name);

/* Stores the zone's name in the VORN_ZONENAME_SIZE bytes at name, from the first of the three
 * sources below that has it.
 *   name: where the name goes
 * Returns 0; -1 if no source has it; if name is NULL, logs an error and returns 0. */
VORN_API int vorn_zonename_get(char *name);

/* Stores the zone's name that timedatectl shows in the size bytes at name. Cuts a name that does
 * not fit.
 *   name: where the name goes
 *   size: bytes at name
 * Returns 0; -1 if timedatectl is missing; if timedatectl does not show a name, logs an error and
 * returns -1. */
VORN_API int vorn_zonename_get_by_timedatectl(char *name, uint32_t size);

/* Stores the zone's name, which is the target of the link /etc/localtime below /usr/share/zoneinfo,
 * in the size bytes at name. "%%" in the target means "%".
 *   name: where the name goes
 *   size: bytes at name
 * Returns 0; -1 if there is no such link; if the name does not fit or the target has a single "%",
 * logs an error and returns -1. */
VORN_API int vorn_zonename_get_by_soft_link(char *name, uint32_t size);

/* Stores the zone's name, which is the item DEFAULT_TIMEZONE in /etc/sysconfig/clock, in the size
 * bytes at name.
 *   name: where the name goes
 *   size: bytes at name
 * Returns 0; -1 if there is no such file; if the file does not have the item or the name does not
 * fit, logs an error and returns -1. */
VORN_API int vorn_zonename_get_by_sysconfig(char *name, uint32_t size);

/* Stores the zone's name that the node's script writes to /WRK/conf/time_zone.conf in the
 * VORN_ZONENAME_SIZE bytes at name, passes it to vorn_time_zone_name_set, and removes the file. A
 * line feed that the script wrote is part of the name.
 *   name: where the name goes
 * Returns 0; on failure, logs an error and returns -1; if name is NULL, returns -1 without a log
 * message. */
VORN_API int vorn_zonename_get_shell(char *name);

/* Passes the transitions of the zone that the script names to the kernel module, from 1970 up to
 * the first one after 2037, at most 544; if the zone has none, passes its current offset. Reads the
 * transitions from the output of zdump, which it keeps as /var/run/timezone_<name> and uses again
 * until that file is removed.
 * Returns 0; logs an error and returns -1 if the name cannot be read, the output has a wrong line
 * after the first transition, memory runs out, or the module is missing or refuses. */
VORN_API int sync_timezone_to_kernel(void);

/* A parsed line of `zdump -v`. */
typedef struct vorn_dst_line {
  struct tm utc;         /* date and time of the instant, without weekday and day of the year */
  struct tm local;       /* the local time plus one second, without zone and flag */
  char abbreviation[32]; /* zone abbreviation of the local time, such as "CEST" */
  int32_t dst;           /* 1: daylight-saving time */
  int32_t offset;        /* offset of the local time from UTC in seconds, positive in the east */
} vorn_dst_line_s;

/* Parses a line of `zdump -v`.
 *   line: line of zdump
 *   out: where the parsed line goes
 * Returns 0; -1 without a log message if the line is not valid; *out is then unspecified. */
VORN_API int read_dst_line(const char *line, vorn_dst_line_s *out);

/* Returns 0 to 11 for "Jan" to "Dec", in this case of letters; -1 without a log message for another
 * text.
 *   name: name of the month */
VORN_API int month_name_to_index(const char *name);

VORN_END_DECLS

#endif
