#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_parse.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/log.hpp"
#include "base/unique_fd.hpp"
#include "cfg/vorn_cfg_lines.hpp"
#include "cfg/vorn_cfg_lock.hpp"
#include "cfg/vorn_cfg_text.hpp"
#include "vorn_fileops.h"

namespace vorn::cfg {
namespace {

// Takes the blanks off the end; those at the start stay, and count for nothing. False drops the
// line.
bool vorn_cfg_trim_string(Line *line) {
  line->length = trim_end({line->text, line->length}).size();
  line->text[line->length] = '\0';
  if (line->length < kLineMax) return true;
  const std::string_view trimmed = trim({line->text, line->length});
  if (trimmed.size() < kLineMax) return true;
  VORN_LOG(kDebug,
           "The length (%d) of string (%s) is larger than limit (%d) when trim format of string.",
           int_of(trimmed.size()), trimmed.data(), int_of(kLineMax));
  return false;
}

// Whether the line is a header: *name is what stands between its brackets then.
bool vorn_cfg_is_section(const Line &line, std::string_view *name) {
  const std::string_view text(line.text, line.length);
  if (text.size() > kHeaderMax || !text.starts_with('[') || !text.ends_with(']')) return false;
  *name = trim(text.substr(1, text.size() - 2));
  if (vorn_cfg_check_name(*name)) return true;
  VORN_LOG(kDebug, "The input string (%s) is not a section string.", line.text);
  return false;
}

// False drops the line.
bool vorn_cfg_copy_section(char (&section)[kNameSize], std::string_view name) {
  if (copy_text(section, sizeof section, name) == 0) return true;
  return VORN_FAIL(false, "copy section name (%s) fail in copy section.", name.data());
}

bool is_comment(const Line &line) {
  return line.length == 0 || line.text[0] == ';' || line.text[0] == '=';
}

// Splits the line at its first "=". False drops it.
bool vorn_cfg_parse_item(const Line &line, Item *item) {
  const std::string_view text(line.text, line.length);
  const std::size_t equals = text.find('=');
  if (equals == text.npos) return false;
  const std::string_view key = trim(text.substr(0, equals));
  const std::string_view value = trim(text.substr(equals + 1));
  if (!vorn_cfg_check_name(key)) {
    VORN_LOG(kDebug, "The input string (%s) is not a valid config item.", line.text);
    return false;
  }
  if (key.size() >= kNameSize) return false;
  line.text[key.data() + key.size() - line.text] = '\0';
  *item = {key, value};
  if (value.size() < kValueSize) return true;
  return VORN_FAIL(false, "copy item (%s=%s) fail in parse item.", key.data(), value.data());
}

// Parses one line; section is the current one.
int parse_line(Line *line, char (&section)[kNameSize], vorn_cfg_file_node_s *node,
               ItemFunction function, void *context) {
  if (line->length == 0 || !vorn_cfg_trim_string(line)) return kContinue;
  std::string_view name;
  if (vorn_cfg_is_section(*line, &name)) {
    vorn_cfg_copy_section(section, name);
    return kContinue;
  }
  Item item;
  if (is_comment(*line) || !vorn_cfg_parse_item(*line, &item)) return kContinue;
  return function(node, section, item, context);
}

FileNode new_file_node(const char *function, const char *path) {
  FileNode node(
      static_cast<vorn_cfg_file_node_s *>(allocate(sizeof(vorn_cfg_file_node_s), function)));
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

// A FIFO would keep a reader for ever and a directory cannot be read: both count as not opened,
// with errno set.
UniqueFd open_to_read(const char *path) {
  UniqueFd fd(vorn_open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, 0));
  struct stat status;
  if (!fd || fstat(fd.get(), &status) != 0) return UniqueFd();
  if (!S_ISDIR(status.st_mode) && !S_ISFIFO(status.st_mode)) return fd;
  fd = UniqueFd();
  errno = S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
  return fd;
}

} // namespace

int vorn_cfg_ini_fd_parse(int fd, vorn_cfg_file_node_s *node, ItemFunction function,
                          void *context) {
  char section[kNameSize] = "NULL"; // what stands before the first header belongs here
  Lines lines(fd, kLineMax);
  for (Line line; lines.next(&line);) {
    const int result = parse_line(&line, section, node, function, context);
    if (result != kContinue) return result;
  }
  // An editor must not take what could be read for the whole file.
  if (lines.missing() != 0) {
    return VORN_FAIL(-1, "Alloc memory fail, size(%u).",
                     static_cast<unsigned int>(lines.missing()));
  }
  if (lines.error() == 0) return 0;
  return VORN_FAIL(-1, "Read file failed, fd %d errno %d", fd, lines.error());
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
  WriteGuard hold(node->lock);
  UniqueFd fd = open_to_read(path);
  if (!fd) {
    const int error = errno;
    VORN_LOG(kError, "Open file (%s) failed, fd %d errno %d", path, fd.get(), error);
    return nullptr;
  }
  if (vorn_cfg_ini_fd_parse(fd.get(), node.get(), function, context) != 0) return nullptr;
  if (source != nullptr) *source = std::move(fd);
  return node;
}

} // namespace vorn::cfg
