// Texts of configuration files: limits, blanks, names and bounded copies.
#ifndef VORN_CFG_TEXT_HPP
#define VORN_CFG_TEXT_HPP

#include <cstddef>
#include <string_view>

#include "vorn_cfg.h"

namespace vorn::cfg {

inline constexpr std::size_t kNameSize = VORN_CFG_NAME_SIZE;
inline constexpr std::size_t kValueSize = std::size_t{VORN_CFG_VALUE_MAX} + 1;
inline constexpr std::size_t kHeaderMax = kNameSize + 1; // a header line, brackets included
inline constexpr std::size_t kLineMax = 0x400041;        // bytes of a line that are read at once
inline constexpr std::size_t kTextSlack = 0x400080;      // that a rewritten file may grow by

// Blanks that stand for nothing at the end of a text; at its start only the first two do.
constexpr bool is_leading_blank(char c) { return c == ' ' || c == '\t'; }
constexpr bool is_blank(char c) { return is_leading_blank(c) || c == '\n' || c == '\r'; }

std::string_view trim_end(std::string_view text);
std::string_view trim(std::string_view text);

// Whether all characters are ASCII letters, digits and "_".
bool vorn_cfg_check_name(std::string_view name);

// Whether text would forge a line where it is written to a file.
bool holds_line_end(const char *text);

// As log messages print them.
inline int int_of(std::size_t size) { return static_cast<int>(size); }
inline const void *pointer(const void *address) { return address; }

// Copies src and puts a NUL after it: 0; EINVAL where there is no dest; ERANGE for a text that
// does not fit, which leaves an empty one. Values are larger than what safeclib's copies take.
int copy_text(char *dest, std::size_t size, std::string_view src);

} // namespace vorn::cfg

#endif
