// Names and numbers as text.
#ifndef SCRUB_TEXT_HPP
#define SCRUB_TEXT_HPP

#include <cstdint>
#include <string>
#include <string_view>

#include "memory.hpp"

namespace scrub {

// A path as one printable word: the bytes of blanks, of control characters, of '%' and of what is
// no UTF-8 become %XX. The same in the manifest, in the log and on the terminal, so that a name can
// be searched for.
String escape(std::string_view path);

// The path behind such a word. False where the word is not one that escape makes.
bool unescape(std::string_view word, String &path);

// 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

// 1234567 as "1.2 MB".
std::string bytes_text(double bytes);

// "1 file", "2 files".
std::string counted(std::uint64_t number, std::string_view noun);

} // namespace scrub

#endif
