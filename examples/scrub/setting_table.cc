// Holds the table of settings.
// SPDX-License-Identifier: Apache-2.0
#include "setting_table.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include "checksums.hpp"
#include "values.hpp"
#include "vorn_cpu.h"
#include "vorn_numa.h"

namespace scrub {
namespace {

using Text = const std::string &;

bool flag_value(std::string_view name, std::string_view text) {
  return number_value(name, text, {0, 1}) == 1;
}

// Returns the items between separators.
std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> items;
  for (;;) {
    const std::size_t end = std::min(text.find(separator), text.size());
    items.emplace_back(text.substr(0, end));
    if (end == text.size()) return items;
    text.remove_prefix(end + 1);
  }
}

// The library loads only one file in a process: the first.
std::string loaded_file(const char *name, Text value, int (*loader)(const char *),
                        const char *what) {
  const std::string path = file_value(name, value);
  if (loader(path.c_str()) != 0)
    throw std::invalid_argument(std::string(name) + " is '" + readable(value) + "', which has no " +
                                what);
  return path;
}

// The library ignores text after a number or a range.
bool is_number_or_range(std::string_view item) {
  const std::size_t dash = std::min(item.find('-'), item.size());
  const auto is_number = [](std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
  };
  return is_number(item.substr(0, dash)) &&
         (dash == item.size() || is_number(item.substr(dash + 1)));
}

// One item, so that a part of a list cannot be without effect.
void check_cpus(Text list, const std::string &item) {
  std::uint64_t cpus[VORN_CPUM_MASK_WORDS] = {};
  const bool is_list = (item.find('/') != item.npos || is_number_or_range(item)) &&
                       vorn_cpum_parse_cpumask(item.c_str(), cpus) == 0;
  if (!is_list) refuse_value("CPUS", list, "numbers, ranges and partitions, as 0-3,GROUP_0/CTRL");
  const std::string which = "CPUS is '" + readable(list) + "', ";
  const auto configured = static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_CONF));
  bool empty = true;
  for (unsigned int cpu = 0; cpu < VORN_CPUM_CPU_COUNT; ++cpu) {
    if ((cpus[cpu / 64] >> cpu % 64 & 1) == 0) continue;
    empty = false;
    if (cpu >= configured)
      throw std::invalid_argument(which + "and the machine has no CPU " + std::to_string(cpu));
  }
  if (empty)
    throw std::invalid_argument(which + "and '" + readable(item) + "' holds no CPU of the machine");
}

template <std::uint64_t Settings::*member, std::uint64_t least, std::uint64_t most,
          std::uint64_t step = 1>
void take_number(Options &options, const char *name, Text value) {
  options.settings.*member = number_value(name, value, {least, most, step});
}

// A nice value belongs to a thread: one that ends at once tries it.
void take_nice(Options &options, const char *name, Text value) {
  take_number<&Settings::nice, 0, 19>(options, name, value);
  int error = 0;
  std::thread([&] {
    if (setpriority(PRIO_PROCESS, 0, static_cast<int>(options.settings.nice)) != 0) error = errno;
  }).join();
  if (error != 0)
    throw std::invalid_argument(std::string(name) + " is '" + readable(value) +
                                "', which this process may not set: " + std::strerror(error));
}

void take_cpus(Options &options, const char *, Text value) {
  for (std::string item : split(value, ',')) {
    item.erase(0, item.find_first_not_of(" \t"));
    check_cpus(value, item);
  }
  options.settings.cpus = value;
}

void take_excludes(Options &options, const char *name, Text value) {
  options.scope.excludes.clear();
  for (const std::string &pattern : split(value, ':'))
    options.scope.excludes.push_back(pattern_value(name, pattern));
}

void take_output(Options &options, const char *name, Text value) {
  constexpr const char *kNames[] = {"text", "json", "json-lines"}; // in the order of Output
  const auto *known = std::ranges::find_if(kNames, [&](const char *one) { return value == one; });
  if (known == std::end(kNames)) refuse_value(name, value, "text, json or json-lines");
  options.output = static_cast<Output>(known - kNames);
}

// CPUS names partitions of PRODUCT.
constexpr KnownSetting kSettings[] = {
    {"READ_SIZE_LIMIT",
     {},
     take_number<&Settings::read_size_limit, kBlockSize, 1048576, kBlockSize>},
    {"THREADS", {}, take_number<&Settings::threads, 1, 16>},
    {"RATE_LIMIT", {}, take_number<&Settings::rate_limit, 0, 100000>},
    {"NICE", {}, take_nice},
    {"PRODUCT",
     {},
     [](Options &options, const char *name, Text value) {
       options.settings.product = loaded_file(name, value, vorn_cpum_init, "partitions");
     }},
    {"NUMA",
     {},
     [](Options &options, const char *name, Text value) {
       options.settings.numa = loaded_file(name, value, vorn_numam_init, "NUMA nodes");
     }},
    {"CPUS", {}, take_cpus},
    {"EXCLUDE", {"exclude"}, take_excludes},
    {"ONE_FILE_SYSTEM",
     {"one-file-system"},
     [](Options &options, const char *name, Text value) {
       options.scope.one_file_system = flag_value(name, value);
     }},
    {"PSEUDO",
     {"pseudo"},
     [](Options &options, const char *name, Text value) {
       options.scope.pseudo = flag_value(name, value);
     }},
    {"PART",
     {"part"},
     [](Options &options, const char *name, Text value) {
       options.part = part_value(name, value);
     }},
    {"RESUME",
     {"resume"},
     [](Options &options, const char *name, Text value) {
       options.resume = flag_value(name, value);
     }},
    {"MAX_ERRORS",
     {"max-errors"},
     [](Options &options, const char *name, Text value) {
       options.max_errors = number_value(name, value, kMaxErrors);
     }},
    {"CACHED",
     {"cached"},
     [](Options &options, const char *name, Text value) {
       options.cached = flag_value(name, value);
     }},
    {"QUIET",
     {"quiet"},
     [](Options &options, const char *name, Text value) {
       options.quiet = flag_value(name, value);
     }},
    {"OUTPUT", {"json", "json-lines"}, take_output},
    {"REPORT",
     {"report"},
     [](Options &options, const char *name, Text value) {
       options.html = file_value(name, value);
     }},
};

} // namespace

std::span<const KnownSetting> known_settings() { return kSettings; }

} // namespace scrub
