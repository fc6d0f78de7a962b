/* The symbol table: maps an address to the function that contains it, with the ELF symbol tables of
 * every loaded object. The library builds it at start-up, so that a lookup neither locks nor
 * allocates: post-mortem code may use it in a signal handler. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SYMBOL_H
#define VORN_SYMBOL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Builds the table from the objects that are loaded now: the functions in their .symtab or, without
 * one, in their .dynsym, with C++ names demangled. A mangled name of more than 256 characters stays
 * mangled, because demangling it could need more stack than the calling thread has; 128 KiB of
 * stack are enough for this function. A further call adds the objects loaded since and removes the
 * unloaded ones. It does not read the other objects again, except those left out, which it tries
 * again (and logs) each time. vorn_Init makes the first call.
 *
 * The function leaves out an object, and logs information, if its file cannot be read, is damaged,
 * or is not the one that was loaded (because it was replaced on disk). Objects without a file, such
 * as the vDSO, have no symbols here.
 * Returns 0; if memory runs out, logs an error, keeps the old table and returns -1. Any thread may
 * call, not a signal handler; blocks on other callers and on the file system. No cancellation
 * point. */
VORN_API int vorn_symbol_init(void);

/* Removes the table: lookups find nothing until the next vorn_symbol_init. Lookups in progress are
 * not affected, and this function does not wait for them. vorn_destory calls this function. Any
 * thread may call, not a signal handler; blocks on other callers of these two functions. */
VORN_API void vorn_symbol_fini(void);

/* Writes the name of the function that contains address, and the offset in it, as "%s+0x%lx" into
 * the size bytes at buffer. If no function is known there, writes "unknown+0x%lx" with the address.
 * Cuts a text that does not fit; the text always ends in a NUL. A return address may be just after
 * the end of the calling function: look up the byte before it.
 *   address: address in code
 *   buffer: where the text goes
 *   size: bytes at buffer
 * Returns 0; -1 if no function is known; if buffer is NULL or size is 0, writes nothing and returns
 * -1. Logs nothing. Any thread may call, and a signal handler; never blocks, keeps errno. */
VORN_API int vorn_symbol_addr_to_string(uintptr_t address, char *buffer, size_t size);

VORN_END_DECLS

#endif
