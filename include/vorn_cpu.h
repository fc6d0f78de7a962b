/* Lists of CPUs as settings write them, and what the kernel module knows of single CPUs.
 *
 * Any thread may call; nothing here is for signal handlers. No function here is a cancellation
 * point. */
#ifndef VORN_CPU_H
#define VORN_CPU_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* CPUs that a set has room for, and its 64-bit words: CPU n is bit n mod 64 of word n / 64. It has
 * the size of the system's cpu_set_t. */
#define VORN_CPUM_CPU_COUNT 1024u
#define VORN_CPUM_MASK_WORDS 16

/* Adds the CPUs of text to mask, a set of VORN_CPUM_MASK_WORDS words. Items are separated by
 * commas; each is a decimal CPU number or a range "8-11", blanks may precede a number, and what
 * follows is not looked at. A number above VORN_CPUM_CPU_COUNT - 1 stands for that one. An item of
 * any other form, also an empty one, and a range that ends before it starts are error records and
 * add nothing. Returns 0 when there was one good item at least, else -1, also when a pointer is
 * NULL (without a record in the log). Does not block. */
VORN_API int vorn_cpum_parse_cpumask(const char *text, uint64_t *mask);

/* Whether the idle CPU cpu stays out of its sleep states, as the kernel module has it and means it:
 * reads the value, sets it. Return what the kernel module answers; -1 when it does not, with errno
 * (ENOSYS where there is no such module) and, from the setter, an error record; the getter returns
 * -1 after an error record when value is NULL. Block as the module does. */
VORN_API int vorn_get_idle_no_cstates(unsigned int cpu, uint32_t *value);
VORN_API int vorn_set_idle_no_cstates(unsigned int cpu, uint32_t value);

/* What CPU cpu works at: fills *record, whose size and layout are the kernel module's. Returns 0;
 * -1 when the module refuses or is not there, with its errno, and after an error record when record
 * is NULL. Blocks as the module does. */
VORN_API int vorn_get_cpu_task_info(unsigned int cpu, void *record);

VORN_END_DECLS

#endif
