/* Events of file systems, which the node's kernel module sends over netlink protocol 28. Any thread
 * may call; none is for signal handlers. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef KRAM_FS_H
#define KRAM_FS_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Bytes of an event. */
#define KRAM_EXT3_EVENT_SIZE 56u

/* The value of the first four bytes of an event, in host byte order. */
#define KRAM_EXT3_EVENT_TAG 0x0AE32014u

/* Takes an event: KRAM_EXT3_EVENT_SIZE bytes, aligned to 8, that begin with KRAM_EXT3_EVENT_TAG.
 * What follows the tag is the kernel module's; what it did not send is 0. The event is valid until
 * the function returns. The function is not cancelled, and returns: it does not end its thread. */
typedef void (*kram_ext3_event_f)(const void *event);

/* Opens a socket for events, close-on-exec and never descriptor 0, 1 or 2.
 * Returns the descriptor, to be given back by KRAM_Netlink_ext3_release; logs an error and returns
 * -1 otherwise. */
VORN_API int KRAM_Netlink_ext3_create(void);

/* Binds the socket to the netlink port id and group 1, and calls callback for each event, in the
 * calling thread, until the socket is released. Messages that are no events are dropped. Receives
 * that a signal interrupts go on. Not a cancellation point: a thread that is cancelled listens on
 * until the socket is released. Logs nothing but a lack of memory.
 *   socket: descriptor that KRAM_Netlink_ext3_create returned
 *   id: netlink port id, 1 or more
 *   callback: function that takes each event, not NULL
 * Returns one of these; errno tells why for -4 to -6:
 *
 *    0   the socket was released
 *   -2   the socket is negative
 *   -3   callback is NULL
 *   -4   the socket cannot be bound
 *   -5   memory or descriptors run out
 *   -6   a receive failed, or took longer than the socket's SO_RCVTIMEO (EAGAIN)
 *   -7   id is below 1 */
VORN_API int KRAM_Netlink_ext3_listen(int socket, int id, kram_ext3_event_f callback);

/* Closes a socket and ends a listener on it, which leaves when its callback has returned; its port
 * is free from then on. A callback may call it. A negative socket is left alone. In a child of
 * fork() there are no listeners: one that a callback has forked ends as on a release, and a release
 * of the child's copy ends none of the parent's.
 *   socket: descriptor that KRAM_Netlink_ext3_create returned */
VORN_API void KRAM_Netlink_ext3_release(int socket);

VORN_END_DECLS

#endif
