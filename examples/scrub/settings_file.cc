// Reads the settings file, and refuses what cannot take effect.
// SPDX-License-Identifier: Apache-2.0
#include "settings_file.hpp"

#include <algorithm>
#include <cctype>
#include <map>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

#include "checksums.hpp"
#include "text.hpp"
#include "vorn_cfg.h"
#include "vorn_cpu.h"
#include "vorn_numa.h"
#include "vorn_thrd.h"

namespace scrub {
namespace {

constexpr std::string_view kSection = "SCRUB";

// A number of the settings.
struct Number {
  const char *key;
  std::uint64_t Settings::*value;
  std::uint64_t least;
  std::uint64_t most;
  std::uint64_t step = 1;
};

constexpr Number kNumbers[] = {
    {"READ_SIZE_LIMIT", &Settings::read_size_limit, kBlockSize, 1048576, kBlockSize},
    {"THREADS", &Settings::threads, 1, 16},
    {"RATE_LIMIT", &Settings::rate_limit, 0, 100000},
    {"NICE", &Settings::nice, 0, 19},
};

// Items that stand for an option: its name in upper case, with '_' for '-'.
constexpr const char *kOptionItems[] = {"exclude", "one-file-system", "pseudo", "any-tree",
                                        "part",    "resume",          "cached", "max-errors",
                                        "quiet",   "report"};

constexpr char kOutput[] = "OUTPUT";
constexpr char kCpus[] = "CPUS";
constexpr char kProduct[] = "PRODUCT";
constexpr char kNuma[] = "NUMA";

std::string key_of(std::string_view option) {
  std::string key(option);
  std::ranges::transform(key, key.begin(), [](unsigned char c) {
    return c == '-' ? '_' : static_cast<char>(std::toupper(c));
  });
  return key;
}

// Registers the file with the library; the destructor removes it.
class File {
public:
  File(const std::string &path, CommandLine &line) : path_(path), line_(line) {
    if (access(path.c_str(), R_OK) != 0 || vorn_cfg_init_ex(path.c_str()) != 0)
      throw std::runtime_error("settings " + path + ": cannot be read");
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;
  ~File() { vorn_cfg_destroy_ex(path_.c_str()); }

  // A function of the library calls visit(), which throws nothing: the refusal is kept until the
  // library has returned.
  void read() {
    const int result = vorn_cfg_walk(path_.c_str(), visit, this);
    if (result < 0 && refusal_.empty()) refusal_ = "cannot be read";
    if (refusal_.empty() && !found_)
      refusal_ = "there is no section [" + std::string(kSection) + "]";
    if (!refusal_.empty()) throw std::runtime_error("settings " + path_ + ": " + refusal_);
    load();
  }

private:
  struct Item {
    std::uint64_t line = 0;
    std::string value;
  };

  static int visit(void *self, const vorn_cfg_line_s *line) {
    auto &file = *static_cast<File *>(self);
    try {
      file.take(*line);
    } catch (const std::exception &failure) {
      file.refusal_ = failure.what();
    }
    return file.refusal_.empty() ? 0 : 1;
  }

  void take(const vorn_cfg_line_s &line) {
    if (line.section == nullptr || line.section != kSection) return;
    found_ = true;
    const std::string where = "line " + std::to_string(line.number) + ": ";
    if (line.kind == VORN_CFG_LINE_IGNORED)
      refusal_ = where + "neither NAME=value nor a comment, which begins with ';'";
    if (line.kind != VORN_CFG_LINE_ITEM) return;
    const std::string key(line.item);
    if (const auto [at, is_new] = items_.try_emplace(key, Item{line.number, line.value}); !is_new) {
      refusal_ = where + key + " is set in line " + std::to_string(at->second.line) + " already";
      return;
    }
    if (const std::string why = take_item(key, line.value); !why.empty()) refusal_ = where + why;
  }

  // Returns why the item is refused, or an empty text.
  std::string take_item(const std::string &key, const std::string &value) {
    for (const Number &number : kNumbers) {
      if (key == number.key) return take_number(number, value);
    }
    for (const char *name : kOptionItems) {
      if (key == key_of(name)) return take_option(*find_option(name), key, value);
    }
    if (key == kOutput) return take_output(value);
    // The CPUs may name partitions of the product file, which is loaded after the walk.
    if (key == kCpus || key == kProduct || key == kNuma) return {};
    return "there is no setting " + std::string(printable(key));
  }

  static std::string refused(const std::string &key, std::string_view value,
                             const std::string &wanted) {
    return key + " is '" + quoted(value) + "', wanted: " + wanted;
  }

  std::string take_number(const Number &number, const std::string &value) {
    std::uint64_t taken = 0;
    if (parse_number(value, number.least, number.most, taken) && taken % number.step == 0) {
      line_.options.settings.*number.value = taken;
      return {};
    }
    std::string wanted = std::to_string(number.least) + " to " + std::to_string(number.most);
    if (number.step != 1) wanted += ", a multiple of " + std::to_string(number.step);
    return refused(number.key, value, wanted);
  }

  // An option of the command line replaces the item, which must be right all the same.
  std::string take_option(const Option &option, const std::string &key, const std::string &value) {
    CommandLine scratch = line_;
    const bool ignored = line_.given.contains(option.name) || !takes(line_.command, option);
    CommandLine &line = ignored ? scratch : line_;
    if (option.argument == nullptr) {
      if (value != "0" && value != "1") return refused(key, value, "0 or 1");
      if (value == "1") option.take(line, "");
      return {};
    }
    if (!option.repeats) return option.take(line, value) ? "" : refused(key, value, option.wanted);
    for (std::size_t at = 0; at <= value.size();) {
      const std::size_t end = std::min(value.find(':', at), value.size());
      if (!option.take(line, value.substr(at, end - at)))
        return refused(key, value, "patterns with ':' between them");
      at = end + 1;
    }
    return {};
  }

  std::string take_output(const std::string &value) {
    constexpr std::pair<const char *, Output> kKinds[] = {
        {"text", Output::kText}, {"json", Output::kJson}, {"json-lines", Output::kJsonLines}};
    for (const auto &[name, kind] : kKinds) {
      if (value != name) continue;
      if (!line_.given.contains("json") && !line_.given.contains("json-lines"))
        line_.options.output = kind;
      return {};
    }
    return refused(kOutput, value, "text, json or json-lines");
  }

  // The library loads only one such file in a process: the first.
  void load() {
    Settings &settings = line_.options.settings;
    load_file(kProduct, vorn_cpum_init, "partitions", settings.product);
    load_file(kNuma, vorn_numam_init, "NUMA nodes", settings.numa);
    const auto cpus = items_.find(kCpus);
    if (cpus == items_.end()) return;
    check_cpus(cpus->second);
    settings.cpus = cpus->second.value;
  }

  [[noreturn]] void refuse(const Item &item, const std::string &why) const {
    throw std::runtime_error("settings " + path_ + ": line " + std::to_string(item.line) + ": " +
                             why);
  }

  void load_file(const char *key, int (*loader)(const char *), const char *what,
                 std::string &loaded) const {
    const auto item = items_.find(key);
    if (item == items_.end()) return;
    if (loader(item->second.value.c_str()) != 0)
      refuse(item->second,
             std::string(key) + " is '" + quoted(item->second.value) + "', which has no " + what);
    loaded = item->second.value;
  }

  void check_cpus(const Item &item) const {
    std::uint64_t cpus[VORN_THRD_CPUSET_WORDS] = {};
    const bool is_list = vorn_cpum_parse_cpumask(item.value.c_str(), cpus) == 0;
    if (!is_list || std::ranges::all_of(cpus, [](std::uint64_t word) { return word == 0; }))
      refuse(item,
             refused(kCpus, item.value, "numbers, ranges and partitions, as 0-3,GROUP_0/CTRL"));
    const auto configured = static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_CONF));
    for (unsigned int cpu = configured; cpu < VORN_THRD_CPU_COUNT; ++cpu) {
      if ((cpus[cpu / 64] >> cpu % 64 & 1) != 0)
        refuse(item, refused(kCpus, item.value,
                             "CPUs of this machine, which has " + counted(configured, "CPU")));
    }
  }

  const std::string path_;
  CommandLine &line_;
  std::map<std::string, Item, std::less<>> items_;
  bool found_ = false;
  std::string refusal_;
};

} // namespace

void read_settings(const std::string &path, CommandLine &line) { File(path, line).read(); }

} // namespace scrub
