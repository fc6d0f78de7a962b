// Reads the compiled zone files (RFC 8536), independently of zdump.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_ZONE_FILE_HPP
#define VORN_TESTS_ZONE_FILE_HPP

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace zone_file {

// An instant of POSIX time, and the offset from UTC in seconds that applies from it on.
using Transition = std::pair<std::int64_t, std::int32_t>;

using Transitions = std::vector<Transition>;

// Returns the last second before the first change, even of only the abbreviation or the flag, and
// then all transitions in the file: up to the end of 2037, in some zones later. Empty if nothing
// changes. *rule, in the form of the variable TZ, applies after them.
inline Transitions read(const std::string &data, std::string *rule) {
  const auto number = [&](std::size_t at, int size) { // big-endian
    std::uint64_t value = (data.at(at) & 0x80) != 0 ? ~0ul : 0;
    for (; size > 0; --size)
      value = value << 8 | static_cast<unsigned char>(data.at(at++));
    return static_cast<std::int64_t>(value);
  };
  std::size_t at = data.find("TZif", 4) + 20; // the second part, which has the wide numbers
  std::size_t counts[6];                      // isut, isstd, leap, time, type, char
  for (std::size_t &count : counts) {
    count = static_cast<std::size_t>(number(at, 4));
    at += 4;
  }
  const std::size_t indices = at + counts[3] * 8;
  const std::size_t types = indices + counts[3];
  const std::size_t names = types + counts[4] * 6;
  const std::size_t leaps = names + counts[5];
  const std::size_t footer = leaps + counts[2] * 12 + counts[1] + counts[0] + 1;
  *rule = data.substr(footer, data.find('\n', footer) - footer);
  const auto type = [&](std::size_t transition) { // offset, flag, abbreviation
    const std::size_t one =
        types +
        (transition == 0 ? 0 : static_cast<unsigned char>(data[indices + transition - 1])) * 6u;
    return std::tuple(static_cast<std::int32_t>(number(one, 4)), data[one + 4] != 0,
                      std::string(&data[names + static_cast<unsigned char>(data[one + 5])]));
  };

  Transitions all;
  std::int64_t first = 0;
  for (std::size_t i = 0; i < counts[3]; ++i) {
    std::int64_t instant = number(at + i * 8, 8);
    std::int64_t correction = 0;
    for (std::size_t leap = leaps; leap < leaps + counts[2] * 12; leap += 12)
      if (number(leap, 8) <= instant) correction = number(leap + 8, 4);
    instant -= correction;
    all.emplace_back(instant, std::get<0>(type(i + 1)));
    if (first == 0 && type(i) != type(i + 1)) first = instant;
  }
  // zdump shows the leap seconds too, the first one as the second of POSIX time that it precedes.
  if (counts[2] != 0 && (first == 0 || first > number(leaps, 8))) first = number(leaps, 8) + 1;
  if (first == 0) return {};
  all.insert(all.begin(), {first - 1, std::get<0>(type(0))});
  return all;
}

} // namespace zone_file

#endif
