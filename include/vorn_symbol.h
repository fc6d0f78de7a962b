/* The symbol table: from an address to the function that contains it, by the ELF symbol tables of
 * every loaded object. It is built at start-up, so that a lookup neither locks nor allocates:
 * post-mortem code may look up in a signal handler. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SYMBOL_H
#define VORN_SYMBOL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Builds the table from the objects that are loaded now: the functions of their .symtab, else of
 * their .dynsym, with C++ names demangled. A mangled name of more than 256 characters stays
 * mangled: to demangle it could take more stack than the calling thread has, of which 128 KiB are
 * enough. Called again, it adds the objects loaded since and drops those unloaded; the others are
 * not read again, but for those left out, which are tried (and logged) each time. vorn_Init makes
 * the first call.
 *
 * Left out, with an information message, is an object whose file cannot be read, is damaged, or is
 * not the one that was loaded (replaced on disk since). Objects without a file, such as the
 * kernel's own, have no symbols here.
 * Returns 0; -1 after an error message when memory ran out, the old table stays in force then. Any
 * thread may call, not a signal handler; blocks on other callers and on the file system. No
 * cancellation point. */
VORN_API int vorn_symbol_init(void);

/* Takes the table away: lookups find nothing until the next vorn_symbol_init. Lookups that are
 * under way go on undisturbed; this call does not wait for them. vorn_destory makes it. Any thread
 * may call, not a signal handler; blocks on other callers of these two functions. */
VORN_API void vorn_symbol_fini(void);

/* Writes the name of the function that contains address, and the offset in it, as "%s+0x%lx" into
 * the buffer of size bytes. When no function is known there, the placeholder "unknown+0x%lx" with
 * the address itself stands in its place. A text that does not fit is cut; it always ends in a NUL.
 * A return address may lie just after the function that called: look up the byte before it.
 *   address: address in code
 *   buffer: where the text goes
 *   size: bytes at buffer
 * Returns 0; -1 when no function is known, or buffer is NULL or size 0, which writes nothing. No
 * log message is written. Any thread may call, and a signal handler; never blocks, keeps errno. */
VORN_API int vorn_symbol_addr_to_string(uintptr_t address, char *buffer, size_t size);

VORN_END_DECLS

#endif
