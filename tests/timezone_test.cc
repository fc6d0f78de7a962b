// test-wraps: open ioctl
// Tests time zones.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_timezone.h"

#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/zone_file.hpp"
#include "time/vorn_time_local.hpp"

// The kernel module: the 8720 bytes that it got, and its answer.
static std::vector<int64_t> told;
static int module_answer = 0;
static const char *module_file = "/dev/null";

extern "C" {
int __real_open(const char *path, int flags, mode_t mode);
int __wrap_open(const char *path, int flags, mode_t mode) {
  if (std::string(path) != "/proc/nyx/timezone") return __real_open(path, flags, mode);
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  return __real_open(module_file, flags, mode);
}
int __wrap_ioctl(int, unsigned long request, ...) {
  std::va_list args;
  va_start(args, request);
  const auto *table = va_arg(args, const int64_t *);
  va_end(args);
  told.assign(table, table + 8720 / 8);
  EXPECT_EQ(request, 902u);
  errno = EPERM;
  return module_answer;
}
}

namespace {

namespace fs = std::filesystem;
using capture::outcome;

const std::string kScript = "/WRK/script/os_get_tmtz.sh";
const std::string kScriptFile = "/WRK/conf/time_zone.conf";
const std::string kZones = "/usr/share/zoneinfo/";
constexpr int64_t kEnd = 2145916799; // the last second of 2037

// A node whose tools, script and files are stand-ins. Tools log their arguments to "runs".
struct Timezone : testing::Test {
  void SetUp() override {
    const fs::path awk = fs::canonical("/usr/bin/awk");
    for (const char *covered : {"/WRK", "/etc", "/var/run"})
      if (!scratch::cover_directory(covered)) GTEST_SKIP() << scratch::kNoMounts;
    fs::create_symlink(awk, folder / "awk"); // the mount over /etc has hidden it
    setenv("PATH", (folder.path() + ":" + std::getenv("PATH")).c_str(), 1);
    tool(folder / "timedatectl", "exit 1");
    fs::create_directories("/WRK/conf");
    descriptor = scratch::next_descriptor();
  }
  ~Timezone() override { EXPECT_EQ(scratch::next_descriptor(), descriptor); }

