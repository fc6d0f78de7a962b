/* Small string routines: numbers in texts, lower case, line ends, tokens. Letters and digits are
 * those of ASCII whatever the locale. Any thread may call all but the tokenizer; none blocks; those
 * that write no record are safe in a signal handler. No function here is a cancellation point. */
#ifndef VORN_STR_H
#define VORN_STR_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Stores in *position the index of the first such character in string and returns 0. -1 when there
 * is none, as there never is a NUL; -22 after an error record when a pointer is NULL. *position is
 * left alone then. */
VORN_API int vorn_get_charpos(const char *string, char character, unsigned int *position);

/* Ends string at its first carriage return or line feed, whichever comes first. Returns 0, for NULL
 * too, after an error record. */
VORN_API int vorn_filter_newlinesymbol(char *string);

/* 0 when string is decimal digits alone, or hexadecimal digits alone behind "0x" or "0X"; the empty
 * string and a bare prefix are. -1 otherwise, also for a sign or a blank; -22 for NULL.
 * Signal-safe.
 */
VORN_API int vorn_str_isuint(const char *string);

/* The number that string begins with, as strtoull() reads it: hexadecimal behind "0x" or "0X",
 * otherwise decimal; 0 where there is no digit. A number that is too large gives UINT64_MAX after
 * an error record, with ERANGE in errno; errno is 0 otherwise. NULL gives 0 after an error record.
 */
VORN_API uint64_t vorn_str_tou64(const char *string);

/* The same with a leading "-" taken as a sign: the negative of what vorn_str_tou64 gives for the
 * rest, modulo 2^64. NULL gives 0 after an information record. */
VORN_API int64_t vorn_str_tos64(const char *string);

/* Puts string in lower case in place. NULL is let pass. Signal-safe. */
VORN_API void vorn_str_tolower(char *string);

/* What vorn_str_tok is to scan: *string unless that is NULL, otherwise saved. NULL after an error
 * record when both are NULL, or delimiters is. */
VORN_API char *check_parameter(char **string, char *saved, const char *delimiters);

/* Splits string, in place, at runs of characters that are in delimiters, and returns the first
 * token; with a NULL string goes on where the call before stopped. Delimiters before a token are
 * passed over. A string that is empty, or delimiters alone, gives one empty token; an empty set
 * gives the whole string. Behind the last token the result is NULL, after two error records, as it
 * is for NULL delimiters.
 *
 * There is one position for the whole process: one string is split at a time, by one thread. */
VORN_API char *vorn_str_tok(char *string, const char *delimiters);

VORN_END_DECLS

#endif
