/* String functions: numbers in texts, lower case, line ends and tokens. Letters and digits are
 * those of ASCII in every locale. Any thread may call these functions, except the tokenizer
 * (vorn_str_tok). None blocks. Those that write no log message are safe in a signal handler. No
 * function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_STR_H
#define VORN_STR_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Stores in *position the index of the first occurrence of character in string.
 *   string: the text
 *   character: character to look for
 *   position: where the index goes
 * Returns 0; -1 if there is none, or if character is NUL; logs an error and returns -22 if a
 * pointer is NULL. Leaves *position unchanged on failure. */
VORN_API int vorn_get_charpos(const char *string, char character, unsigned int *position);

/* Ends string at its first carriage return or line feed, whichever comes first.
 *   string: the text
 * Returns 0; if string is NULL, logs an error and returns 0. */
VORN_API int vorn_filter_newlinesymbol(char *string);

/* Returns 0 if string consists of decimal digits, or of "0x" or "0X" and hexadecimal digits; the
 * empty string and the prefix alone are valid. Otherwise, also for a sign or a blank, the result is
 * -1; if string is NULL, -22. Signal-safe.
 *   string: the text */
VORN_API int vorn_str_isuint(const char *string);

/* Returns the number at the start of string, as strtoull(3) reads it: hexadecimal after "0x" or
 * "0X", otherwise decimal; 0 if there is no digit. If the number is too large, logs an error, sets
 * errno to ERANGE and returns UINT64_MAX; otherwise, sets errno to 0. If string is NULL, logs an
 * error and returns 0.
 *   string: the text */
VORN_API uint64_t vorn_str_tou64(const char *string);

/* Returns the number at the start of string, which may begin with "-": the negative of the result
 * of vorn_str_tou64 for the rest, modulo 2^64. If string is NULL, logs information and returns 0.
 *   string: the text */
VORN_API int64_t vorn_str_tos64(const char *string);

/* Converts string to lower case in place. Does nothing if string is NULL. Signal-safe.
 *   string: the text */
VORN_API void vorn_str_tolower(char *string);

/* Returns the text that vorn_str_tok scans: *string, or saved if *string is NULL. Logs an error and
 * returns NULL if both are NULL or delimiters is NULL.
 *   string: variable that holds the text
 *   saved: place where the last call stopped
 *   delimiters: characters that separate tokens */
VORN_API char *check_parameter(char **string, char *saved, const char *delimiters);

/* Splits string, in place, at sequences of characters in delimiters. If string is NULL, continues
 * at the place where the previous call stopped. Skips delimiters before a token. If string is empty
 * or has only delimiters, there is one empty token; if delimiters is empty, the token is the whole
 * string.
 *
 * The position is shared by the whole process: only one thread may split a string, and only one
 * string at a time.
 *   string: text to split, or NULL to continue
 *   delimiters: characters that separate tokens
 * Returns the next token; logs two errors and returns NULL if there is no further token or
 * delimiters is NULL. */
VORN_API char *vorn_str_tok(char *string, const char *delimiters);

VORN_END_DECLS

#endif
