// The bounds-checked string and memory functions, in the forms that take a count. Copies and fills
// are safeclib's. Formats go through the C library's own formatter behind the same checks, because
// safeclib's clears the destination where a text is cut, and these keep it.
//
// Results: 0, or the number of characters written for a format. On failure a copy gives safeclib's
// positive error and an empty destination; a format gives -1.
#ifndef VORN_BASE_BOUNDED_HPP
#define VORN_BASE_BOUNDED_HPP

#include <cstdarg>
#include <cstddef>

#include "vorn_api.h"

namespace vorn {

// At most count characters and a NUL are stored. A longer text is cut there and gives -1; so do a
// NULL buffer or format, a zero size and a count that leaves no room for the NUL, which store
// nothing but an empty text where there is room for one.
int vsnprintf_s(char *buffer, std::size_t size, std::size_t count, const char *format,
                std::va_list args) VORN_PRINTF(4, 0);
int snprintf_s(char *buffer, std::size_t size, std::size_t count, const char *format, ...)
    VORN_PRINTF(4, 5);

int strcpy_s(char *dest, std::size_t size, const char *src);
int memset_s(void *dest, std::size_t size, int value, std::size_t count);

} // namespace vorn

#endif
