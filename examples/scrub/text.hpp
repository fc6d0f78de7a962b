// Formats names and numbers.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_TEXT_HPP
#define SCRUB_TEXT_HPP

#include <cstdint>
#include <string>
#include <string_view>

#include "memory.hpp"

namespace scrub {

// Returns a path as one printable word: each byte of a blank, a control character, '%' or invalid
// UTF-8 becomes %XX. The manifest, the log and the terminal show the same word, so that a name can
// be searched for.
String escape(std::string_view path);

// Reverses escape(). Returns false if escape() does not make the word.
bool unescape(std::string_view word, String &path);

// Returns 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

// Returns 1234567 as "1.2 MB".
std::string bytes_text(double bytes);

// Returns "1 file", "2 files".
std::string counted(std::uint64_t number, std::string_view noun);

} // namespace scrub

#endif
