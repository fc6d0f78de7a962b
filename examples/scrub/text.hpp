// Formats names, numbers and times.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_TEXT_HPP
#define SCRUB_TEXT_HPP

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "memory.hpp"

namespace scrub {

// Returns a path as one printable word: each byte of a blank, a control character, '%' or invalid
// UTF-8 becomes %XX. Manifests of version 1 hold this word.
String escape(std::string_view path);

// Reverses escape(). Returns false if escape() does not make the word.
bool unescape(std::string_view word, String &path);

// Returns a path for people, in messages and in the log: the word of escape(), in which the
// characters that change the direction of text also become %XX. Otherwise a name could make a
// terminal show another line than the one that was printed.
String printable(std::string_view path);

// Returns the length of the first character of text, which is not empty, and stores its code
// point. Returns 0 if text does not begin with a character of UTF-8.
std::size_t utf8_length(std::string_view text, std::uint32_t &character);

// Returns whether the character changes the direction of the text after it.
bool changes_direction(std::uint32_t character);

// Returns 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

// Returns 1234567 as "1.2 MB".
std::string bytes_text(double bytes);

// Returns "1 file", "2 files".
std::string counted(std::uint64_t number, std::string_view noun);

// Returns the two greatest units of a time: "45 s", "3 min 5 s", "2 h 0 min", "4 d 7 h".
std::string duration_text(std::uint64_t seconds);

// Returns a time as "2026-11-23T01:40:05Z".
std::string utc_text(std::time_t time);

} // namespace scrub

#endif
