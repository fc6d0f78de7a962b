// Sets and reads the node's time zone by the system's tools and files or the node's script.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_timezone.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "time/vorn_time_local.hpp"
#include "vorn_cmd.h"
#include "vorn_filecmd.h"
#include "vorn_fileops.h"
#include "vorn_time.h"

namespace vorn::time {
namespace {

constexpr char kLink[] = "/etc/localtime";
constexpr char kZoneFolder[] = "/usr/share/zoneinfo/";
constexpr char kClockFile[] = "/etc/sysconfig/clock";
constexpr char kScript[] = "/WRK/script/os_get_tmtz.sh";
constexpr char kScriptFile[] = "/WRK/conf/time_zone.conf";
constexpr char kNameCommand[] = "timedatectl | grep \"Time zone\" | awk '{print $3}'";

constexpr std::size_t kZonePathSize = 64;
constexpr std::size_t kCommandSize = 256;
constexpr std::size_t kLineSize = 256;

bool exists(const char *path) { return access(path, F_OK) == 0; }

bool is_file(const char *path) {
  struct stat file;
  return stat(path, &file) == 0 && S_ISREG(file.st_mode);
}

// Formats a command and runs it. If it does not fit, returns false, with a negative *length, and
// does not run it.
bool run(int *result, int *length, const char *whitelist, const char *format, ...)
    VORN_PRINTF(4, 5);

bool run(int *result, int *length, const char *whitelist, const char *format, ...) {
  char command[kCommandSize];
  std::va_list args;
  va_start(args, format);
  *length = vsnprintf_s(command, sizeof command, sizeof command - 1, format, args);
  va_end(args);
  if (*length < 0) return false;
  *result = vorn_system_s(command, whitelist);
  return true;
}

constexpr char kSet[] = "vorn_timezone_set";

int command_too_long() {
  return VORN_FAIL_AS(kSet, -1, "sprintf_s secure function failed, destMax<%lu>.", kCommandSize);
}

int set_link(const char *name) {
  if (!exists(kLink)) return VORN_FAIL_AS(kSet, -ENOENT, "Cannot find %s file.", kLink);
  char zone[kZonePathSize];
  const int size = snprintf_s(zone, sizeof zone, sizeof zone - 1, "%s%s", kZoneFolder, name);
  if (size < 0) return VORN_FAIL_AS(kSet, -1, "Zone_info_file snprintf failed, return %d.", size);
  if (!is_file(zone)) return VORN_FAIL_AS(kSet, -ENOENT, "Cannot find %s timezone file.", zone);
  int result = 0;
  int length = 0;
  if (!run(&result, &length, "\n", "rm -rf %s\nln -s %s %s", kLink, zone, kLink))
    return command_too_long();
  if (result != 0)
    return VORN_FAIL_AS(kSet, -1, "Set timezone failed, return value is %d.", result);
  reread_zone();
  return 0;
}

// Copies the text as a format without arguments does.
bool write_formatted(char *out, std::size_t size, std::string_view text) {
  std::size_t length = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%' && !text.substr(++at).starts_with('%')) return false;
    if (length + 1 >= size) return false;
    out[length++] = text[at];
  }
  out[length] = '\0';
  return true;
}

// Reads up to size bytes of the command's output. Returns a negative number if the command cannot
// run.
ssize_t read_output(const char *command, const char *whitelist, char *out, std::size_t size) {
  FILE *stream = vorn_popen_s(command, "r", whitelist);
  if (stream == nullptr) return -1;
  std::size_t length = 0;
  while (length < size) {
    const ssize_t count = sys::read(fileno(stream), out + length, size - length);
    if (count <= 0) break;
    length += static_cast<std::size_t>(count);
  }
  vorn_pclose(stream);
  return static_cast<ssize_t>(length);
}

bool is_refused(const char *function, const char *name, std::uint32_t size) {
  if (name != nullptr && size != 0) return false;
  return VORN_FAIL_AS(function, true, "Parameter is null.");
}

// Returns the text between the first and the last quote; false if there are not two quotes.
bool quoted(char *line, const char **text) {
  char *first = std::strchr(line, '"');
  char *last = std::strrchr(line, '"');
  if (first == last) return false;
  *last = '\0';
  *text = first + 1;
  return true;
}

} // namespace
} // namespace vorn::time

using namespace vorn::time;

int vorn_timezone_set(const char *name) {
  if (name == nullptr) return VORN_FAIL(-EINVAL, "Input timezone name pointor is NULL.");
  if (isDangerousCmd(name, nullptr) != 0)
    return VORN_FAIL(-EINVAL, "Param error: pscTimeZoneName(%s) is dangerous.", name);
  int result = 0;
  int length = 0;
  if (!run(&result, &length, nullptr, "timedatectl set-timezone %s", name))
    return command_too_long();
  if (result != 0) return set_link(name);
  VORN_LOG(vorn::kInfo, "timedatectl cmd success.");
  reread_zone();
  return 0;
}

