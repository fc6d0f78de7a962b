// test-wraps: open ioctl
#include "vorn_timezone.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/zone_file.hpp"
#include "time/vorn_time_local.hpp"

// The kernel module: what it was told, and what it answers.
struct Told {
  uint32_t count;
  uint32_t no_transitions;
  int64_t offset;
  struct {
    int64_t instant;
    int32_t offset;
    uint32_t reserved;
  } transitions[544];
};
static_assert(sizeof(Told) == 8720);
static std::optional<Told> told;
static int answer = 0;
static bool has_module = true;

extern "C" {
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  std::va_list args;
  va_start(args, flags);
  const mode_t mode = va_arg(args, mode_t);
  va_end(args);
  if (std::string(path) != "/proc/nyx/timezone") return __real_open(path, flags, mode);
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  return has_module ? __real_open("/dev/null", flags) : -1;
}
int __wrap_ioctl(int, unsigned long request, ...) {
  std::va_list args;
  va_start(args, request);
  told = *va_arg(args, const Told *);
  va_end(args);
  EXPECT_EQ(request, 902u);
  errno = EPERM;
  return answer;
}
}

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Transitions = std::vector<zone_file::Transition>;

const std::string kScript = "/WRK/script/os_get_tmtz.sh";
const std::string kFolder = "/var/run/timezone";

// A node whose tools, script and files are stand-ins. Tools log their arguments to "runs".
struct Timezone : testing::Test {
  void SetUp() override {
    const fs::path awk = fs::canonical("/usr/bin/awk");
    for (const char *covered : {"/WRK", "/etc", "/var/run"})
      if (!scratch::cover_directory(covered)) GTEST_SKIP() << scratch::kNoMounts;
    fs::create_symlink(awk, folder / "awk"); // it went by /etc
    const std::string path = folder.path() + ":" + std::getenv("PATH");
    setenv("PATH", path.c_str(), 1);
    tool(folder / "timedatectl", "exit 1");
    descriptor = scratch::next_descriptor();
  }
  ~Timezone() override { EXPECT_EQ(scratch::next_descriptor(), descriptor); }

  void tool(const std::string &path, const std::string &body) const {
    scratch::write_file(path, "#!/bin/sh\necho \"${0##*/} $*\" >>" + folder.path() + "/runs\n" +
                                  body + "\n");
    chmod(path.c_str(), 0755);
  }
  std::string runs() const {
    std::string text = scratch::read_file(folder / "runs");
    fs::remove(folder / "runs");
    return text;
  }
  void name_zone(const std::string &content) const {
    tool(kScript, "printf '" + content + "' >/WRK/conf/time_zone.conf");
    fs::create_directories("/WRK/conf");
  }
  void dump(const std::string &text) const {
    scratch::write_file(folder / "dump", text);
    tool(folder / "zdump", "cat " + folder.path() + "/dump");
  }
  static Transitions transitions() {
    Transitions all;
    for (uint32_t i = 0; told && i < told->count; ++i)
      all.emplace_back(told->transitions[i].instant, told->transitions[i].offset);
    return all;
  }
  scratch::Directory folder;
  int descriptor = -1;
};

