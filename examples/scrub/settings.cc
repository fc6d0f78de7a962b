// Reads the settings file, and refuses unknown names and invalid values.
// SPDX-License-Identifier: Apache-2.0
#include "settings.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string_view>

#include "checksums.hpp"
#include "text.hpp"
#include "vorn_cfg.h"
#include "vorn_cpu.h"
#include "vorn_numa.h"
#include "vorn_thrd.h"

namespace scrub {
namespace {

constexpr char kSection[] = "SCRUB";

// A number from least to most that is a multiple of step.
struct Item {
  const char *name;
  std::uint64_t Settings::*value;
  std::uint64_t least;
  std::uint64_t most;
  std::uint64_t step = 1;
};

constexpr Item kItems[] = {
    {"READ_SIZE_LIMIT", &Settings::read_size_limit, kBlockSize, 1048576, kBlockSize},
    {"THREADS", &Settings::threads, 1, 16},
    {"RATE_LIMIT", &Settings::rate_limit, 0, 100000},
    {"NICE", &Settings::nice, 0, 19},
};

constexpr char kCpus[] = "CPUS";
constexpr char kProduct[] = "PRODUCT";
constexpr char kNuma[] = "NUMA";
constexpr const char *kTexts[] = {kCpus, kProduct, kNuma};

std::string wanted(const Item &item) {
  const std::string range = std::to_string(item.least) + " to " + std::to_string(item.most);
  return item.step == 1 ? range : range + ", a multiple of " + std::to_string(item.step);
}

// Registers the file with the library; the destructor removes it.
class File {
public:
  explicit File(const std::string &path) : path_(path) {
    if (vorn_cfg_init_ex(path.c_str()) != 0) refuse("cannot be read, the log says why");
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;
  ~File() { vorn_cfg_destroy_ex(path_.c_str()); }

  void check_lines() const;
  void read(const Item &item, Settings &settings) const;
  void load(const char *name, int (*loader)(const char *), const char *what,
            std::string &loaded) const;
  void read_cpus(Settings &settings) const;

private:
  bool find(const char *name, const std::string &wanted, std::span<char> text) const;
  void check_item(std::string_view line, std::uint64_t number) const;
  [[noreturn]] void refuse(const std::string &why) const {
    throw std::runtime_error("settings " + path_ + ": " + why);
  }

  const std::string &path_;
};

std::string_view trimmed(std::string_view text) {
  constexpr char kBlanks[] = " \t\v\f\r";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

bool is_name(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '_';
  });
}

// Returns the name of the section that the line opens, or an empty text.
std::string_view section_of(std::string_view line) {
  if (!line.starts_with('[')) return {};
  line = trimmed(line);
  if (!line.ends_with(']')) return {};
  const std::string_view name = trimmed(line.substr(1, line.size() - 2));
  return is_name(name) ? name : std::string_view();
}

// Finds misspelt items, which no lookup would ask for, and lines that the parser drops. Ignores
// other sections.
void File::check_lines() const {
  std::ifstream file(path_);
  std::string text;
  bool inside = false;
  bool found = false;
  for (std::uint64_t number = 1; std::getline(file, text); ++number) {
    const std::string_view line(text.c_str());
    if (const std::string_view section = section_of(line); !section.empty()) {
      inside = section == kSection;
      found |= inside;
    } else if (inside) {
      check_item(trimmed(line), number);
    }
  }
  if (!found) refuse(std::string("there is no section [") + kSection + "]");
}

void File::check_item(std::string_view line, std::uint64_t number) const {
  if (line.empty() || line.starts_with(';')) return;
  const std::string where = "line " + std::to_string(number) + ": ";
  const std::size_t equals = line.find('=');
  if (equals == line.npos)
    refuse(where + "neither NAME=value nor a comment, which begins with ';'");
  const std::string_view name = trimmed(line.substr(0, equals));
  if (std::ranges::find(kTexts, name) == std::end(kTexts) &&
      std::ranges::find(kItems, name, &Item::name) == std::end(kItems))
    refuse(where + "there is no setting " + escape(name).c_str());
}

// Returns false if the item is not set.
bool File::find(const char *name, const std::string &wanted, std::span<char> text) const {
  const int result = vorn_cfg_getItemValue_ex(path_.c_str(), kSection, name, text.data(),
                                              static_cast<unsigned int>(text.size()));
  if (result == VORN_CFG_TOO_SMALL) refuse(std::string(name) + " is too long, wanted: " + wanted);
  return result == 0;
}

void File::read(const Item &item, Settings &settings) const {
  char text[64];
  if (!find(item.name, wanted(item), text)) return;
  const std::string_view digits(text);
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(digits.begin(), digits.end(), value);
  if (error != std::errc() || end != digits.end() || value < item.least || value > item.most ||
      value % item.step != 0)
    refuse(std::string(item.name) + " is '" + escape(digits).c_str() +
           "', wanted: " + wanted(item));
  settings.*item.value = value;
}

// The library loads only one such file in a process: the first.
void File::load(const char *name, int (*loader)(const char *), const char *what,
                std::string &loaded) const {
  char text[256];
  if (!find(name, "a file", text)) return;
  if (loader(text) != 0)
    refuse(std::string(name) + " is '" + escape(text).c_str() + "', which has no " + what);
  loaded = text;
}

void File::read_cpus(Settings &settings) const {
  constexpr char kWanted[] = "numbers, ranges and partitions, as 0-3,GROUP_0/CTRL";
  char text[256];
  if (!find(kCpus, kWanted, text)) return;
  std::uint64_t cpus[VORN_THRD_CPUSET_WORDS] = {};
  const bool is_list = vorn_cpum_parse_cpumask(text, cpus) == 0;
  if (!is_list || std::ranges::all_of(cpus, [](std::uint64_t word) { return word == 0; }))
    refuse(std::string(kCpus) + " is '" + escape(text).c_str() + "', wanted: " + kWanted);
  settings.cpus = text;
}

} // namespace

Settings read_settings(const std::string &path) {
  const File file(path);
  file.check_lines();
  Settings settings;
  for (const Item &item : kItems)
    file.read(item, settings);
  file.load(kProduct, vorn_cpum_init, "partitions", settings.product);
  file.load(kNuma, vorn_numam_init, "NUMA nodes", settings.numa);
  file.read_cpus(settings);
  return settings;
}

std::string settings_text(const Settings &settings) {
  return "reads of at most " + grouped(settings.read_size_limit) + " bytes, " +
         counted(settings.threads, "checksum thread") + ", " +
         (settings.rate_limit == 0 ? "no rate limit"
                                   : "at most " + grouped(settings.rate_limit) + " MB/s") +
         ", nice " + std::to_string(settings.nice) + ", CPUs " + settings.cpus +
         (settings.product.empty() ? "" : " of " + settings.product);
}

} // namespace scrub
