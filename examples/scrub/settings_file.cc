// Walks the settings file through the library, and refuses unknown names and invalid values.
// SPDX-License-Identifier: Apache-2.0
#include "settings_file.hpp"

#include <algorithm>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "checksums.hpp"
#include "values.hpp"
#include "vorn_cfg.h"
#include "vorn_cpu.h"
#include "vorn_numa.h"

namespace scrub {
namespace {

constexpr char kSection[] = "SCRUB";

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

// A setting. option is the name of the option that sets the same, or null.
struct KnownSetting {
  const char *name;
  const char *option;
  void (*take)(Options &options, const char *name, Text value); // throws std::invalid_argument
};

template <std::uint64_t Settings::*member, std::uint64_t least, std::uint64_t most,
          std::uint64_t step = 1>
void take_number(Options &options, const char *name, Text value) {
  options.settings.*member = number_value(name, value, {least, most, step});
}

void take_cpus(Options &options, const char *, Text value) {
  for (const std::string &item : split(value, ','))
    check_cpus(value, item);
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

// In the order in which values are taken: CPUS names partitions of PRODUCT.
constexpr KnownSetting kSettings[] = {
    {"READ_SIZE_LIMIT", nullptr,
     take_number<&Settings::read_size_limit, kBlockSize, 1048576, kBlockSize>},
    {"THREADS", nullptr, take_number<&Settings::threads, 1, 16>},
    {"RATE_LIMIT", nullptr, take_number<&Settings::rate_limit, 0, 100000>},
    {"NICE", nullptr, take_number<&Settings::nice, 0, 19>},
    {"PRODUCT", nullptr,
     [](Options &options, const char *name, Text value) {
       options.settings.product = loaded_file(name, value, vorn_cpum_init, "partitions");
     }},
    {"NUMA", nullptr,
     [](Options &options, const char *name, Text value) {
       options.settings.numa = loaded_file(name, value, vorn_numam_init, "NUMA nodes");
     }},
    {"CPUS", nullptr, take_cpus},
    {"EXCLUDE", "exclude", take_excludes},
    {"ONE_FILE_SYSTEM", "one-file-system",
     [](Options &options, const char *name, Text value) {
       options.scope.one_file_system = flag_value(name, value);
     }},
    {"PSEUDO", "pseudo",
     [](Options &options, const char *name, Text value) {
       options.scope.pseudo = flag_value(name, value);
     }},
    {"PART", "part",
     [](Options &options, const char *name, Text value) {
       options.part = part_value(name, value);
     }},
    {"RESUME", "resume",
     [](Options &options, const char *name, Text value) {
       options.resume = flag_value(name, value);
     }},
    {"MAX_ERRORS", "max-errors",
     [](Options &options, const char *name, Text value) {
       options.max_errors = number_value(name, value, kMaxErrors);
     }},
    {"CACHED", "cached",
     [](Options &options, const char *name, Text value) {
       options.cached = flag_value(name, value);
     }},
    {"QUIET", "quiet",
     [](Options &options, const char *name, Text value) {
       options.quiet = flag_value(name, value);
     }},
    {"OUTPUT", "json", take_output},
    {"REPORT", "report",
     [](Options &options, const char *name, Text value) {
       options.html = file_value(name, value);
     }},
};

// Whether the setting has an effect on this run.
bool counts(const KnownSetting &setting, const CommandLine &line) {
  if (setting.option == nullptr) return true;
  if (line.given.contains(setting.option)) return false;
  if (setting.take == take_output && line.given.contains("json-lines")) return false;
  return (find_option(setting.option)->commands & command_bit(line.command)) != 0;
}

struct Item {
  std::uint64_t line; // its number
  std::string value;
};

// The items of the section.
class File {
public:
  explicit File(const std::string &path);

  void take(const KnownSetting &setting, CommandLine &line) const;

private:
  static int visit(void *file, const vorn_cfg_line_s *line) noexcept;
  void read(const vorn_cfg_line_s &line);
  void add(const vorn_cfg_line_s &line);

  [[noreturn]] void refuse(const std::string &why) const {
    throw std::runtime_error("settings " + readable(path_) + ": " + why);
  }
  [[noreturn]] void refuse(std::uint64_t line, const std::string &why) const {
    throw std::runtime_error("settings " + readable(path_) + ", line " + std::to_string(line) +
                             ": " + why);
  }

  const std::string &path_;
  bool has_section_ = false;
  std::map<std::string, Item, std::less<>> items_;
  std::exception_ptr refusal_; // what ended the walk
};

// Keeps a file registered.
struct Registration {
  explicit Registration(const std::string &file) : path(file.c_str()) {}
  Registration(const Registration &) = delete;
  Registration &operator=(const Registration &) = delete;
  ~Registration() { vorn_cfg_destroy_ex(path); }
  const char *path;
};

File::File(const std::string &path) : path_(path) {
  if (vorn_cfg_init_ex(path.c_str()) != 0) refuse("cannot be read, the log says why");
  const Registration registration(path);
  const int result = vorn_cfg_walk(path.c_str(), visit, this);
  if (refusal_) std::rethrow_exception(refusal_);
  if (result != 0) refuse("cannot be read, the log says why");
  if (!has_section_) refuse(std::string("there is no section [") + kSection + "]");
}

// No exception may cross the library.
int File::visit(void *file, const vorn_cfg_line_s *line) noexcept {
  File &self = *static_cast<File *>(file);
  try {
    self.read(*line);
    return 0;
  } catch (...) {
    self.refusal_ = std::current_exception();
    return 1;
  }
}

// The run ignores other sections.
void File::read(const vorn_cfg_line_s &line) {
  if (std::string_view(line.section) != kSection) return;
  has_section_ = true;
  switch (line.kind) {
  case VORN_CFG_LINE_ITEM:
    return add(line);
  case VORN_CFG_LINE_SECTION:
  case VORN_CFG_LINE_BLANK:
    return;
  default:
    if (line.text[0] != ';')
      refuse(line.number, "neither NAME=value nor a comment, which begins with ';'");
  }
}

void File::add(const vorn_cfg_line_s &line) {
  const auto known = [&](const KnownSetting &one) {
    return std::string_view(one.name) == line.item;
  };
  if (std::ranges::none_of(kSettings, known))
    refuse(line.number, "there is no setting " + readable(line.item));
  const auto [item, added] = items_.try_emplace(line.item, Item{line.number, line.value});
  if (!added)
    refuse(line.number,
           item->first + " stands in line " + std::to_string(item->second.line) + " already");
}

void File::take(const KnownSetting &setting, CommandLine &line) const {
  const auto item = items_.find(setting.name);
  if (item == items_.end()) return;
  const auto &[number, value] = item->second;
  Options unused;
  try {
    setting.take(counts(setting, line) ? line.options : unused, setting.name, value);
  } catch (const std::invalid_argument &refused) {
    refuse(number, refused.what());
  }
}

} // namespace

void read_settings(CommandLine &line) {
  const File file(line.settings_file);
  for (const KnownSetting &setting : kSettings)
    file.take(setting, line);
}

std::vector<std::string_view> setting_names() {
  std::vector<std::string_view> names;
  for (const KnownSetting &setting : kSettings)
    names.emplace_back(setting.name);
  return names;
}

} // namespace scrub
