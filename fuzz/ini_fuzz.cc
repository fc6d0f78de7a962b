// Checks the parser of INI files against a simple model, that a file that is written and parsed
// again has the same content, that a walk visits every line, and that the in-place writer sets only
// its item.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/harness.hpp"
#include "vorn_cfg.h"

namespace {

using namespace fuzz;
using Items = std::vector<std::pair<std::string, std::string>>;
using Sections = std::vector<std::pair<std::string, Items>>;

// The parsed file, from an edit that take() cancels. take() also writes it back if writes_again is
// set.
Sections parsed;
bool writes_again;

int take(vorn_cfg_file_node_s *node, const char *, const char *, const char *) {
  parsed.clear();
  for (auto *s = vorn_list_first(&node->sections); s; s = vorn_list_next(&node->sections, s)) {
    const auto *section = vorn_list_entry(s, vorn_cfg_section_node_s, link);
    parsed.emplace_back(section->name, Items());
    for (auto *i = vorn_list_first(&section->items); i; i = vorn_list_next(&section->items, i)) {
      const auto *item = vorn_list_entry(i, vorn_cfg_item_node_s, link);
      parsed.back().second.emplace_back(item->name, item->value);
    }
  }
  if (writes_again) expect(vorn_cfg_writeFnodeTofile(file().fd(), node) == 0);
  return -1;
}

Sections parse(bool and_write) {
  writes_again = and_write;
  vorn_cfg_oper_param_s param{file().path(), nullptr, nullptr, nullptr};
  vorn_cfg_file_writeOperate(file().fd(), &param, take);
  return parsed;
}

// The model. No input here reaches the maximum length of a line.

std::string trimmed(std::string text) {
  text.erase(text.find_last_not_of(" \t\n\r") + 1);
  text.erase(0, text.find_first_not_of(" \t"));
  return text;
}

bool is_name(const std::string &text) {
  return text.find_first_not_of(
             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") == text.npos;
}

void set(Sections &sections, const std::string &section, const std::string &item,
         const std::string &value) {
  auto at = std::find_if(sections.begin(), sections.end(),
                         [&](const auto &known) { return known.first == section; });
  if (at == sections.end()) at = sections.insert(at, {section, Items()});
  std::erase_if(at->second, [&](const auto &known) { return known.first == item; });
  at->second.emplace_back(item, value);
}

Sections expected(std::string_view text) {
  Sections sections;
  std::string section = "NULL";
  while (!text.empty()) {
    std::string line(text.substr(0, text.find('\n')));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    std::erase(line, '\r');
    line.erase(std::min(line.find('\0'), line.size()));
    line.erase(line.find_last_not_of(" \t\n\r") + 1);
    if (line.empty()) continue;
    if (line.size() <= 65 && line.front() == '[' && line.back() == ']') {
      const std::string name = trimmed(line.substr(1, line.size() - 2));
      if (is_name(name)) {
        section = name;
        continue;
      }
    }
    const std::size_t equals = line.find('=');
    if (line[0] == ';' || line[0] == '=' || equals == line.npos) continue;
    const std::string key = trimmed(line.substr(0, equals));
    if (is_name(key) && key.size() < 64)
      set(sections, section, key, trimmed(line.substr(equals + 1)));
  }
  return sections;
}

// Checks that a lookup finds every item with its last value.
void check_lookups(const Sections &sections) {
  expect(vorn_cfg_init(file().path()) == 0);
  std::string value(1 << 16, ' ');
  for (const auto &[section, items] : sections) {
    for (const auto &[item, wanted] : items) {
      expect(vorn_cfg_getItemValue(section.c_str(), item.c_str(), value.data(),
                                   static_cast<unsigned int>(value.size())) == 0);
      expect(wanted == value.c_str());
    }
  }
  vorn_cfg_destroy();
}

// Checks that a walk visits every line once, and that the items it visits give these sections.
void check_walk(std::string_view input, const Sections &sections) {
  struct Walk {
    Sections sections;
    std::uint64_t lines = 0;
  } walk;
  const auto visit = [](void *context, const vorn_cfg_line_s *line) {
    auto &seen = *static_cast<Walk *>(context);
    expect(line->number == ++seen.lines);
    if (line->kind == VORN_CFG_LINE_ITEM)
      set(seen.sections, line->section, line->item, line->value);
    return 0;
  };
  expect(vorn_cfg_init(file().path()) == 0);
  expect(vorn_cfg_walk(file().path(), visit, &walk) == 0);
  vorn_cfg_destroy();
  expect(walk.sections == sections);
  std::string lines(input);
  std::erase(lines, '\r');
  const bool is_cut = !lines.empty() && lines.back() != '\n';
  const auto feeds = std::count(lines.begin(), lines.end(), '\n');
  expect(walk.lines == static_cast<std::uint64_t>(feeds) + (is_cut ? 1 : 0));
}

// No other item can have this name, so the in-place writer only adds it.
void check_write() {
  const std::string item(63, 'z');
  expect(vorn_cfg_write_item_to_file(file().path(), "section", item.c_str(), "v") == 0);
  vorn_cfg_item_s out;
  expect(vorn_cfg_getItemFromFile(file().path(), "section", item.c_str(), &out) == 0);
  expect(std::string_view(out.value) == "v");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  const std::string_view input = text_of(data, size);
  if (size >= 1 << 16) return 0;
  file().write(input);
  const Sections sections = parse(true);
  expect(sections == expected(input));
  expect(parse(false) == sections);
  check_lookups(sections);
  file().write(input);
  check_walk(input, sections);
  check_write();
  return 0;
}
