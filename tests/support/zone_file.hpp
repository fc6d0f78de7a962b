// An independent reading of the compiled zone files (RFC 8536), for the tests of what is made of
// zdump's output.
#ifndef VORN_TESTS_ZONE_FILE_HPP
#define VORN_TESTS_ZONE_FILE_HPP

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace zone_file {

// An instant of POSIX time, and the offset from UTC in seconds that applies from it on.
using Transition = std::pair<std::int64_t, std::int32_t>;

struct Zone {
  std::int32_t first_offset = 0; // before all transitions
  std::int64_t first_change =
      0; // when anything changed first, be it the abbreviation alone; 0: never
  std::vector<Transition> transitions; // also those that leave the offset as it is
};

// Takes big-endian numbers off a file's bytes.
struct Bytes {
  const std::string &data;
  std::size_t at;
  std::int64_t number(int size) {
    std::uint64_t value = static_cast<std::int8_t>(data.at(at)) < 0 && size > 1 ? ~0ul : 0;
    while (size-- > 0)
      value = value << 8 | static_cast<unsigned char>(data.at(at++));
    return static_cast<std::int64_t>(value);
  }
};

// The rule at the end of a file: "CET-1CEST,M3.5.0,M10.5.0/3".
struct Rule {
  explicit Rule(const char *text) : at(text) {
    skip_name();
    standard = -time();
    if (*at == '\0') return;
    skip_name();
    daylight = *at == ',' ? standard + 3600 : -time();
    has_daylight = true;
    start = at;
  }
  void add(int year, std::vector<Transition> &out) {
    if (!has_daylight) return;
    at = start;
    const std::int64_t begin = date(year) - standard;
    const std::int64_t end = date(year) - daylight;
    Transition two[] = {{begin, daylight}, {end, standard}};
    std::sort(two, two + 2);
    for (const Transition &one : two)
      if (out.empty() || one.first > out.back().first) out.push_back(one);
  }

private:
  void skip_name() {
    if (*at == '<') {
      while (*at++ != '>') {
      }
    } else {
      while (std::isalpha(*at))
        ++at;
    }
  }
  int number() {
    char *end = nullptr;
    const long value = std::strtol(at, &end, 10);
    at = end;
    return static_cast<int>(value);
  }
  int time() { // [+-]hh[:mm[:ss]]
    const int sign = *at == '-' ? -1 : 1;
    int seconds = std::abs(number()) * 3600;
    for (int unit = 60; *at == ':'; unit /= 60) {
      ++at;
      seconds += number() * unit;
    }
    return sign * seconds;
  }
  // Seconds of local time at a date ",Mm.w.d[/time]", ",Jn" or ",n".
  std::int64_t date(int year) {
    using namespace std::chrono;
    ++at;
    sys_days day;
    if (*at == 'M') {
      int fields[3];
      for (int &field : fields) {
        ++at;
        field = number();
      }
      const year_month month{std::chrono::year{year},
                             std::chrono::month{static_cast<unsigned int>(fields[0])}};
      const weekday weekday{static_cast<unsigned int>(fields[2])};
      day = fields[1] == 5 ? sys_days{month / weekday[last]}
                           : sys_days{month / weekday[static_cast<unsigned int>(fields[1])]};
    } else {
      const bool julian = *at == 'J';
      if (julian) ++at;
      const int number_of_day = number() - (julian ? 1 : 0);
      const std::chrono::year in{year};
      const bool after_leap_day = julian && in.is_leap() && number_of_day >= 59;
      day = sys_days{in / January / 1} + days{number_of_day + (after_leap_day ? 1 : 0)};
    }
    int seconds = 7200;
    if (*at == '/') {
      ++at;
      seconds = time();
    }
    return sys_seconds{day}.time_since_epoch().count() + seconds;
  }

  const char *at;
  const char *start = "";
  int standard = 0;
  int daylight = 0;
  bool has_daylight = false;
};

// All transitions of a file, carried on by its rule to the end of last_year.
inline Zone read(const std::string &data, int last_year) {
  struct Type {
    std::int32_t offset;
    bool daylight;
    std::string abbreviation;
    bool operator==(const Type &) const = default;
  };
  Bytes in{data, 0};
  std::int64_t counts[6];           // isut, isstd, leap, time, type, char
  for (const int number : {4, 8}) { // the second part has the wide numbers
    in.at += 20;
    for (std::int64_t &count : counts)
      count = in.number(4);
    if (number == 4)
      in.at += static_cast<std::size_t>(counts[3] * 5 + counts[4] * 6 + counts[5] + counts[2] * 8 +
                                        counts[1] + counts[0]);
  }
  std::vector<std::int64_t> times;
  std::vector<std::size_t> indices;
  for (std::int64_t i = 0; i < counts[3]; ++i)
    times.push_back(in.number(8));
  for (std::int64_t i = 0; i < counts[3]; ++i)
    indices.push_back(static_cast<std::size_t>(in.number(1)));
  const std::size_t abbreviations = in.at + static_cast<std::size_t>(counts[4] * 6);
  std::vector<Type> types;
  for (std::int64_t i = 0; i < counts[4]; ++i) {
    const auto offset = static_cast<std::int32_t>(in.number(4));
    const bool daylight = in.number(1) != 0;
    const auto index = static_cast<std::size_t>(in.number(1));
    types.push_back({offset, daylight, data.c_str() + abbreviations + index});
  }
  in.at = abbreviations + static_cast<std::size_t>(counts[5]);
  std::vector<std::pair<std::int64_t, std::int64_t>> leaps;
  for (std::int64_t i = 0; i < counts[2]; ++i) {
    const std::int64_t instant = in.number(8);
    leaps.emplace_back(instant, in.number(4));
  }
  in.at += static_cast<std::size_t>(counts[1] + counts[0]) + 1;
  const std::string rule = data.substr(in.at, data.find('\n', in.at) - in.at);

  Zone zone;
  zone.first_offset = types.at(0).offset;
  bool changed = false;
  for (std::size_t i = 0; i < times.size(); ++i) {
    std::int64_t correction = 0;
    for (const auto &[instant, total] : leaps)
      if (instant <= times[i]) correction = total;
    const Type &before = types.at(i == 0 ? 0 : indices[i - 1]);
    zone.transitions.emplace_back(times[i] - correction, types.at(indices[i]).offset);
    if (!changed && !(before == types.at(indices[i]))) {
      changed = true;
      zone.first_change = zone.transitions.back().first;
    }
  }
  // zdump shows the leap seconds too, the first one as the second of POSIX time that it precedes.
  if (!leaps.empty() && (!changed || zone.first_change > leaps[0].first))
    zone.first_change = leaps[0].first + 1;
  if (rule.empty()) return zone;
  for (int year = 1970; year <= last_year; ++year)
    Rule(rule.c_str()).add(year, zone.transitions);
  return zone;
}

} // namespace zone_file

#endif