TEST_F(Timezone, IsSetByTheToolOrElseByTheLink) {
  EXPECT_EQ(vorn_timezone_set(nullptr), -22);
  EXPECT_EQ(vorn_timezone_set("Europe/Berlin;x"), -22);
  EXPECT_EQ(runs(), "");
  EXPECT_EQ(vorn_timezone_set("Europe/Berlin"), -2);
  EXPECT_EQ(runs(), "timedatectl set-timezone Europe/Berlin\n");
  fs::create_symlink("/usr/share/zoneinfo/UTC", "/etc/localtime");
  EXPECT_EQ(vorn_timezone_set("Europe/Nowhere"), -2);
  EXPECT_EQ(vorn_timezone_set("Europe"), -2); // a folder
  const std::string longest(43, 'x');         // with the folder's, 63 characters
  EXPECT_EQ(vorn_timezone_set(longest.c_str()), -2);
  EXPECT_EQ(vorn_timezone_set((longest + "x").c_str()), -1);
  EXPECT_EQ(vorn_timezone_set(std::string(300, 'x').c_str()), -1);
  EXPECT_EQ(vorn_timezone_set("Europe/Berlin"), 0);
  EXPECT_EQ(fs::read_symlink("/etc/localtime"), "/usr/share/zoneinfo/Europe/Berlin");
  tool(folder / "ln", "exit 3");
  EXPECT_EQ(vorn_timezone_set("Europe/Paris"), -1);
  EXPECT_EQ(capture::take_lines(),
            (Lines{"E Input timezone name pointor is NULL.",
                   "E Param error: pscTimeZoneName(Europe/Berlin;x) is dangerous.",
                   "E Cannot find /etc/localtime file.",
                   "E Cannot find /usr/share/zoneinfo/Europe/Nowhere timezone file.",
                   "E Cannot find /usr/share/zoneinfo/Europe timezone file.",
                   "E Cannot find /usr/share/zoneinfo/" + longest + " timezone file.",
                   "E Zone_info_file snprintf failed, return -1.",
                   "E sprintf_s secure function failed, destMax<256>.",
                   "E Set timezone failed, return value is 768."}));
  tool(folder / "timedatectl", "ln -s /usr/share/zoneinfo/Asia/Tokyo /etc/localtime");
  fs::remove(folder / "ln");
  EXPECT_EQ(vorn_timezone_set("Asia/Tokyo"), 0);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_timezone.c", "vorn_timezone_set", "timedatectl cmd success.");
  EXPECT_EQ(timezone, -9 * 3600); // the process has it
}

TEST_F(Timezone, IsSetByTheScriptWhichThenSpreadsIt) {
  EXPECT_EQ(vorn_timezone_set_shell(nullptr), -22);
  tool(kScript, "exit 0");
  EXPECT_EQ(vorn_timezone_set_shell("Asia/Tokyo"), 0);
  EXPECT_EQ(runs(),
            "os_get_tmtz.sh settimezone Asia/Tokyo\nos_get_tmtz.sh synctimezone Asia/Tokyo\n");
  for (const std::string command : {"settimezone", "synctimezone"}) {
    tool(kScript, "test $1 != " + command);
    EXPECT_EQ(vorn_timezone_set_shell("Asia/Tokyo"), -1);
  }
  EXPECT_EQ(vorn_timezone_set_shell("a`b"), -1);
  tool(kScript, "exit 0"); // of the two commands the second is one longer
  for (const std::size_t length : {213, 214, 215})
    EXPECT_EQ(vorn_timezone_set_shell(std::string(length, 'x').c_str()), length == 213 ? 0 : -1);
  EXPECT_EQ(capture::take_lines(), (Lines{"E Input timezone name pointor is NULL.",
                                          "E Set timezone failed, return value is 256.",
                                          "E synctimezone failed, return value is 256.",
                                          "E Set timezone failed, return value is -29.",
                                          "E Synctimezone cmd snprintf_s failed, return -1.",
                                          "E Settimezone cmd snprintf_s failed, return -1."}));
}

