/* Small string routines: numbers in texts, lower case, line ends, tokens. Letters and digits are
 * those of ASCII whatever the locale. Any thread may call all but the tokenizer; none blocks; those
 * that write no log message are safe in a signal handler. No function here is a cancellation point.
 */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_STR_H
#define VORN_STR_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Stores in *position the index of the first such character in string.
 *   string: the text
 *   character: character to look for
 *   position: where the index goes
 * Returns 0; -1 when there is none, as there never is a NUL; logs an error and returns -22 when a
 * pointer is NULL. *position is left alone on failure. */
VORN_API int vorn_get_charpos(const char *string, char character, unsigned int *position);

/* Ends string at its first carriage return or line feed, whichever comes first.
 *   string: the text
 * Returns 0, for NULL too, after an error message. */
VORN_API int vorn_filter_newlinesymbol(char *string);

/* Returns 0 when string is decimal digits alone, or hexadecimal digits alone after "0x" or "0X";
 * the empty string and a bare prefix are. -1 otherwise, also for a sign or a blank; -22 for NULL.
 * Signal-safe.
 *   string: the text */
VORN_API int vorn_str_isuint(const char *string);

/* Returns the number that string begins with, as strtoull() reads it: hexadecimal after "0x" or
 * "0X", otherwise decimal; 0 where there is no digit. A number that is too large gives UINT64_MAX
 * after an error message, with ERANGE in errno; errno is 0 otherwise. NULL gives 0 after an error
 * message.
 *   string: the text */
VORN_API uint64_t vorn_str_tou64(const char *string);

/* Returns the number that string begins with, where a leading "-" is taken as a sign: the negative
 * of what vorn_str_tou64 gives for the rest, modulo 2^64. NULL gives 0 after an information
 * message.
 *   string: the text */
VORN_API int64_t vorn_str_tos64(const char *string);

/* Puts string in lower case in place. NULL is let pass. Signal-safe.
 *   string: the text */
VORN_API void vorn_str_tolower(char *string);

/* Returns what vorn_str_tok is to scan: *string unless that is NULL, otherwise saved. NULL after an
 * error message when both are NULL, or delimiters is.
 *   string: variable that holds the text
 *   saved: place where the last call stopped
 *   delimiters: characters that separate tokens */
VORN_API char *check_parameter(char **string, char *saved, const char *delimiters);

/* Splits string, in place, at runs of characters that are in delimiters; with a NULL string goes on
 * where the call before stopped. Delimiters before a token are passed over. A string that is empty,
 * or delimiters alone, gives one empty token; an empty set gives the whole string.
 *
 * There is one position for the whole process: one string is split at a time, by one thread.
 *   string: text to split, or NULL to go on
 *   delimiters: characters that separate tokens
 * Returns the next token; NULL after two error messages when there is no further one, and for NULL
 * delimiters. */
VORN_API char *vorn_str_tok(char *string, const char *delimiters);

VORN_END_DECLS

#endif
