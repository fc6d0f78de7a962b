// Turns the output of zdump into the table of transitions that the kernel module takes.
// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "mem/owned.hpp"
#include "time/vorn_time_local.hpp"
#include "vorn_cmd.h"
#include "vorn_fileops.h"
#include "vorn_timezone.h"

namespace vorn::time {
namespace {

constexpr char kControlFile[] = "/proc/nyx/timezone";
constexpr unsigned long kSetTransitions = 902;

constexpr char kDumpFolder[] = "/var/run/timezone";
constexpr std::size_t kPathSize = 256;
constexpr std::size_t kLineSize = 128;

constexpr std::int64_t kLastInstant = 2145916799; // the end of the year 2037

// The request to the kernel module, in host byte order.
struct Transition {
  std::int64_t instant; // seconds since 1970 UTC
  std::int32_t offset;  // seconds from UTC, from that instant on
  std::uint32_t reserved;
};
struct Table {
  std::uint32_t count;
  std::uint32_t no_transitions;
  std::int64_t offset; // if there is no transition
  Transition transitions[544];
};
static_assert(sizeof(Table) == 8720 && offsetof(Table, transitions) == 16);
constexpr std::uint32_t kMostTransitions = sizeof(Table::transitions) / sizeof(Transition);

constexpr char kMonths[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool set_date(tm *time, const char *month, int year) {
  time->tm_mon = month_name_to_index(month);
  if (time->tm_mon < 0 || year < INT_MIN + 1900) return false;
  time->tm_year = year - 1900;
  return true;
}

// A line describes the second before a transition or its first second.
bool add_second(tm *time) {
  const time_t later = timegm(time) + 1;
  return gmtime_r(&later, time) != nullptr;
}

// --- The dump ---

// Sets the path of the dump of a zone: beside the folder, since "_" replaces the "/" after it too.
bool dump_path(const char *name, char (&path)[kPathSize]) {
  const int length = snprintf_s(path, sizeof path, sizeof path - 1, "%s/%s", kDumpFolder, name);
  if (length < 0)
    return VORN_FAIL_AS("zdump_timezone", false, "Path snprintf failed, return %d.", length);
  for (char *at = path + sizeof kDumpFolder - 1; *at != '\0'; ++at) {
    if (*at == '/') *at = '_';
  }
  return true;
}

// Renames the dump when it is complete, so that no later call uses the file of a failed tool.
void run_zdump(const char *function, const char *name, const char *path) {
  char part[kPathSize + 16];
  char command[2 * kPathSize];
  snprintf_s(part, sizeof part, sizeof part - 1, "%s.%d", path, static_cast<int>(getpid()));
  const int length = snprintf_s(command, sizeof command, sizeof command - 1,
                                "zdump -v %s > %s 2>/dev/kmsg", name, part);
  if (length < 0) {
    VORN_LOG_AS(function, kError, "Cmd snprintf failed, return %d.", length);
    return;
  }
  int result = vorn_system_s(command, ">");
  if (result == 0) result = rename(part, path);
  if (result == 0) return;
  VORN_LOG_AS(function, kError, "zdump fail %d.", result);
  unlink(part);
}

// Returns false if no dump can be made. Otherwise sets its path.
bool zdump_timezone(const char *name, char (&path)[kPathSize]) {
  if (isDangerousCmd(name, nullptr) != 0)
    return VORN_FAIL(false, "Param error: timezone_name(%s) is dangerous.", name);
  if (!dump_path(name, path)) return false;
  if (access(kDumpFolder, F_OK) != 0) mkdir(kDumpFolder, 0755);
  if (access(path, F_OK) != 0) run_zdump(__func__, name, path);
  return true;
}

// --- The table ---

// Adds the entry of a line, unless the offset stays. The lines before 1970 become one entry, the
// last.
void add(Table &table, vorn_dst_line_s &line) {
  Transition *last = table.count == 0 ? nullptr : &table.transitions[table.count - 1];
  if (last != nullptr && last->offset == line.offset) return;
  const std::int64_t instant = timegm(&line.utc);
  if (last == nullptr || instant >= 1) last = &table.transitions[table.count++];
  last->instant = instant;
  last->offset = line.offset;
}

bool is_complete(const Table &table) {
  return table.count == kMostTransitions ||
         (table.count != 0 && table.transitions[table.count - 1].instant > kLastInstant);
}

// Returns false if a line cannot be parsed.
bool read_timezone_file(const char *path, Table &table) {
  const UniqueFd file = sys::open(path, O_RDONLY);
  char text[kLineSize];
  while (file && !is_complete(table) && vorn_readline(file.get(), text, sizeof text) != nullptr) {
    if (std::strstr(text, "= NULL") != nullptr) continue;
    vorn_dst_line_s line;
    if (read_dst_line(text, &line) != 0)
      return VORN_FAIL(false, "%s: read_dst_line fail, (%s).", __func__, text);
    add(table, line);
  }
  return true;
}

bool set_offset(const char *function, Table &table) {
  table.no_transitions = 1;
  const time_t now = ::time(nullptr);
  if (now < 0) return VORN_FAIL_AS(function, false, "Get time failed.\n");
  tm local{};
  if (!local_time(now, &local)) return VORN_FAIL_AS(function, false, "Gmtime is null.\n");
  table.offset = local.tm_gmtoff;
  return true;
}

bool fill(const char *function, Table &table) {
  char name[VORN_ZONENAME_SIZE];
  if (vorn_zonename_get_shell(name) != 0) return false;
  name[std::strcspn(name, "\n")] = '\0';
  char path[kPathSize];
  const bool understood = !zdump_timezone(name, path) || read_timezone_file(path, table);
  if (table.count == 0) return set_offset(function, table);
  if (understood) return true;
  return VORN_FAIL_AS(function, false, "%s: read_timezone_file fail, %d.", function, -1);
}

int send(const char *function, Table &table) {
  const UniqueFd control = sys::open(kControlFile, O_RDWR);
  if (!control)
    return VORN_FAIL_AS(function, -1, "%s: KRAM_open fail, %d\n", function, control.get());
  const int result = sys::ioctl(control.get(), kSetTransitions, &table);
  if (result >= 0) return 0;
  return VORN_FAIL_AS(function, -1, "%s: ioctl fail, %d, error:%d.", function, result, errno);
}

} // namespace
} // namespace vorn::time

using namespace vorn::time;

int sync_timezone_to_kernel() {
  const vorn::mem::Owned<Table> table = vorn::mem::create_quietly<Table>();
  if (table == nullptr) return VORN_FAIL(-1, "allocing memory failed.");
  if (!fill(__func__, *table)) return -1;
  return send(__func__, *table);
}

int read_dst_line(const char *line, vorn_dst_line_s *out) {
  if (line == nullptr || out == nullptr) return VORN_FAIL(-1, "Parameter is null.");
  *out = {};
  char word[6][64]; // zone, weekday, "UT" and weekday are ignored
  tm &utc = out->utc;
  tm &local = out->local;
  int utc_year = 0;
  int local_year = 0;
  const int fields = std::sscanf(
      line,
      "%63s  %63s %63s %d %d:%d:%d %d %63s = %63s %63s %d %d:%d:%d %d %31s isdst=%d gmtoff=%d",
      word[0], word[1], word[2], &utc.tm_mday, &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &utc_year,
      word[3], word[4], word[5], &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec,
      &local_year, out->abbreviation, &out->dst, &out->offset);
  if (fields != 19 || !set_date(&utc, word[2], utc_year) || !set_date(&local, word[5], local_year))
    return -1;
  return add_second(&local) ? 0 : -1;
}

int month_name_to_index(const char *name) {
  if (name == nullptr) return VORN_FAIL(-1, "Parameter is null.");
  for (int month = 0; month < 12; ++month) {
    if (std::strcmp(name, kMonths[month]) == 0) return month;
  }
  return -1;
}