TEST_F(Timezone, NamesComeFromTheFirstSourceThatHasOne) {
  const std::string line = "\"               Time zone: Europe/Berlin (CET, +0100)\"";
  const std::string link = "/usr/share/zoneinfo/";
  const std::string none = "E Result of Timedatectl is null.";
  const std::string cut = "E Zonename_get_by_soft_link sprintf_s failed, return -1.";
  const std::string name63(63, 'n');
  const struct {
    std::string tool;
    std::string target; // of /etc/localtime
    std::string clock;
    std::string name; // "-": none
    Lines lines;
  } rows[] = {
      {"echo " + line, link + "UTC", "", "Europe/Berlin", {}},
      {"exit 0", link + "Asia/Tokyo", "", "Asia/Tokyo", {none}},
      {"printf 'Time zone: \\n'", link + "A%%B", "", "A%B", {"E Timedatectl return null."}},
      {"exit 0", link + "A%sB", "DEFAULT_TIMEZONE=\"X/Y\"\n", "X/Y", {none, cut}},
      {"exit 0", link + "B%", "", "-", {none, cut}},
      {"exit 0", "../" + link + name63, "", name63, {none}},
      {"exit 0", link + name63 + "n", "", "-", {none, cut}},
      {"exit 0",
       "/zones/UTC",
       "TIMEZONE=\"A\"\nDEFAULT_TIMEZONE=UTC\nDEFAULT_TIMEZONE=\"UTC\n"
       "x DEFAULT_TIMEZONE=\"Asia/\"\"Tokyo\" # x\nDEFAULT_TIMEZONE=\"B\"\n",
       "Asia/\"\"Tokyo",
       {none, "E filename is /zones/UTC."}},
      {"exit 0", "", "DEFAULT_TIMEZONE=\"" + name63 + "\"", name63, {none}},
      {"exit 0",
       "",
       "DEFAULT_TIMEZONE=\"" + name63 + "n\"",
       "-",
       {none, "E Zonename_get_by_sysconfig failed,  return -1."}},
      {"exit 0", std::string(300, 'x'), "-", "-", {none}},
  };
  for (const auto &row : rows) {
    tool(folder / "timedatectl", row.tool);
    fs::remove("/etc/localtime");
    if (!row.target.empty()) fs::create_symlink(row.target, "/etc/localtime");
    scratch::write_file("/etc/sysconfig/clock", row.clock);
    if (row.clock == "-") fs::remove("/etc/sysconfig/clock");
    char name[VORN_ZONENAME_SIZE] = "-";
    EXPECT_EQ(vorn_zonename_get(name), row.name == "-" ? -1 : 0);
    EXPECT_EQ(name, row.name);
    EXPECT_EQ(capture::take_lines(), row.lines);
  }
  tool(folder / "timedatectl", "echo " + line);
  char small[4] = "";
  EXPECT_EQ(vorn_zonename_get_by_timedatectl(small, 4), 0);
  EXPECT_STREQ(small, "Eur");
  EXPECT_EQ(vorn_zonename_get_by_timedatectl(small, 0), -1);
  EXPECT_EQ(vorn_zonename_get_by_soft_link(nullptr, 4), -1);
  EXPECT_EQ(vorn_zonename_get_by_sysconfig(small, 0), -1);
  EXPECT_EQ(vorn_zonename_get(nullptr), 0);
  EXPECT_EQ(capture::take_lines(),
            (Lines{"E Parameter is null.", "E Parameter is null.", "E Parameter is null.",
                   "E strcpy_s secure function failed, ret<400>, destMax<64>."}));
}

TEST_F(Timezone, TheScriptsNameIsTakenAsItStands) {
  const std::string file = "/WRK/conf/time_zone.conf";
  char name[VORN_ZONENAME_SIZE] = "";
  EXPECT_EQ(vorn_zonename_get_shell(nullptr), -1);
  tool(kScript, "exit 2");
  EXPECT_EQ(vorn_zonename_get_shell(name), -1);
  tool(kScript, "exit 0");
  EXPECT_EQ(vorn_zonename_get_shell(name), -1);
  name_zone("");
  EXPECT_EQ(vorn_zonename_get_shell(name), -1);
  name_zone(std::string(64, 'n'));
  EXPECT_EQ(vorn_zonename_get_shell(name), -1);
  EXPECT_EQ(capture::take_lines(), (Lines{"E Get timezone failed, return value is 512.",
                                          "E Open timezone config file (" + file + ") failed.",
                                          "E Get timezone name from config file failed.",
                                          "E PscTimeZoneName sprintf_s failed,return -1."}));
  runs();
  name_zone("Asia/Tokyo\\nx");
  EXPECT_EQ(vorn_zonename_get_shell(name), 0);
  EXPECT_STREQ(name, "Asia/Tokyo\n");
  EXPECT_EQ(runs(), "os_get_tmtz.sh gettimezone\n");
  EXPECT_FALSE(fs::exists(file));
  char kept[VORN_TIME_ZONE_NAME_LENGTH + 1];
  vorn::time::copy_zone_name(kept);
  EXPECT_STREQ(kept, "Asia/Tokyo\n");
}

std::string at(const std::string &utc, int offset) {
  return "Z  Sun " + utc +
         " UT = Sun Jan  1 00:00:00 2000 AB isdst=0 gmtoff=" + std::to_string(offset) + "\n";
}

