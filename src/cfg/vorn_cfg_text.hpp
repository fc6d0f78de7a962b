// Declares the functions on texts of configuration files: blanks, names and bounded copies.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_TEXT_HPP
#define VORN_CFG_TEXT_HPP

#include <cstddef>
#include <string_view>

namespace vorn::cfg {

// The blanks that do not count at the end of a text; at its start, only the first two do not.
constexpr bool is_leading_blank(char c) { return c == ' ' || c == '\t'; }
constexpr bool is_blank(char c) { return is_leading_blank(c) || c == '\n' || c == '\r'; }

std::string_view trim_end(std::string_view text);
std::string_view trim(std::string_view text);

// Returns whether all characters are ASCII letters, digits or "_".
bool vorn_cfg_check_name(std::string_view name);

// Returns whether text would add a line to a file that it is written to.
bool holds_line_end(const char *text);

// The types that log messages print.
inline int int_of(std::size_t size) { return static_cast<int>(size); }
inline const void *pointer(const void *address) { return address; }

// Copies src and appends a NUL. Returns 0; EINVAL if dest is null; or ERANGE, with an empty dest,
// if the text does not fit. safeclib's copies refuse texts as long as values may be.
int copy_text(char *dest, std::size_t size, std::string_view src);

} // namespace vorn::cfg

#endif
