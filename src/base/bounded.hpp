// Declares bounds-checked string and memory functions that take a count. safeclib copies and fills.
// The C library formats, after the same checks: safeclib's formatter clears a destination that is
// too small, and these functions keep the cut text.
//
// They return 0, or the number of characters that a format wrote. On failure, a copy returns
// safeclib's positive error and empties the destination; a format returns -1.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_BOUNDED_HPP
#define VORN_BASE_BOUNDED_HPP

#include <cstdarg>
#include <cstddef>

#include "vorn_api.h"

namespace vorn {

// Stores at most count characters and a NUL. Cuts a longer text there and returns -1. Also returns
// -1 for a NULL buffer or format, a zero size, and a count that leaves no room for the NUL; then it
// stores an empty text if there is room for one.
int vsnprintf_s(char *buffer, std::size_t size, std::size_t count, const char *format,
                std::va_list args) VORN_PRINTF(4, 0);
int snprintf_s(char *buffer, std::size_t size, std::size_t count, const char *format, ...)
    VORN_PRINTF(4, 5);

int strcpy_s(char *dest, std::size_t size, const char *src);
int memset_s(void *dest, std::size_t size, int value, std::size_t count);

} // namespace vorn

#endif