TEST_F(Timezone, TransitionsAreThoseOfTheDump) {
  name_zone("A/Z\\n");
  const std::string null = "Z  -9223372036854775808 = NULL\n";
  const std::string bad = "Z  Sun Foo  1 00:00:00 2000 UT = Sun Jan  1 00:00:00 2000 AB isdst=0 "
                          "gmtoff=0\n";
  const std::string bad_line = "E read_timezone_file: read_dst_line fail, (" + bad + ").";
  std::string many;
  Transitions first;
  for (int i = 0; i < 600; ++i) {
    char day[32];
    std::snprintf(day, sizeof day, "Jan  2 00:%02d:%02d 1970", i / 60, i % 60);
    many += at(day, i);
    if (i < 544) first.emplace_back(86400 + i, i);
  }
  const struct {
    std::string dump;
    Transitions wanted;
    int result = 0;
    Lines lines = {};
  } rows[] = {
      {null + at("Jan  1 00:00:00 1950", 1) + at("Jan  1 00:00:01 1950", 2) +
           at("Jan  1 00:00:00 1970", 3) + at("Jan  1 00:00:01 1970", 4) +
           at("Jan  1 00:00:02 1970", 4) + at("Jan  1 00:00:03 1970", 3) + null,
       {{0, 3}, {1, 4}, {3, 3}}},
      {at("Jan  1 00:00:07 1970", 1) + at("Jan  1 00:00:00 1960", 2), {{-315619200, 2}}},
      {at("Dec 31 23:59:59 2037", 1) + at("Jan  1 00:00:00 2038", 2) +
           at("Jan  2 00:00:00 2038", 3),
       {{2145916799, 1}, {2145916800, 2}}},
      {at("Jan  2 00:00:00 2038", 1) + bad, {{2145996800 + 6400, 1}}},
      {many, first},
      {null, {}},
      {bad + at("Jan  2 00:00:00 2037", 1), {}, 0, {bad_line}},
      {at("Jan  2 00:00:00 2037", 1) + bad,
       {},
       -1,
       {bad_line, "E sync_timezone_to_kernel: read_timezone_file fail, -1."}},
  };
  fs::create_symlink("/usr/share/zoneinfo/Asia/Tokyo", "/etc/localtime");
  for (const auto &row : rows) {
    dump(row.dump);
    fs::remove(kFolder + "_A_Z");
    told.reset();
    EXPECT_EQ(sync_timezone_to_kernel(), row.result);
    EXPECT_EQ(transitions(), row.wanted) << row.dump;
    ASSERT_EQ(told.has_value(), row.result == 0);
    EXPECT_EQ(told ? told->no_transitions : 0, row.wanted.empty() && row.result == 0 ? 1u : 0u);
    EXPECT_EQ(told ? told->offset : 0, row.wanted.empty() && row.result == 0 ? 9 * 3600 : 0);
    EXPECT_EQ(capture::take_lines(), row.lines);
  }
}

TEST_F(Timezone, TheDumpIsKeptAndAFailedOneIsNot) {
  const std::string kept = kFolder + "_A_B_Z";
  name_zone("A/B/Z\\n");
  dump("");
  tool(folder / "zdump", "echo partial; exit 1");
  EXPECT_EQ(sync_timezone_to_kernel(), 0);
  EXPECT_EQ(told->no_transitions, 1u);
  EXPECT_FALSE(fs::exists(kept));
  EXPECT_EQ(std::distance(fs::directory_iterator("/var/run"), {}), 1); // the folder alone
  struct stat made;
  ASSERT_EQ(stat(kFolder.c_str(), &made), 0);
  EXPECT_EQ(made.st_mode & 0777, 0755u);
  dump(at("Jan  2 00:00:00 2000", 5));
  runs();
  EXPECT_EQ(sync_timezone_to_kernel(), 0);
  EXPECT_EQ(sync_timezone_to_kernel(), 0);
  EXPECT_EQ(runs(), "os_get_tmtz.sh gettimezone\nzdump -v A/B/Z\nos_get_tmtz.sh gettimezone\n");
  EXPECT_EQ(transitions(), (Transitions{{946771200, 5}}));
  EXPECT_EQ(scratch::read_file(kept), at("Jan  2 00:00:00 2000", 5));

  answer = -1;
  EXPECT_EQ(sync_timezone_to_kernel(), -1);
  has_module = false;
  EXPECT_EQ(sync_timezone_to_kernel(), -1);
  has_module = true;
  answer = 0;
  name_zone("A&B");
  EXPECT_EQ(sync_timezone_to_kernel(), 0);
  EXPECT_EQ(told->no_transitions, 1u);
  tool(kScript, "exit 1");
  EXPECT_EQ(sync_timezone_to_kernel(), -1);
  EXPECT_EQ(capture::take_lines(),
            (Lines{"E zdump fail 256.", "E sync_timezone_to_kernel: ioctl fail, -1, error:1.",
                   "E sync_timezone_to_kernel: KRAM_open fail, -1\n",
                   "E Param error: timezone_name(A&B) is dangerous.",
                   "E Get timezone failed, return value is 256."}));
}

