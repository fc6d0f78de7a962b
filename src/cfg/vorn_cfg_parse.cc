// Parses an INI file line by line.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_parse.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <utility>

#include "base/log.hpp"
#include "base/unique_fd.hpp"
#include "cfg/vorn_cfg_io.hpp"
#include "cfg/vorn_cfg_limits.hpp"
#include "cfg/vorn_cfg_lines.hpp"
#include "cfg/vorn_cfg_text.hpp"
#include "list/vorn_list.hpp"
#include "mem/owned.hpp"

namespace vorn::cfg {
namespace {

// Returns a part of the line, terminated by a NUL.
CStringView c_string(const Line &line, std::string_view part) {
  char *begin = line.text + (part.data() - line.text);
  begin[part.size()] = '\0';
  return {begin, part.size()};
}

// Removes the blanks at the end. Those at the start stay, but do not count towards the limit.
// Returns false if the caller must drop the line.
bool vorn_cfg_trim_string(Line *line) {
  line->length = trim_end({line->text, line->length}).size();
  line->text[line->length] = '\0';
  if (line->length < kLineMax) return true;
  const std::string_view trimmed = trim({line->text, line->length});
  if (trimmed.size() < kLineMax) return true;
  VORN_LOG(kDebug,
           "The length (%d) of string (%s) is larger than limit (%d) when trim format of string.",
           int_of(trimmed.size()), c_string(*line, trimmed).c_str(), int_of(kLineMax));
  return false;
}

// Returns the text between the brackets of a header, or nothing if the line is no header.
std::optional<CStringView> vorn_cfg_is_section(const Line &line) {
  const std::string_view text(line.text, line.length);
  if (text.size() > kHeaderMax || !text.starts_with('[') || !text.ends_with(']'))
    return std::nullopt;
  const std::string_view name = trim(text.substr(1, text.size() - 2));
  if (vorn_cfg_check_name(name)) return c_string(line, name);
  VORN_LOG(kDebug, "The input string (%s) is not a section string.", line.text);
  return std::nullopt;
}

// Logs an error and returns false if the name does not fit.
bool vorn_cfg_copy_section(char (&section)[kNameSize], CStringView name) {
  if (copy_text(section, sizeof section, name) == 0) return true;
  return VORN_FAIL(false, "copy section name (%s) fail in copy section.", name.c_str());
}

bool is_comment(const Line &line) { return line.text[0] == ';' || line.text[0] == '='; }

// Splits the line at its first "=". Returns nothing, and leaves the line as it is, if the line is
// no item.
std::optional<Item> vorn_cfg_parse_item(const Line &line) {
  const std::string_view text(line.text, line.length);
  const std::size_t equals = text.find('=');
  if (equals == text.npos) return std::nullopt;
  const std::string_view key = trim(text.substr(0, equals));
  const std::string_view value = trim(text.substr(equals + 1));
  if (!vorn_cfg_check_name(key)) {
    VORN_LOG(kDebug, "The input string (%s) is not a valid config item.", line.text);
    return std::nullopt;
  }
  if (key.size() >= kNameSize) return std::nullopt;
  if (value.size() < kValueSize) return Item{c_string(line, key), c_string(line, value)};
  VORN_LOG(kError, "copy item (%.*s=%.*s) fail in parse item.", int_of(key.size()), key.data(),
           int_of(value.size()), value.data());
  return std::nullopt;
}

// A line and what it is: VORN_CFG_LINE_*.
struct ParsedLine {
  int kind;
  Item item{"", ""}; // empty unless kind is VORN_CFG_LINE_ITEM
};

// Parses a line; section is the current section, which a header changes.
ParsedLine parse_line(Line *line, char (&section)[kNameSize]) {
  if (!vorn_cfg_trim_string(line)) return {VORN_CFG_LINE_IGNORED};
  if (line->length == 0) return {VORN_CFG_LINE_BLANK};
  if (const auto name = vorn_cfg_is_section(*line)) {
    vorn_cfg_copy_section(section, *name);
    return {VORN_CFG_LINE_SECTION};
  }
  if (is_comment(*line)) return {VORN_CFG_LINE_COMMENT};
  if (const auto item = vorn_cfg_parse_item(*line)) return {VORN_CFG_LINE_ITEM, *item};
  return {VORN_CFG_LINE_IGNORED};
}

// Calls visit(line, section, parsed) for each line until it returns false. Returns 0; logs an error
// and returns -1 if memory runs out or the file cannot be read.
template <class Visit> int parse_lines(const char *function, int fd, Visit visit) {
  char section[kNameSize] = "NULL"; // the section of the items before the first header
  Lines lines(fd, kLineMax);
  for (Line line; lines.next(&line);) {
    const ParsedLine parsed = parse_line(&line, section);
    if (!visit(line, section, parsed)) return 0;
  }
  // An editor must not take a part of the file for the whole.
  if (lines.missing() != 0) {
    return VORN_FAIL_AS(function, -1, "Alloc memory fail, size(%u).",
                        static_cast<unsigned int>(lines.missing()));
  }
  if (lines.error() == 0) return 0;
  return VORN_FAIL_AS(function, -1, "Read file failed, fd %d errno %d", fd, lines.error());
}

vorn_cfg_line_s public_line(const Line &line, const char *section, const ParsedLine &parsed) {
  vorn_cfg_line_s shown{line.number, parsed.kind, section, nullptr, nullptr, nullptr};
  if (parsed.kind == VORN_CFG_LINE_ITEM) {
    shown.item = parsed.item.name.c_str();
    shown.value = parsed.item.value.c_str();
  } else if (parsed.kind != VORN_CFG_LINE_SECTION) {
    shown.text = line.text;
  }
  return shown;
}

FileNode new_file_node(const char *function, const char *path) {
  FileNode node(
      static_cast<vorn_cfg_file_node_s *>(mem::allocate(sizeof(vorn_cfg_file_node_s), function)));
  if (node == nullptr) {
    VORN_LOG_AS(function, kError, "Alloc needed filenode memory fail, filenode size (%u).",
                static_cast<unsigned int>(sizeof(vorn_cfg_file_node_s)));
    return node;
  }
  *node = {};
  vorn_list_poison(&node->link);
  vorn_list_init_head(&node->sections);
  if (copy_text(node->path, sizeof node->path, path) != 0) {
    VORN_LOG_AS(function, kError, "Copy file name (%s) fail in new filenode.", path);
    node.reset();
  }
  return node;
}

} // namespace

int vorn_cfg_ini_fd_parse(int fd, vorn_cfg_file_node_s *node, ItemFunction function,
                          void *context) {
  int result = kContinue;
  const auto pass_item = [&](const Line &, const char *section, const ParsedLine &parsed) {
    if (parsed.kind == VORN_CFG_LINE_ITEM) result = function(node, section, parsed.item, context);
    return result == kContinue;
  };
  if (parse_lines(__func__, fd, pass_item) != 0) return -1;
  return result == kContinue ? 0 : result;
}

int walk_lines(int fd, vorn_cfg_walk_f visit, void *context) {
  int result = 0;
  const auto pass_line = [&](const Line &line, const char *section, const ParsedLine &parsed) {
    const vorn_cfg_line_s shown = public_line(line, section, parsed);
    result = visit(context, &shown);
    return result == 0;
  };
  return parse_lines("vorn_cfg_walk", fd, pass_line) != 0 ? -1 : result;
}

UniqueFd open_to_read(const char *path) {
  UniqueFd fd = open_file(path, O_RDONLY | O_NONBLOCK);
  struct stat status;
  if (!fd || fstat(fd.get(), &status) != 0) return UniqueFd();
  if (!S_ISDIR(status.st_mode) && !S_ISFIFO(status.st_mode)) return fd;
  fd = UniqueFd();
  errno = S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
  return fd;
}

FileNode vorn_cfg_ini_file_parse(const char *path, ItemFunction function, void *context,
                                 UniqueFd *source) {
  if (path == nullptr) {
    VORN_LOG(kError, "Filename null pointer");
    return nullptr;
  }
  if (std::strlen(path) >= VORN_CFG_PATH_SIZE) {
    VORN_LOG(kError, "File name length too long.");
    return nullptr;
  }
  FileNode node = new_file_node(__func__, path);
  if (node == nullptr) return node;
  UniqueFd fd = open_to_read(path);
  if (!fd) {
    VORN_LOG(kError, "Open file (%s) failed, fd %d errno %d", path, fd.get(), errno);
    return nullptr;
  }
  if (vorn_cfg_ini_fd_parse(fd.get(), node.get(), function, context) != 0) return nullptr;
  if (source != nullptr) *source = std::move(fd);
  return node;
}

} // namespace vorn::cfg
