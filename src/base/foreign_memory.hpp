// Reads memory that may be unmapped, for code that follows pointers it cannot trust.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_FOREIGN_MEMORY_HPP
#define VORN_BASE_FOREIGN_MEMORY_HPP

#include <cstddef>
#include <cstdint>

namespace vorn {

// Copies size bytes from any address. Returns false if not all of them can be read; the content of
// *to is then unspecified. Safe in a signal handler; keeps errno.
bool copy_foreign(std::uintptr_t from, void *to, std::size_t size);

} // namespace vorn

#endif
