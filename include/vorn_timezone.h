/* The node's time zone: set and read through the operating system or through the node's script, and
 * told to the kernel module. Text arguments end in a NUL. A NULL where it is not mentioned is
 * refused with -1 after an error message.
 *
 * The functions run tools and scripts and wait for them, and change files of the node that other
 * callers change too: one thread of the node at a time. None is safe in a signal handler or a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TIMEZONE_H
#define VORN_TIMEZONE_H

#include <time.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

#define VORN_ZONENAME_SIZE 64u /* bytes of a zone's name with its NUL */

/* Sets the zone, such as "Europe/Berlin": by timedatectl, or else by the link /etc/localtime, which
 * must exist then.
 *   name: name of the zone
 * Returns 0; -22 after an error message when name is NULL or holds a character that the guard of
 * commands refuses (vorn_cmd.h); -2 after one when /etc/localtime or the zone does not exist; -1
 * after one for another failure. */
VORN_API int vorn_timezone_set(const char *name);

/* Sets the zone by the node's script, /WRK/script/os_get_tmtz.sh, and has it spread the zone.
 *   name: name of the zone
 * Returns 0; -22 after an error message when name is NULL; -1 after one when the script fails or
 * the guard refuses the name. */
VORN_API int vorn_timezone_set_shell(const char *name);

/* The zone's name to the VORN_ZONENAME_SIZE bytes at name, from the first of the three sources
 * below that has it.
 *   name: where the name goes
 * Returns 0, also after an error message where name is NULL; -1 when none has it. */
VORN_API int vorn_zonename_get(char *name);

/* Stores the name as timedatectl gives it in the size bytes at name, cut where it does not fit.
 *   name: where the name goes
 *   size: bytes at name
 * Returns 0; -1 when timedatectl does not have it, after an error message where timedatectl is
 * there. */
VORN_API int vorn_zonename_get_by_timedatectl(char *name, uint32_t size);

/* Stores the name as the target of the link /etc/localtime below /usr/share/zoneinfo has it in the
 * size bytes at name. "%%" in the target stands for "%".
 *   name: where the name goes
 *   size: bytes at name
 * Returns 0; -1 when there is no such link, the name does not fit, or the target holds another "%",
 * after an error message where the link is there. */
VORN_API int vorn_zonename_get_by_soft_link(char *name, uint32_t size);

/* Stores the name as the item DEFAULT_TIMEZONE in /etc/sysconfig/clock has it in the size bytes at
 * name.
 *   name: where the name goes
 *   size: bytes at name
 * Returns 0; -1 when the file does not have it or it does not fit, after an error message where the
 * file is there. */
VORN_API int vorn_zonename_get_by_sysconfig(char *name, uint32_t size);

/* The name as the node's script leaves it in /WRK/conf/time_zone.conf, which is removed, to the
 * VORN_ZONENAME_SIZE bytes at name, and to vorn_time_zone_name_set. A line feed that the script
 * wrote is part of it.
 *   name: where the name goes
 * Returns 0; -1 after an error message, or without one when name is NULL. */
VORN_API int vorn_zonename_get_shell(char *name);

/* Tells the kernel module the transitions of the zone that the script names, from 1970 on and up to
 * the first one after 2037, at most 544; or its present offset, where it has none. They come from
 * zdump, whose output is kept as /var/run/timezone_<name> and used again until that file is
 * removed.
 * Returns 0; -1 after an error message when the name cannot be had, the output cannot be understood
 * after a first transition, memory is short, or the module is missing or refuses. */
VORN_API int sync_timezone_to_kernel(void);

/* A line of `zdump -v`. */
typedef struct vorn_dst_line {
  struct tm utc;         /* the instant: date and time, without weekday and day of the year */
  struct tm local;       /* the local time one second later, without zone and flag */
  char abbreviation[32]; /* of the local time, as "CEST" */
  int32_t dst;           /* 1: daylight-saving time */
  int32_t offset;        /* of the local time from UTC in seconds, positive in the east */
} vorn_dst_line_s;

/* Reads such a line.
 *   line: line of zdump
 *   out: where the parts go
 * Returns 0; -1 without a message, with *out unspecified, when it is not one. */
VORN_API int read_dst_line(const char *line, vorn_dst_line_s *out);

/* Returns 0 to 11 for "Jan" to "Dec", in this case; -1 without a message for another text.
 *   name: name of the month */
VORN_API int month_name_to_index(const char *name);

VORN_END_DECLS

#endif
