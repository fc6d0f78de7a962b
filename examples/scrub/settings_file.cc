// Walks the settings file through the library, and refuses lines that have no effect.
// SPDX-License-Identifier: Apache-2.0
#include "settings_file.hpp"

#include <algorithm>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

#include "option_table.hpp"
#include "setting_table.hpp"
#include "values.hpp"
#include "vorn_cfg.h"

namespace scrub {
namespace {

constexpr char kSection[] = "SCRUB";

// Whether the setting has an effect on this run.
bool counts(const KnownSetting &setting, const CommandLine &line) {
  return std::ranges::all_of(setting.options, [&](const char *option) {
    return option == nullptr || (!line.given.contains(option) &&
                                 (find_option(option)->commands & command_bit(line.command)) != 0);
  });
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
  if (std::ranges::none_of(known_settings(), known))
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
  for (const KnownSetting &setting : known_settings())
    file.take(setting, line);
}

} // namespace scrub
