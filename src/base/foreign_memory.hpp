// Reads memory that may not be there, for code that follows unproved pointers.
#ifndef VORN_BASE_FOREIGN_MEMORY_HPP
#define VORN_BASE_FOREIGN_MEMORY_HPP

#include <cstddef>
#include <cstdint>

namespace vorn {

// Copies size bytes from the address, of whichever value. False when not all of them can be read;
// what *to then holds is unspecified. Safe in a signal handler; keeps errno.
bool copy_foreign(std::uintptr_t from, void *to, std::size_t size);

} // namespace vorn

#endif