// The table as the compiled file has it.
Transitions table_of(const zone_file::Zone &zone) {
  constexpr int64_t kEnd = 2145916799;
  Transitions table;
  if (zone.first_change == 0) return table;
  table.emplace_back(zone.first_change - 1, zone.first_offset);
  for (const auto &[instant, offset] : zone.transitions) {
    if (table.back().first > kEnd) break;
    if (offset == table.back().second) continue;
    if (instant < 1) table.pop_back();
    table.emplace_back(instant, offset);
  }
  return table;
}

// zdump takes half a second for each: a sample, unless the environment asks for more.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VORN_TEST_EMULATED)
constexpr std::size_t kEach = 64;
#else
constexpr std::size_t kEach = 16;
#endif
constexpr std::size_t kShares = 4;

class Zones : public Timezone, public testing::WithParamInterface<std::size_t> {};

TEST_P(Zones, AreAsTheirCompiledFilesSay) {
  const std::string root = "/usr/share/zoneinfo/";
  std::set<std::string> names;
  for (const auto &entry : fs::recursive_directory_iterator(root))
    if (entry.is_regular_file() && scratch::read_file(entry.path()).starts_with("TZif"))
      names.insert(entry.path().string().substr(root.size()));
  const char *asked = std::getenv("VORN_TEST_ZONES"); // the beginning of their names
  const std::size_t each = asked != nullptr ? 1 : kEach;
  std::size_t index = 0;
  std::size_t compared = 0;
  for (const std::string &name : names) {
    if (asked != nullptr && !name.starts_with(asked)) continue;
    if (index++ % (kShares * each) != GetParam() * each) continue;
    name_zone(name);
    told.reset();
    ASSERT_EQ(sync_timezone_to_kernel(), 0) << name;
    const Transitions wanted = table_of(zone_file::read(scratch::read_file(root + name), 2038));
    EXPECT_EQ(transitions(), wanted) << name;
    EXPECT_EQ(told->no_transitions, wanted.empty() ? 1u : 0u) << name;
    ++compared;
  }
  EXPECT_GT(compared + (asked != nullptr), 0u);
  EXPECT_NO_RECORD();
}

INSTANTIATE_TEST_SUITE_P(All, Zones, testing::Range(std::size_t{0}, kShares));

TEST(DstLine, IsReadWholeOrRefused) {
  const std::string good = "Europe/Berlin  Sun Mar 31 00:59:59 2024 UT = Sun Mar 31 23:59:59 2024 "
                           "CET isdst=1 gmtoff=-3600";
  vorn_dst_line_s line;
  ASSERT_EQ(read_dst_line(good.c_str(), &line), 0);
  EXPECT_EQ(timegm(&line.utc), 1711846799);
  EXPECT_EQ(timegm(&line.local), 1711929600); // a second later: the next month
  EXPECT_EQ(line.local.tm_mon, 3);
  EXPECT_EQ(line.local.tm_mday, 1);
  EXPECT_EQ(line.local.tm_wday, 1);
  EXPECT_STREQ(line.abbreviation, "CET");
  EXPECT_EQ(line.dst, 1);
  EXPECT_EQ(line.offset, -3600);
  const auto with = [&](const std::string &from, const std::string &to) {
    std::string text = good;
    return text.replace(text.rfind(from), from.size(), to);
  };
  EXPECT_EQ(read_dst_line(with("CET", std::string(31, 'a')).c_str(), &line), 0);
  for (const auto &bad :
       {with("CET", std::string(32, 'a')), with("gmtoff=-3600", ""), with("Mar", "mar"),
        with("Mar", "March"), with("=", ""), with("2024 CET", "-2147483648 CET"), std::string()})
    EXPECT_EQ(read_dst_line(bad.c_str(), &line), -1) << bad;
  EXPECT_NO_RECORD();
  EXPECT_EQ(read_dst_line(nullptr, &line), -1);
  EXPECT_EQ(month_name_to_index(nullptr), -1);
  EXPECT_EQ(capture::take_lines(), (Lines{"E Parameter is null.", "E Parameter is null."}));
  int index = 0;
  for (const char *name :
       {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"})
    EXPECT_EQ(month_name_to_index(name), index++);
  EXPECT_EQ(month_name_to_index("Ja"), -1);
}

} // namespace
