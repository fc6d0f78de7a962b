// Reads and replaces a state file.
// SPDX-License-Identifier: Apache-2.0
#include "state_file.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.hpp"
#include "fd.hpp"
#include "vorn_crc.h"

namespace scrub {
namespace {

constexpr std::size_t kMost = 16 << 20; // bytes of a file

std::string crc_line(std::string_view text) {
  char line[24];
  std::snprintf(line, sizeof line, "crc32c %08x\n",
                vorn_crc32c(text.data(), static_cast<std::uint32_t>(text.size())));
  return line;
}

std::string contents(const Fd &fd, const std::string &path) {
  std::string text;
  char buffer[16384];
  while (text.size() <= kMost) {
    const ssize_t got = read(fd.get(), buffer, sizeof buffer);
    if (got == 0) return text;
    if (got < 0 && errno != EINTR) fail("cannot read " + path);
    if (got > 0) text.append(buffer, static_cast<std::size_t>(got));
  }
  throw std::runtime_error(path + " is too long");
}

} // namespace

std::vector<std::string> StateFile::read() const {
  const Fd fd(open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd && errno == ENOENT) return {};
  if (!fd) fail("cannot read " + path_);
  const std::string text = contents(fd, path_);
  const std::size_t last = text.rfind('\n', text.size() < 2 ? 0 : text.size() - 2);
  const std::size_t body = last == text.npos ? 0 : last + 1;
  if (text.substr(body) != crc_line(std::string_view(text).substr(0, body)))
    throw std::runtime_error(path_ + " is not as it was written; remove it to go on without it");
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < body;) {
    const std::size_t end = text.find('\n', at);
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

int StateFile::write(const std::vector<std::string> &lines) const {
  std::string text;
  for (const std::string &line : lines)
    text += line + "\n";
  text += crc_line(text);
  const std::string unfinished = path_ + std::string(kUnfinishedState);
  Fd fd(open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
             0600));
  if (!fd) return errno;
  int error = write_all(fd.get(), text);
  if (error == 0 && fsync(fd.get()) != 0) error = errno;
  if (error == 0 && rename(unfinished.c_str(), path_.c_str()) != 0) error = errno;
  if (error != 0) unlink(unfinished.c_str());
  return error;
}

int StateFile::remove() const { return unlink(path_.c_str()) == 0 || errno == ENOENT ? 0 : errno; }

} // namespace scrub
