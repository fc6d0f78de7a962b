// Reads the module names that a node adds.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_process.c"

#include "process/node_names.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <sys/stat.h>

#include "base/log.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "mem/owned.hpp"

namespace vorn::process {
namespace {

constexpr off_t kMaxFileSize = 1 << 20;
constexpr char kFunction[] = "pid_init_names";

// Written during the load of the file, and only read after that. The names are parts of the file's
// text, which is never freed.
constinit Once loaded{OncePolicy::kLatch};
constinit const char *names[VORN_MODULE_ID_COUNT] = {};

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

bool is_name_char(char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; }

// Cuts the next word off the line. Returns an empty word at its end.
std::string_view take_word(std::string_view *line) {
  while (!line->empty() && is_blank(line->front()))
    line->remove_prefix(1);
  std::size_t length = 0;
  while (length < line->size() && !is_blank((*line)[length]))
    ++length;
  const std::string_view word = line->substr(0, length);
  line->remove_prefix(length);
  return word;
}

bool parse_id(std::string_view word, unsigned int *id) {
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), *id);
  return error == std::errc() && end == word.data() + word.size() && *id <= UINT16_MAX;
}

bool is_name(std::string_view word) {
  for (const char c : word) {
    if (!is_name_char(c)) return false;
  }
  return !word.empty();
}

// Parses a line, and terminates the name inside the text. Returns false if it is not an id and a
// name.
bool take_row(char *line, std::size_t length) {
  std::string_view rest(line, length);
  const std::string_view id_word = take_word(&rest);
  if (id_word.empty() || id_word.front() == '#') return true;
  const std::string_view name = take_word(&rest);
  unsigned int id = 0;
  if (!parse_id(id_word, &id) || !is_name(name) || !take_word(&rest).empty()) return false;
  char *kept = line + (name.data() - line);
  kept[name.size()] = '\0';
  if (id < VORN_MODULE_ID_COUNT) names[id] = kept;
  return true;
}

// Returns false if no name is in use, so that the caller can free the text.
bool take_rows(char *text, std::size_t size) {
  unsigned int number = 0;
  for (std::size_t start = 0; start < size;) {
    const auto *newline = static_cast<const char *>(std::memchr(text + start, '\n', size - start));
    const std::size_t end = newline == nullptr ? size : static_cast<std::size_t>(newline - text);
    ++number;
    if (!take_row(text + start, end - start)) {
      VORN_LOG_AS(kFunction, kWarning, "%s line %u is not an id and a name, it is left out.",
                  kNodeNamesFile, number);
    }
    start = end + 1;
  }
  return std::any_of(std::begin(names), std::end(names),
                     [](const char *name) { return name != nullptr; });
}

// Logs why the file cannot be read.
int fail(const char *what) {
  return VORN_FAIL_AS(kFunction, -1, "%s %s failed, errno=%d.", what, kNodeNamesFile, errno);
}

int load() {
  // not blocking: if the file is a pipe by mistake, the process must not hang
  const UniqueFd fd = sys::open(kNodeNamesFile, O_RDONLY | O_NONBLOCK);
  if (!fd) return errno == ENOENT ? 0 : fail("Open");
  struct stat status {};
  if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > kMaxFileSize) {
    return VORN_FAIL_AS(kFunction, -1, "%s is not a table of module names.", kNodeNamesFile);
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  mem::Block text = mem::allocate_block(size + 1);
  if (text == nullptr) return -1;
  const ssize_t length = sys::read(fd.get(), text.get(), size);
  if (length < 0) return fail("Read");
  text.get()[length] = '\0';
  if (take_rows(text.get(), static_cast<std::size_t>(length))) text.release();
  return 0;
}

} // namespace

const NodeNames &node_names() {
  loaded.run(load);
  return names;
}

} // namespace vorn::process