int vorn_timezone_set_shell(const char *name) {
  if (name == nullptr) return VORN_FAIL(-EINVAL, "Input timezone name pointor is NULL.");
  int result = 0;
  int length = 0;
  if (!run(&result, &length, nullptr, "%s %s \"%s\"", kScript, "settimezone", name))
    return VORN_FAIL(-1, "Settimezone cmd snprintf_s failed, return %d.", length);
  if (result != 0) return VORN_FAIL(-1, "Set timezone failed, return value is %d.", result);
  reread_zone();
  if (!run(&result, &length, nullptr, "%s %s \"%s\"", kScript, "synctimezone", name))
    return VORN_FAIL(-1, "Synctimezone cmd snprintf_s failed, return %d.", length);
  if (result != 0) return VORN_FAIL(-1, "synctimezone failed, return value is %d.", result);
  return 0;
}

int vorn_zonename_get(char *name) {
  char found[VORN_ZONENAME_SIZE];
  for (const auto source : {vorn_zonename_get_by_timedatectl, vorn_zonename_get_by_soft_link,
                            vorn_zonename_get_by_sysconfig}) {
    std::memset(found, 0, sizeof found);
    if (source(found, sizeof found) != 0) continue;
    const int result = vorn::strcpy_s(name, VORN_ZONENAME_SIZE, found);
    if (result != 0) {
      VORN_LOG(vorn::kError, "strcpy_s secure function failed, ret<%d>, destMax<%lu>.", result,
               static_cast<unsigned long>(VORN_ZONENAME_SIZE));
    }
    return 0;
  }
  return -1;
}

int vorn_zonename_get_by_timedatectl(char *name, uint32_t size) {
  if (is_refused(__func__, name, size)) return -1;
  const ssize_t length = read_output(kNameCommand, "$|", name, size);
  if (length < 0) return VORN_FAIL(-1, "Timedatectl may not be installed on this env.");
  if (length == 0) return VORN_FAIL(-1, "Result of Timedatectl is null.");
  name[length - 1] = '\0'; // removes the line feed, or the last byte of a full buffer
  if (name[0] == '\0') return VORN_FAIL(-1, "Timedatectl return null.");
  return 0;
}

int vorn_zonename_get_by_soft_link(char *name, uint32_t size) {
  if (is_refused(__func__, name, size)) return -1;
  char target[256];
  const ssize_t length = readlink(kLink, target, sizeof target);
  if (length < 1 || length >= static_cast<ssize_t>(sizeof target)) return -1;
  target[length] = '\0';
  const char *zone = std::strstr(target, kZoneFolder);
  if (zone == nullptr) return VORN_FAIL(-1, "filename is %s.", target);
  if (write_formatted(name, size, zone + sizeof kZoneFolder - 1)) return 0;
  return VORN_FAIL(-1, "Zonename_get_by_soft_link sprintf_s failed, return %d.", -1);
}

int vorn_zonename_get_by_sysconfig(char *name, uint32_t size) {
  if (is_refused(__func__, name, size)) return -1;
  const vorn::Stream stream = vorn::sys::open_stream(kClockFile);
  if (stream == nullptr) return -1;
  char line[kLineSize];
  while (vorn::sys::read_line(line, sizeof line, stream) != nullptr) {
    const char *zone = nullptr;
    if (std::strstr(line, "DEFAULT_TIMEZONE") == nullptr || !quoted(line, &zone)) continue;
    const int result = vorn::snprintf_s(name, size, size - 1, "%s", zone);
    if (result >= 0) return 0;
    return VORN_FAIL(-1, "Zonename_get_by_sysconfig failed,  return %d.", result);
  }
  return -1;
}

int vorn_zonename_get_shell(char *name) {
  if (name == nullptr) return -1;
  int result = 0;
  int length = 0;
  run(&result, &length, nullptr, "%s %s", kScript, "gettimezone");
  if (result != 0) return VORN_FAIL(-1, "Get timezone failed, return value is %d.", result);
  vorn::UniqueFd file = vorn::sys::open(kScriptFile, O_RDONLY);
  if (!file) return VORN_FAIL(-1, "Open timezone config file (%s) failed.", kScriptFile);
  char line[kLineSize];
  if (vorn_readline(file.get(), line, sizeof line) == nullptr)
    return VORN_FAIL(-1, "Get timezone name from config file failed.");
  file = vorn::UniqueFd();
  vorn_cmd_rm(kScriptFile);
  length = vorn::snprintf_s(name, VORN_ZONENAME_SIZE, VORN_ZONENAME_SIZE - 1, "%s", line);
  if (length < 0) return VORN_FAIL(-1, "PscTimeZoneName sprintf_s failed,return %d.", length);
  vorn_time_zone_name_set(name, static_cast<unsigned int>(length));
  return 0;
}
