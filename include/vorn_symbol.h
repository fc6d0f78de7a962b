/* The symbol table: from an address to the function that contains it, by the ELF symbol tables of
 * every loaded object. It is built ahead, so that a lookup neither locks nor allocates: post-mortem
 * code may look up in a signal handler. */
#ifndef VORN_SYMBOL_H
#define VORN_SYMBOL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Builds the table from the objects that are loaded now (their .symtab, else .dynsym; C++ names
 * demangled); called again, adds those loaded since and drops those unloaded. vorn_Init makes the
 * first call. An object that cannot be read is left out. Returns 0; -1 when memory ran out, the old
 * table stays in force then. Any thread may call; blocks on other callers and on the file system.
 */
VORN_API int vorn_symbol_init(void);

/* Releases the table; lookups find nothing until the next vorn_symbol_init. A lookup that is under
 * way goes on undisturbed. vorn_destory makes this call. Any thread may call. */
VORN_API void vorn_symbol_fini(void);

/* Writes the name of the function that contains address, with the offset in it, as "%s+0x%lx" into
 * the buffer of size bytes, cut to fit; the placeholder "unknown+0x<address>" when no symbol is
 * known. Returns 0, or -1 when no symbol is known or buffer is NULL or size 0. Signal-safe, any
 * thread. */
VORN_API int vorn_symbol_addr_to_string(uintptr_t address, char *buffer, size_t size);

VORN_END_DECLS

#endif
