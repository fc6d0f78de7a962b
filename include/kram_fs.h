/* File system events, which the node's kernel module sends over netlink protocol 28. Any thread may
 * call these functions. None is safe in a signal handler. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef KRAM_FS_H
#define KRAM_FS_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Size of an event in bytes. */
#define KRAM_EXT3_EVENT_SIZE 56u

/* The value of the first four bytes of an event, in host byte order. */
#define KRAM_EXT3_EVENT_TAG 0x0AE32014u

/* Handles one event. The event is KRAM_EXT3_EVENT_SIZE bytes long, is aligned to 8 bytes and begins
 * with KRAM_EXT3_EVENT_TAG. The kernel module defines the bytes after the tag; the library sets
 * bytes that the module did not send to 0. The event is valid until the function returns. The
 * function runs with cancellation disabled. It must return: it must not end its thread. */
typedef void (*kram_ext3_event_f)(const void *event);

/* Opens a socket for events. The socket is close-on-exec and never descriptor 0, 1 or 2.
 * Returns the descriptor, which the caller closes with KRAM_Netlink_ext3_release; on failure, logs
 * an error and returns -1. */
VORN_API int KRAM_Netlink_ext3_create(void);

/* Binds the socket to the netlink port id and group 1, and calls callback for each event, in the
 * calling thread, until another call releases the socket. Drops messages that are not events.
 * Continues after a signal interrupts a receive. Not a cancellation point: a cancelled thread keeps
 * listening until the socket is released. Logs nothing except a lack of memory.
 *   socket: descriptor that KRAM_Netlink_ext3_create returned
 *   id: netlink port id, 1 or more
 *   callback: function that takes each event, not NULL
 * Returns one of these; for -4 to -6, errno holds the cause:
 *
 *    0   the socket was released
 *   -2   the socket is negative
 *   -3   callback is NULL
 *   -4   the socket cannot be bound
 *   -5   memory or descriptors run out
 *   -6   a receive failed, or took longer than the socket's SO_RCVTIMEO (EAGAIN)
 *   -7   id is below 1 */
VORN_API int KRAM_Netlink_ext3_listen(int socket, int id, kram_ext3_event_f callback);

/* Closes a socket and ends its listener. The listener returns after its callback returns, and its
 * port is free from then on. A callback may call this function. Does nothing for a negative socket.
 * A child of fork() has no listeners. If a callback calls fork(), the listener in the child ends as
 * if the socket had been released. If a child releases its copy of a socket, the parent's listener
 * continues.
 *   socket: descriptor that KRAM_Netlink_ext3_create returned */
VORN_API void KRAM_Netlink_ext3_release(int socket);

VORN_END_DECLS

#endif