  void tool(const std::string &path, const std::string &commands) const {
    scratch::write_program(path, "echo \"${0##*/} $*\" >>" + folder.path() + "/runs\n" + commands);
  }
  std::string runs() const {
    std::string text = scratch::read_file(folder / "runs");
    fs::remove(folder / "runs");
    return text;
  }
  static void link(const std::string &target) {
    fs::remove("/etc/localtime");
    fs::create_symlink(target, "/etc/localtime");
  }
  void name_zone(const std::string &content) const {
    tool(kScript, "printf '" + content + "' >" + kScriptFile);
  }
  void dump(const std::string &text) const {
    tool(folder / "zdump", "cat <<'END'\n" + text + "END");
  }
  scratch::Directory folder;
  int descriptor = -1;
};

TEST_F(Timezone, IsSetByToolLinkOrScript) {
  const auto set = [](const std::string &name) { return outcome(vorn_timezone_set(name.c_str())); };
  const auto missing = [](const std::string &what) { return "-2; E Cannot find " + what; };
  const std::string null = "-22; E Input timezone name pointor is NULL.";
  EXPECT_EQ(outcome(vorn_timezone_set(nullptr)), null);
  EXPECT_EQ(set("A;x"), "-22; E Param error: pscTimeZoneName(A;x) is dangerous.");
  EXPECT_EQ(runs(), "");
  EXPECT_EQ(set("Europe/Berlin"), missing("/etc/localtime file."));
  EXPECT_EQ(runs(), "timedatectl set-timezone Europe/Berlin\n");
  link(kZones + "UTC");
  const std::string longest(43, 'x'); // with the folder's, 63 characters
  for (const std::string &name : {std::string("Europe"), longest}) // a folder, and none
    EXPECT_EQ(set(name), missing(kZones + name + " timezone file."));
  EXPECT_EQ(set(longest + "x"), "-1; E Zone_info_file snprintf failed, return -1.");
  EXPECT_EQ(set(std::string(300, 'x')), "-1; E sprintf_s secure function failed, destMax<256>.");
  EXPECT_EQ(set("Europe/Berlin"), "0");
  EXPECT_EQ(fs::read_symlink("/etc/localtime"), kZones + "Europe/Berlin");
  EXPECT_EQ(timezone, -3600); // the process uses the new zone
  tool(folder / "ln", "exit 3");
  EXPECT_EQ(set("UTC"), "-1; E Set timezone failed, return value is 768.");
  fs::remove(folder / "ln");
  tool(folder / "timedatectl", "ln -s " + kZones + "Asia/Tokyo /etc/localtime");
  EXPECT_EQ(set("Asia/Tokyo"), "0; timedatectl cmd success.");
  EXPECT_EQ(timezone, -9 * 3600);

  const auto script = [&](const std::string &commands, const std::string &name) {
    tool(kScript, commands);
    return outcome(vorn_timezone_set_shell(name.c_str()));
  };
  runs();
  EXPECT_EQ(outcome(vorn_timezone_set_shell(nullptr)), null);
  EXPECT_EQ(script("ln -sf " + kZones + "UTC /etc/localtime", "a b"), "0");
  EXPECT_EQ(runs(), "os_get_tmtz.sh settimezone a b\nos_get_tmtz.sh synctimezone a b\n");
  EXPECT_EQ(timezone, 0);
  EXPECT_EQ(script("test $1 != settimezone", "A"),
            "-1; E Set timezone failed, return value is 256.");
  EXPECT_EQ(script("test $1 != synctimezone", "A"),
            "-1; E synctimezone failed, return value is 256.");
  EXPECT_EQ(script("", "a`b"), "-1; E Set timezone failed, return value is -29.");
  const std::string name(213, 'x'); // the second command is one longer
  EXPECT_EQ(script("", name), "0");
  EXPECT_EQ(script("", name + "x"), "-1; E Synctimezone cmd snprintf_s failed, return -1.");
  EXPECT_EQ(script("", name + "xx"), "-1; E Settimezone cmd snprintf_s failed, return -1.");
}

TEST_F(Timezone, NamesComeFromTheFirstSourceThatHasOne) {
  const std::string berlin = "echo '      Time zone: Europe/Berlin (CET, +0100)'";
  const std::string none = "; E Result of Timedatectl is null.";
  const std::string cut = none + "; E Zonename_get_by_soft_link sprintf_s failed, return -1.";
  const std::string item = "DEFAULT_TIMEZONE=\"";
  const std::string name63(63, 'n');
  const std::string up = std::string(216, '/') + "../usr/share/zoneinfo/"; // 18 short of 256
  const std::string clock = "TIMEZONE=\"A\"\nDEFAULT_TIMEZONE=UTC\n" + item + "UTC\nx " + item +
                            "Asia/\"\"Tokyo\" # x\n" + item + "B\"\n";
  const struct {
    std::string tool;
    std::string target; // of /etc/localtime
    std::string clock;  // "": no file
    std::string found;  // name, result, log messages
  } rows[] = {
      {berlin, kZones + "UTC", "", "Europe/Berlin 0"},
      {"", kZones + "Asia/Tokyo", "", "Asia/Tokyo 0" + none},
      {"printf 'Time zone: \\n'", kZones + "A%%B", "", "A%B 0; E Timedatectl return null."},
      {"", kZones + "A%sB", item + "X/Y\"\n", "X/Y 0" + cut},
      {"", kZones + "B%", "x", "- -1" + cut},
      {"", "../" + kZones + name63, "", name63 + " 0" + none},
      {"", kZones + name63 + "n", "", "- -1" + cut},
      {"", up + std::string(17, 'n'), "", std::string(17, 'n') + " 0" + none},
      {"", up + std::string(18, 'n'), "", "- -1" + none},
      {"", "/zones/UTC", clock, "Asia/\"\"Tokyo 0" + none + "; E filename is /zones/UTC."},
      {"", "x", item + name63 + "\"", name63 + " 0" + none + "; E filename is x."},
      {"", up + name63, item + name63 + "n\"",
       "- -1" + none + "; E Zonename_get_by_sysconfig failed,  return -1."},
  };
  for (const auto &row : rows) {
    tool(folder / "timedatectl", row.tool);
    link(row.target);
    scratch::write_file("/etc/sysconfig/clock", row.clock);
    if (row.clock.empty()) fs::remove("/etc/sysconfig/clock");
    char name[VORN_ZONENAME_SIZE] = "-";
    const std::string found = outcome(vorn_zonename_get(name));
    EXPECT_EQ(name + (" " + found), row.found) << row.target;
  }
  tool(folder / "timedatectl", berlin);
  char small[4] = "";
  EXPECT_EQ(outcome(vorn_zonename_get_by_timedatectl(small, 4)), "0");
  EXPECT_STREQ(small, "Eur");
  EXPECT_EQ(outcome(vorn_zonename_get_by_timedatectl(small, 0)), "-1; E Parameter is null.");
  EXPECT_EQ(outcome(vorn_zonename_get_by_soft_link(nullptr, 4)), "-1; E Parameter is null.");
  EXPECT_EQ(outcome(vorn_zonename_get_by_sysconfig(small, 0)), "-1; E Parameter is null.");
  EXPECT_EQ(outcome(vorn_zonename_get(nullptr)),
            "0; E strcpy_s secure function failed, ret<400>, destMax<64>.");
}

TEST_F(Timezone, NameOfTheScriptIsKeptUnchanged) {
  char name[VORN_ZONENAME_SIZE];
  const auto after = [&](const std::string &commands) {
    tool(kScript, commands + " >" + kScriptFile);
    return outcome(vorn_zonename_get_shell(name));
  };
  EXPECT_EQ(after("exit 2;"), "-1; E Get timezone failed, return value is 512.");
  EXPECT_EQ(after("exit 0;"), "-1; E Open timezone config file (" + kScriptFile + ") failed.");
  EXPECT_EQ(after(""), "-1; E Get timezone name from config file failed.");
  EXPECT_EQ(after("printf %064d 0"), "-1; E PscTimeZoneName sprintf_s failed,return -1.");
  runs();
  EXPECT_EQ(after("printf 'Asia/Tokyo\\nx'"), "0");
  EXPECT_EQ(runs(), "os_get_tmtz.sh gettimezone\n");
  EXPECT_FALSE(fs::exists(kScriptFile));
  char kept[VORN_TIME_ZONE_NAME_LENGTH + 1];
  vorn::time::copy_zone_name(kept);
  EXPECT_STREQ(name, "Asia/Tokyo\n");
  EXPECT_STREQ(kept, name);
  EXPECT_EQ(outcome(vorn_zonename_get_shell(nullptr)), "-1");
}

std::string pair(int64_t instant, int64_t offset) {
  return " " + std::to_string(instant) + ":" + std::to_string(offset);
}

// Returns the outcome and the request to the module: "flag:offset instant:offset ...".
std::string synchronised() {
  told.clear();
  std::string text = outcome(sync_timezone_to_kernel());
  if (told.empty()) return text;
  text += pair(told[0] >> 32, told[1]);
  for (std::size_t at = 1; at <= (static_cast<uint64_t>(told[0]) & UINT32_MAX); ++at) {
    text += pair(told[2 * at], static_cast<int32_t>(told[2 * at + 1]));
    EXPECT_EQ(told[2 * at + 1] >> 32, 0); // reserved
  }
  return text;
}

// A line as zdump prints it, with only the offset of the local time.
std::string at(time_t instant, int offset) {
  char utc[64];
  std::strftime(utc, sizeof utc, "Z  %a %b %e %T %Y UT = ", std::gmtime(&instant));
  return utc + ("Sun Jan  1 00:00:00 2000 AB isdst=0 gmtoff=" + std::to_string(offset)) + "\n";
}

TEST_F(Timezone, TransitionsAreThoseOfTheStoredDump) {
  const std::string null = "Z  -9223372036854775808 = NULL\n";
  const std::string bad = "Z  Sun Foo  1 00:00:00 2000 UT = bad\n";
  const std::string bad_line = "; E read_timezone_file: read_dst_line fail, (" + bad + ").";
  std::string many;
  std::string first;
  for (int i = 1; i <= 545; ++i) {
    many += at(i, i);
    if (i < 545) first += pair(i, i);
  }
  const struct {
    std::string dump;
    std::string wanted;
  } rows[] = {
      {null + at(-9, 1) + at(-8, 2) + at(0, 3) + at(1, 4) + at(2, 4) + at(3, 3) + null,
       "0 0:0 0:3 1:4 3:3"},
      {at(7, 1) + at(-5, -2), "0 0:0 -5:-2"},
      {at(kEnd, 1) + at(kEnd + 1, 2) + bad, "0 0:0 2145916799:1 2145916800:2"},
      {many + bad, "0 0:0" + first},
      {null, "0 1:32400"},
      {bad + at(5, 1), "0" + bad_line + " 1:32400"},
      {at(5, 1) + bad,
       "-1" + bad_line + "; E sync_timezone_to_kernel: read_timezone_file fail, -1."},
  };
  name_zone("A/B/Z\\n");
  link(kZones + "Asia/Tokyo");
  for (const auto &row : rows) {
    dump(row.dump);
    fs::remove("/var/run/timezone_A_B_Z");
    EXPECT_EQ(synchronised(), row.wanted);
  }
  fs::remove("/var/run/timezone_A_B_Z");
  tool(folder / "zdump", "echo partial; exit 1");
  EXPECT_EQ(synchronised(), "0; E zdump fail 256. 1:32400");
  EXPECT_EQ(std::distance(fs::directory_iterator("/var/run"), {}), 1); // the folder alone
  EXPECT_EQ(fs::status("/var/run/timezone").permissions(), fs::perms(0755));
  dump(at(7, 5));
  runs();
  EXPECT_EQ(synchronised() + synchronised(), "0 0:0 7:50 0:0 7:5");
  EXPECT_EQ(runs(), "os_get_tmtz.sh gettimezone\nzdump -v A/B/Z\nos_get_tmtz.sh gettimezone\n");

  module_answer = -1;
  EXPECT_EQ(synchronised(), "-1; E sync_timezone_to_kernel: ioctl fail, -1, error:1. 0:0 7:5");
  module_file = "/nowhere";
  EXPECT_EQ(synchronised(), "-1; E sync_timezone_to_kernel: KRAM_open fail, -1\n");
  module_file = "/dev/null";
  module_answer = 1; // no failure
  name_zone("A&B");
  EXPECT_EQ(synchronised(), "0; E Param error: timezone_name(A&B) is dangerous. 1:32400");
  tool(kScript, "exit 1");
  EXPECT_EQ(synchronised(), "-1; E Get timezone failed, return value is 256.");
}

// The first transition after kEnd; they are at quarters of an hour.
std::string first_by_rule(const std::string &rule, long offset) {
  if (rule.empty()) return "";
  tm local{};
  setenv("TZ", rule.c_str(), 1);
  tzset();
  time_t time = kEnd + 1;
  while (time < kEnd + 366 * 86400 && localtime_r(&time, &local)->tm_gmtoff == offset)
    time += 900;
  unsetenv("TZ");
  return local.tm_gmtoff == offset ? "" : pair(time, local.tm_gmtoff);
}

// zdump takes half a second per zone: tests one of this many, unless the environment names others.
constexpr std::size_t kSample = 60;

TEST_F(Timezone, TransitionsOfZonesEqualTheirCompiledFiles) {
  const char *asked = std::getenv("VORN_TEST_ZONES"); // the beginning of their names
  int compared = 0;
  link(kZones + "Asia/Tokyo");
  for (const auto &entry : fs::recursive_directory_iterator(kZones)) {
    const std::string name = entry.path().string().substr(kZones.size());
    const std::string file = entry.is_regular_file() ? scratch::read_file(entry.path()) : "";
    const bool one_of_many = std::hash<std::string>()(name) % kSample == 0;
    if (!file.starts_with("TZif") || !(asked ? name.starts_with(asked) : one_of_many)) continue;
    std::string rule;
    zone_file::Transitions table;
    for (const auto &one : zone_file::read(file, &rule)) {
      if (!table.empty() && (table.back().first > kEnd || table.back().second == one.second))
        continue;
      if (!table.empty() && one.first < 1) table.pop_back();
      table.push_back(one);
    }
    std::string text = table.empty() ? "0 1:32400" : "0 0:0";
    for (const auto &[instant, offset] : table)
      text += pair(instant, offset);
    if (!table.empty() && table.back().first <= kEnd)
      text += first_by_rule(rule, table.back().second);
    name_zone(name);
    EXPECT_EQ(synchronised(), text) << name;
    ++compared;
  }
  EXPECT_GT(compared, 0);
}

TEST(DstLine, IsReadWholeOrRefused) {
  const std::string good = "Z  Sun Mar 31 00:59:59 2024 UT = Sun Mar 31 23:59:59 2024 CET isdst=1 "
                           "gmtoff=-3600";
  vorn_dst_line_s line;
  const auto read = [&](const std::string &from, const std::string &to) {
    std::string text = good;
    return outcome(read_dst_line(text.replace(text.rfind(from), from.size(), to).c_str(), &line));
  };
  const std::string name31(31, 'a');
  for (const std::string &bad :
       {read("CET", name31 + "a"), read("gmtoff=-3600", ""), read("Mar", "mar"),
        read("Mar", "March"), read("=", ""), read("2024 CET", "-2147483648 CET"), read(good, "")})
    EXPECT_EQ(bad, "-1");
  ASSERT_EQ(read("CET", name31), "0");
  EXPECT_EQ(timegm(&line.utc), 1711846799);
  EXPECT_EQ(timegm(&line.local), 1711929600);
  EXPECT_EQ(line.local.tm_mon * 100 + line.local.tm_mday, 301); // a second later: the next month
  EXPECT_EQ(line.abbreviation + pair(line.dst, line.offset), name31 + " 1:-3600");
  EXPECT_EQ(outcome(read_dst_line(nullptr, &line)), "-1; E Parameter is null.");
  EXPECT_EQ(outcome(month_name_to_index(nullptr)), "-1; E Parameter is null.");
  const std::string months = "JanFebMarAprMayJunJulAugSepOctNovDec";
  for (std::size_t month = 0; month < 12; ++month)
    EXPECT_EQ(month_name_to_index(months.substr(3 * month, 3).c_str()), static_cast<int>(month));
}

} // namespace
