/* Private calls in user space, between processes of a node. One process, the server, registers
 * handlers in groups and listens on TCP port KRAM_SYSCALL_PORT of 127.0.0.1; other processes send
 * it commands with KRAM_SysCall.
 *
 * A command is an operation code: the bits from 8 on hold the group, the bits below hold the
 * operation within the group. Unless a function says otherwise, any thread may call it, it is not
 * safe in a signal handler, it is not a cancellation point, and it returns 0, or logs an error and
 * returns -1. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef KRAM_SYSCALL_H
#define KRAM_SYSCALL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Groups run from 0 to KRAM_SYSCALL_GROUP_COUNT - 1. */
#define KRAM_SYSCALL_GROUP_COUNT 32u

/* Maximum number of entries in a group. */
#define KRAM_SYSCALL_ENTRY_COUNT 255u

/* Maximum size of a request, and of a reply, in bytes. */
#define KRAM_SYSCALL_BUFFER_SIZE 510u

/* TCP port of the server on 127.0.0.1. */
#define KRAM_SYSCALL_PORT 5583u

/* Types of an entry. The server treats both types alike; their meaning is up to the caller that
 * registers the entry. */
enum { KRAM_SYSCALL_DIRECT = 0, KRAM_SYSCALL_INDIRECT = 1 };

/* A call, as the handler receives it. */
typedef struct kram_call {
  uint32_t input_length;    /* bytes at input */
  uint32_t output_capacity; /* bytes at output, at most what the caller accepts */
  uint32_t output_length;   /* bytes of the reply; the handler sets it, 0 on entry */
  const void *input;        /* both buffers are valid until the handler returns */
  void *output;             /* where the reply goes */
} kram_call_s;

/* Carries out a command. The server sends the result to the caller. Each connection has its own
 * thread, so a handler may run for several callers at the same time, and it may block. These
 * threads belong to the library: a handler runs with cancellation disabled and must return; it must
 * not end its thread (pthread_exit(3)). */
typedef int32_t (*kram_handler_f)(uint32_t command, kram_call_s *call);

/* A command of a group. */
typedef struct kram_entry {
  uint32_t command;       /* the whole operation code, its group included */
  uint32_t type;          /* KRAM_SYSCALL_DIRECT or KRAM_SYSCALL_INDIRECT */
  kram_handler_f handler; /* not NULL */
} kram_entry_s;

/* The input and the place of the reply of a call, both in the caller's memory. */
typedef struct kram_request {
  uint32_t input_length;  /* bytes at input; 0: there is no input */
  uint32_t output_length; /* bytes that fit at output; KRAM_SysCall stores what it received */
  const void *input;      /* the bytes to send */
  void *output;           /* where the reply goes */
} kram_request_s;

/* --- The registry --- */

/* Empties all groups and starts the server with KRAM_PrivateSysCallIntfInit. Call it once, before
 * registering groups.
 * Returns 0; logs an error and returns -1 if the server cannot be started. */
VORN_API int KRAM_PrivateSysCallInit(void);

/* Registers a group with count entries, which the function copies. Changes nothing if
 * KRAM_CheckGroupCalls refuses the group, or if the group is already registered, which the function
 * logs as information. Lock-free: a concurrent call finds either the whole group or nothing.
 *   group: number of the group, 0 to KRAM_SYSCALL_GROUP_COUNT - 1
 *   entries: entries of the group, count of them
 *   count: number of entries, at most KRAM_SYSCALL_ENTRY_COUNT
 * Returns 0; logs a message and returns -1 if nothing was changed. */
VORN_API int KRAM_RegSysCall(unsigned int group, const kram_entry_s *entries, unsigned int count);

/* Removes a group and frees its entries. No call of this group may be in progress. Does nothing if
 * the group is not registered; logs an error if group is above 31.
 *   group: number of the group, 0 to KRAM_SYSCALL_GROUP_COUNT - 1 */
VORN_API void KRAM_UnRegSysCall(unsigned int group);

/* Checks whether the entries can be registered as that group: there are at most
 * KRAM_SYSCALL_ENTRY_COUNT of them (0 is valid), and each has a known type, a command of this group
 * and a handler. Neither pointer may be NULL.
 *   group: number of the group, 0 to KRAM_SYSCALL_GROUP_COUNT - 1
 *   entries: entries of the group, count of them
 *   count: number of entries, at most KRAM_SYSCALL_ENTRY_COUNT
 * Returns 0 if they can; otherwise, logs an error and returns -1. */
VORN_API int KRAM_CheckGroupCalls(unsigned int group, const kram_entry_s *entries,
                                  unsigned int count);

/* Returns the first entry of that command, valid until its group is removed. Returns NULL if the
 * group has no such command; logs an error and returns NULL if the group is not registered.
 *   command: operation code, its group in the bits from 8 on */
VORN_API const kram_entry_s *KRAM_FindSysCall(uint32_t command);

/* --- The server --- */

/* Starts the server's listener, the thread "syscall_thr", which serves each connection in its own
 * thread "syscall_do_thr". The listener logs an error and ends if the port is in use, if it cannot
 * accept connections, or if it cannot start a thread for a connection. Existing connections
 * continue, and a further call of this function starts another listener.
 *
 * If a request or a reply is longer than KRAM_SYSCALL_BUFFER_SIZE bytes, the server logs an error
 * and closes the connection. The server drops a peer that stops for ten seconds in the middle of a
 * message. Between two messages a peer may wait without limit while there is room. With 512
 * connections open, the server resets the one that has been idle longest to accept a new one; if
 * all of them are in the middle of a request, it logs an error and closes the new one. A child of
 * fork() has no server: it closes its copies of the sockets.
 * Returns 0 when the thread is started, possibly before it listens: if it then cannot listen, it
 * logs the cause. On failure, logs an error and returns -1. */
VORN_API int KRAM_PrivateSysCallIntfInit(void);

/* Does nothing: the server runs until the process ends. */
VORN_API void KRAM_PrivateSysCallIntfExit(void);

/* Does nothing.
 * Returns 0. */
VORN_API int KRAM_SyscallInit(void);

/* --- The client --- */

/* Sends a command to the server and waits for its reply. Calls of one process wait for each other
 * and share a connection, which the first call opens; a child of fork() opens its own, and fork()
 * does not wait for a call. Blocks until the handler returns, whatever signals arrive; a handler
 * must not call it if a call of its process may wait for that handler. Not a cancellation point.
 *   command: operation code, its group in the bits from 8 on
 *   request: input to send, and where the reply goes; not NULL
 * Returns the handler's result, with the reply in *request; -1 if there is no such command. Logs an
 * error and returns -1, with output_length unchanged, if the reply does not fit or the server
 * cannot be reached.
 *
 * If the server has closed the connection since the last call, because of other clients or because
 * it was restarted, the call opens a new one without an error. If the connection ends while the
 * server may be carrying out the command, the call fails: no command is carried out twice. */
VORN_API int KRAM_SysCall(uint32_t command, kram_request_s *request);

/* --- Random numbers --- */

/* Fills length bytes at buffer with pseudo-random numbers seeded from the time of day. They are
 * predictable: do not use them for keys. Does nothing if buffer is NULL. Never fails.
 *   buffer: where the bytes go
 *   length: number of bytes */
VORN_API void get_random_bytes(void *buffer, size_t length);

VORN_END_DECLS

#endif
