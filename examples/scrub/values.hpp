// Reads the values of options and settings.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_VALUES_HPP
#define SCRUB_VALUES_HPP

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "scrub.hpp"

namespace scrub {

// Returns the text for a message: as it is, but with %XX for each byte of a control character or of
// invalid UTF-8.
std::string readable(std::string_view text);

// Throws std::invalid_argument: "THREADS is '2 ; c', wanted: 1 to 16".
[[noreturn]] void refuse_value(std::string_view name, std::string_view text,
                               const std::string &wanted);

struct Range {
  std::uint64_t least;
  std::uint64_t most;
  std::uint64_t step = 1; // a number is a multiple of it
};

inline constexpr Range kMaxErrors{0, 1000000000};

// Return the value of the option or setting name, or refuse it.
std::uint64_t number_value(std::string_view name, std::string_view text, const Range &range);
Part part_value(std::string_view name, std::string_view text); // "3/30" or "next/30"
std::string pattern_value(std::string_view name, std::string_view text);
std::string file_value(std::string_view name, std::string_view text); // must not be a directory

} // namespace scrub

#endif
