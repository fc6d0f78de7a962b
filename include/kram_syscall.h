/* Private calls in user space: where the other side of the node's private calls is a process
 * instead of the kernel. That process registers handlers by groups and runs a server on TCP port
 * KRAM_SYSCALL_PORT of 127.0.0.1; others send it commands with KRAM_SysCall.
 *
 * A command is an operation code: its group in the bits from 8 on, the operation within the group
 * below. Unless a function says otherwise, any thread may call it, none is for signal handlers,
 * none is a cancellation point, and it returns 0, or logs an error and returns -1. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef KRAM_SYSCALL_H
#define KRAM_SYSCALL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Groups run from 0 to KRAM_SYSCALL_GROUP_COUNT - 1. */
#define KRAM_SYSCALL_GROUP_COUNT 32u

/* The most entries of a group. */
#define KRAM_SYSCALL_ENTRY_COUNT 255u

/* Bytes that a request, and a reply, may carry to and from the server. */
#define KRAM_SYSCALL_BUFFER_SIZE 510u

/* Where the server listens, on 127.0.0.1. */
#define KRAM_SYSCALL_PORT 5583u

/* Types of an entry, for the use of the caller that registers it: the server calls both alike. */
enum { KRAM_SYSCALL_DIRECT = 0, KRAM_SYSCALL_INDIRECT = 1 };

/* A call as its handler sees it. */
typedef struct kram_call {
  uint32_t input_length;    /* bytes at input */
  uint32_t output_capacity; /* bytes at output, and no more than the caller takes */
  uint32_t output_length;   /* bytes of the reply; the handler sets it, 0 on entry */
  const void *input;        /* both buffers are the server's, valid until the handler returns */
  void *output;             /* where the reply goes */
} kram_call_s;

/* Carries out a command; the result goes to the caller. Each connection has a thread of its own, so
 * a handler runs for several callers at a time, and may block. The threads are the library's: a
 * handler is not cancelled, and returns; it does not end its thread (pthread_exit). */
typedef int32_t (*kram_handler_f)(uint32_t command, kram_call_s *call);

/* A command of a group. */
typedef struct kram_entry {
  uint32_t command;       /* the whole operation code, its group included */
  uint32_t type;          /* KRAM_SYSCALL_DIRECT or KRAM_SYSCALL_INDIRECT */
  kram_handler_f handler; /* not NULL */
} kram_entry_s;

/* What a caller sends and where the reply goes, both in the caller's memory. */
typedef struct kram_request {
  uint32_t input_length;  /* bytes at input; 0: there is no input */
  uint32_t output_length; /* bytes that fit at output; KRAM_SysCall stores what it received */
  const void *input;      /* what is sent */
  void *output;           /* where the reply goes */
} kram_request_s;

/* --- The registry --- */

/* Empties all groups and starts the server: KRAM_PrivateSysCallIntfInit. Once, before groups are
 * registered.
 * Returns 0; logs an error and returns -1 when the server cannot be started. */
VORN_API int KRAM_PrivateSysCallInit(void);

/* Registers a group with count entries, which are copied. Neither a group that KRAM_CheckGroupCalls
 * refuses nor one that is there already, which an information message reports, changes anything.
 * Lock-free: a call finds the whole group or none.
 *   group: number of the group, 0 to KRAM_SYSCALL_GROUP_COUNT - 1
 *   entries: entries of the group, count of them
 *   count: number of entries, at most KRAM_SYSCALL_ENTRY_COUNT
 * Returns 0; -1 after a log message when nothing was changed. */
VORN_API int KRAM_RegSysCall(unsigned int group, const kram_entry_s *entries, unsigned int count);

/* Removes a group and frees its entries. No call of this group may be under way. A group that is
 * not registered is left alone, one above 31 reported.
 *   group: number of the group, 0 to KRAM_SYSCALL_GROUP_COUNT - 1 */
VORN_API void KRAM_UnRegSysCall(unsigned int group);

/* Checks whether the entries can be registered as that group: at most KRAM_SYSCALL_ENTRY_COUNT, 0
 * too, each of a known type, with a command of this group and a handler. Neither pointer may be
 * NULL.
 *   group: number of the group, 0 to KRAM_SYSCALL_GROUP_COUNT - 1
 *   entries: entries of the group, count of them
 *   count: number of entries, at most KRAM_SYSCALL_ENTRY_COUNT
 * Returns 0 when they can; logs an error and returns -1 otherwise. */
VORN_API int KRAM_CheckGroupCalls(unsigned int group, const kram_entry_s *entries,
                                  unsigned int count);

/* Returns the first entry of that command, valid until its group is removed; NULL, after an error
 * message when its group is not registered, without one when the group has no such command.
 *   command: operation code, its group in the bits from 8 on */
VORN_API const kram_entry_s *KRAM_FindSysCall(uint32_t command);

/* --- The server --- */

/* Starts the server's listener, the thread "syscall_thr", which serves each connection in a thread
 * "syscall_do_thr". The listener ends when the port is taken, when it cannot accept and when no
 * thread can be started for a connection, each after an error message; connections go on, and this
 * function starts another listener.
 *
 * A request of more than KRAM_SYSCALL_BUFFER_SIZE bytes ends its connection after an error message,
 * and so does a longer reply. A peer that stops for ten seconds in the middle of a message is
 * dropped; between two messages it may wait for as long as it likes, as long as there is room: at
 * 512 connections the server resets the one that has been idle longest for a new one, and closes
 * the new one, after an error message, when all are in the middle of a request. A child of fork()
 * has no server: its copies of the sockets are closed.
 * Returns 0 when the thread is started, which may be before it listens: what keeps it from doing so
 * is in the log; logs an error and returns -1 otherwise. */
VORN_API int KRAM_PrivateSysCallIntfInit(void);

/* Does nothing: the server runs until the process ends. */
VORN_API void KRAM_PrivateSysCallIntfExit(void);

/* Does nothing.
 * Returns 0. */
VORN_API int KRAM_SyscallInit(void);

/* --- The client --- */

/* Has the server carry out a command. Calls of one process wait for each other and share a
 * connection, which the first of them opens; a child of fork() opens its own, and fork() does not
 * wait for a call. Blocks for as long as the handler takes, whatever signals arrive; not for a
 * handler that a call of its own process may be waiting for. Not a cancellation point: a thread
 * that is cancelled meanwhile completes the call.
 *   command: operation code, its group in the bits from 8 on
 *   request: what is sent and where the reply goes, not NULL
 * Returns the handler's result with the reply in *request; -1 when there is no such command; logs
 * an error and returns -1, with output_length as it was, when the reply does not fit or the server
 * cannot be reached.
 *
 * A connection that the server has closed since the last call, because of other clients or because
 * it was started again, is opened anew without an error. One that ends while the server may be
 * carrying the command out is an error: no command is carried out twice. */
VORN_API int KRAM_SysCall(uint32_t command, kram_request_s *request);

/* --- Random numbers --- */

/* Fills length bytes at buffer with numbers that are seeded from the time of day. They can be
 * guessed: no use for keys. Nothing is done where buffer is NULL; it never fails.
 *   buffer: where the bytes go
 *   length: number of bytes */
VORN_API void get_random_bytes(void *buffer, size_t length);

VORN_END_DECLS

#endif
