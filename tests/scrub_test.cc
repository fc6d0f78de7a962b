// test-runs: vorn-scrub
// Tests vorn-scrub as an operator runs it.
// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/scratch.hpp"
#include "support/shell.hpp"
#include "vorn_crc.h"

namespace {

namespace fs = std::filesystem;
using scratch::read_file;
using namespace std::chrono_literals;
using Words = std::vector<std::string>;

constexpr int kClean = 0;
constexpr int kDamage = 1;
constexpr int kCouldNotRun = 2;

// The program as a word of a shell line, and the prefix that runs it without root's right to any
// file.
const std::string kScrub = VORN_TEST_EMULATOR " '" VORN_TEST_PROGRAM "' ";
const std::string kAsAnyone =
    geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search " : "";

Outcome create(const std::string &before = {}) { return shell(before + kScrub + "create ."); }
Outcome verify(const std::string &before = {}) { return shell(before + kScrub + "verify ."); }

std::string pattern(std::size_t size) {
  std::string content(size, '\0');
  std::uint32_t state = 1;
  for (char &c : content) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return content;
}

void write_file(const std::string &path, const std::string &content) {
  scratch::write_file("./" + path, content);
}

void flip_byte(const std::string &path, std::size_t offset) {
  std::string content = read_file(path);
  content.at(offset) = static_cast<char>(content[offset] ^ 1);
  write_file(path, content);
}

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

void expect(const Outcome &outcome, int status, const Words &parts, int line = __builtin_LINE()) {
  const testing::ScopedTrace trace(__FILE__, line, outcome.text);
  EXPECT_EQ(outcome.status, status);
  for (const std::string &part : parts)
    EXPECT_TRUE(contains(outcome.text, part)) << "wanted: " << part;
}

const std::string kManifest = ".vorn-scrub";
const std::string kUnfinished = ".vorn-scrub.unfinished";

// Runs in an empty tree, which also holds the manifest.
class Scrub : public testing::Test {
protected:
  Scrub() { EXPECT_EQ(chdir(tree_.path().c_str()), 0); }
  ~Scrub() override { EXPECT_EQ(chdir("/"), 0); }

private:
  scratch::Directory tree_;
};

TEST_F(Scrub, FindsAnUntouchedTreeClean) {
  for (const std::size_t size : {0u, 1u, 511u, 512u, 513u, 4095u, 4096u, 4097u, 1048577u})
    write_file("size/" + std::to_string(size), pattern(size));
  // A walk meets the files of "a" before "a-b"; a plain comparison of bytes orders them otherwise.
  const std::pair<const char *, const char *> names[] = {
      {"a-b", "a-b"},         {"a.txt", "a.txt"},       {"a/b/c", "a/b/c"},
      {"a0", "a0"},           {"...", "..."},           {"-x", "-x"},
      {" ", "%20"},           {"%41", "%2541"},         {"new\nline", "new%0Aline"},
      {"\x01\x7f", "%01%7F"}, {"\xC3\xBC", "\xC3\xBC"}, {"\xC2\x9B", "%C2%9B"},
      {"\xFF", "%FF"},        {"\xE2\x82", "%E2%82"},   {"\xED\xA0\x80", "%ED%A0%80"},
  };
  for (const auto &[name, word] : names)
    write_file(name, "123456789");
  symlink("a", "link");
  symlink("nowhere", "a/dangling");
  mkfifo("fifo", 0600);

  const Words account{"24 read, 3 links and special files left out", "\n  machine   ",
                      "\n  busy      "};
  expect(create(), kClean, account);
  const std::string recorded = read_file(kManifest);
  for (const auto &[name, word] : names)
    EXPECT_TRUE(contains(recorded, " " + std::string(word) + "\n")) << word;
  EXPECT_TRUE(contains(recorded, " block 0 e3069283 d0db\n")) << "not the published checksums";

  expect(verify(), kClean, account);
  EXPECT_FALSE(fs::exists(kUnfinished));
}

// There are more blocks and files than the batches hold at a time.
TEST_F(Scrub, FindsDamageWhereverItIs) {
  const auto name = [](std::size_t i) { return "small/" + std::to_string(1000 + i); };
  write_file("large", pattern((12 << 20) + 1234));
  for (std::size_t i = 0; i < 400; ++i)
    write_file(name(i), pattern(i * 37));
  ASSERT_EQ(create().status, kClean);

  Words wanted;
  const auto damage = [&](const std::string &path, std::size_t offset, auto later) {
    const auto written = fs::last_write_time(path);
    flip_byte(path, offset);
    fs::last_write_time(path, written + later);
    const auto found = [](std::size_t unit, std::size_t at) {
      return std::to_string(at / unit) + " at offset " + std::to_string(at / unit * unit) + ",";
    };
    wanted.push_back("DAMAGED     " + path + ": block " + found(4096, offset));
    wanted.push_back("            sector " + found(512, offset));
  };
  for (const std::size_t block : {0u, 15u, 16u, 255u, 1007u, 1008u, 2016u, 3071u, 3072u})
    damage("large", block * 4096 + block % 1234, 0s);
  wanted.push_back("not written to since the manifest was made: silent damage");
  for (const std::size_t i : {1u, 62u, 63u, 64u, 200u, 399u}) {
    i % 2 == 0 ? damage(name(i), i * 37 - 1, 1s) : damage(name(i), i * 37 - 1, 1ns);
    wanted.push_back("            written to since the manifest was made");
  }

  const Outcome outcome = verify();
  expect(outcome, kDamage, {"401 read, 7 damaged", "15 damaged\n"});
  std::size_t at = 0;
  for (const std::string &text : wanted) {
    at = outcome.text.find(text, at);
    ASSERT_NE(at, std::string::npos) << "not there, or not in its place: " << text;
  }
  EXPECT_TRUE(contains(read_file(".vorn-scrub.log"), "damaged: large, block 15, expected"));
}

TEST_F(Scrub, TellsTheNodesOfTheMachine) {
  write_file("s.ini", "[SCRUB]\nNUMA=" VORN_SAMPLE_NUMA "\n");
  expect(shell(kScrub + "create --settings s.ini ."), kClean,
         {"\n  numa      2 nodes: CPUs 0-7, CPUs 8-15\n"});
}

TEST_F(Scrub, ReportsMissingNewAndResizedFiles) {
  for (const char *name : {"a/gone", "a/kept", "becomes-link", "becomes-directory"})
    write_file(name, "x");
  for (const char *name : {"cut", "grown"})
    write_file(name, pattern(9000));
  ASSERT_EQ(create().status, kClean);
  write_file("a/added one", "x");
  expect(verify(), kClean, {"NEW         a/added%20one\n"});

  for (const char *name : {"a/gone", "becomes-link", "becomes-directory"})
    fs::remove(name);
  symlink("a/kept", "becomes-link");
  write_file("becomes-directory/inside", "x");
  fs::resize_file("cut", 8999);
  fs::resize_file("grown", 9001);
  const Outcome outcome = verify();
  expect(outcome, kDamage,
         {"MISSING     a/gone\n", "MISSING     becomes-link\n", "MISSING     becomes-directory\n",
          "NEW         becomes-directory/inside\n",
          "SIZE        cut: expected 9000 bytes, found 8999",
          "SIZE        grown: expected 9000 bytes, found 9001", "3 missing, 2 new"});
  EXPECT_FALSE(contains(outcome.text, "block 2")) << "a block that is not whole was compared";
}

TEST_F(Scrub, SkipsWhatCannotBeRead) {
  for (const char *name : {"closed-dir/inside", "closed-file", "open"})
    write_file(name, "x");
  ASSERT_EQ(create().status, kClean);
  chmod("closed-file", 0);
  chmod("closed-dir", 0);

  expect(verify(kAsAnyone), kDamage,
         {"SKIPPED     closed-dir: Permission denied\n",
          "UNREADABLE  closed-dir/inside: Permission denied\n",
          "UNREADABLE  closed-file: Permission denied\n", "1 read, 2 unreadable"});
  expect(create(kAsAnyone), kClean, {"1 read, 2 skipped"});
  chmod("closed-dir", 0700);
}

TEST_F(Scrub, GoesDeeperThanTheFilesThatAProcessHasOpenByDefault) {
  std::string deep = "bottom";
  for (int i = 0; i < 100; ++i)
    deep.insert(0, "d/");
  write_file(deep, "x");
  expect(create("ulimit -S -n 64; "), kClean, {"1 read\n"});
}

// The manifest is the second file that a run opens.
TEST_F(Scrub, PrintsIntoNoFileOfItsOwn) {
  for (int i = 0; i < 20; ++i) {
    const std::string name(250, static_cast<char>('a' + i));
    write_file(name, "x");
    chmod(name.c_str(), 0);
  }
  write_file("z", "x");
  expect(create("exec <&- >&-; " + kAsAnyone), kCouldNotRun, {});
  expect(verify(kAsAnyone), kClean, {"1 read, 20 new"});
}

TEST_F(Scrub, RefusesAManifestThatWasCutOrEdited) {
  write_file("a", pattern(9000));
  write_file("b", pattern(10));
  ASSERT_EQ(create().status, kClean);
  const std::string whole = read_file(kManifest);

  const auto expect_refusal = [&](const std::string &text, std::size_t line) {
    write_file(kManifest, text);
    const Outcome outcome = verify();
    expect(outcome, kCouldNotRun, {"line " + std::to_string(line) + ": "});
    EXPECT_FALSE(contains(outcome.text, "MISSING")) << outcome.text;
  };
  expect_refusal(std::string(100000, 'x'), 1);
  std::size_t line = 1;
  for (std::size_t at = 0; at < whole.size(); at = whole.find('\n', at) + 1, ++line) {
    for (const std::size_t column : {0u, 7u, 8u, 10u}) {
      std::string edited = whole;
      edited[at + column] = edited[at + column] == '1' ? '2' : '1';
      expect_refusal(edited, line);
    }
    expect_refusal(whole.substr(0, at), line);
    expect_refusal(whole.substr(0, whole.find('\n', at)), line);
  }
  EXPECT_EQ(line, 9u); // title, a and its three blocks, b and its block, end
  expect_refusal(whole + "x", line);
}

// Returns a manifest of these texts, each after its code.
std::string sealed(const Words &texts) {
  std::string manifest;
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::string &text : texts) {
    const std::string line = text + "\n";
    crc = vorn_crc32cContinue(crc, line.data(), static_cast<std::uint32_t>(line.size()));
    char code[16];
    std::snprintf(code, sizeof code, "%08x ", vorn_crc32cEnd(crc));
    manifest += code + line;
  }
  return manifest;
}

// An editor of a manifest may give it the right codes.
TEST_F(Scrub, RefusesAManifestThatMakesNoSense) {
  const std::string title = "vorn-scrub-manifest 1 block 4096 crc32c sector 512 crc16-t10dif";
  const std::string file_a = "file 1 0.000000000 a";
  const std::string block = "block 0 00000000 0000";
  const std::string end = "end files 1 blocks 1 bytes 1";
  const struct {
    Words texts;
    std::size_t line; // 0: not refused
  } rows[] = {
      {{title, file_a, block, end}, 0},
      {{title, file_a, block, file_a, block, end}, 4},
      {{title, "file 1 0.000000000 b", block, file_a, block, end}, 4},
      {{title, "file 1 0.000000000 ../a", block, end}, 2},
      {{title, "file 1 0.000000000 a/./b", block, end}, 2},
  };
  for (const auto &[texts, line] : rows) {
    write_file(kManifest, sealed(texts));
    if (line == 0) {
      expect(verify(), kDamage, {});
    } else {
      expect(verify(), kCouldNotRun, {"line " + std::to_string(line) + ": "});
    }
  }
}

TEST_F(Scrub, ARunThatFailsOrIsInterruptedKeepsTheOldManifest) {
  write_file("small", "x");
  ASSERT_EQ(create().status, kClean);
  const std::string old_manifest = read_file(kManifest);
  write_file("sparse", "");
  fs::resize_file("sparse", std::uintmax_t{1} << 40);
  const auto expect_old_manifest = [&] {
    EXPECT_EQ(read_file(kManifest), old_manifest);
    EXPECT_FALSE(fs::exists(kUnfinished));
  };

  const std::string interrupt =
      "create . & while [ ! -e " + kUnfinished + " ]; do sleep 0.01; done; kill -INT $!; wait $!";
  expect(shell(kScrub + interrupt), kCouldNotRun, {"interrupted"});
  expect_old_manifest();

  expect(create("ulimit -f 2048; "), kCouldNotRun, {"File too large"});
  expect_old_manifest();
}

TEST_F(Scrub, OneRunAtATimeWritesAManifest) {
  write_file("a", "x");
  write_file(kUnfinished, std::string(1000, 'x')); // left by a killed run
  expect(create("flock " + kUnfinished + " "), kCouldNotRun, {"another run is writing"});
  EXPECT_TRUE(fs::exists(kUnfinished));
  expect(create(), kClean, {"1 read"});
  expect(verify(), kClean, {"CLEAN"});
}

TEST_F(Scrub, TakesNoFileOfItsOwnForData) {
  for (const char *name : {"m/sums.txt", "m/sums.log", "logs/sums", "logs/sums.log.old"})
    write_file(name, "of the user");
  write_file("logs/sums.log.1", "an old log");
  write_file("m/sums", "an old manifest");
  for (const std::string command : {"create", "verify", "verify"})
    expect(shell(kScrub + command + " --manifest m/sums --log logs ."), kClean, {"4 read"});
  EXPECT_TRUE(contains(read_file("logs/sums.log"), "verified: 4 files"));
}

// A run that could not run weighs most, then damage. A directory does not affect the others.
TEST_F(Scrub, ReadsEachDirectoryAgainstItsOwnManifest) {
  for (const char *name : {"one/a", "two/b", "two/c", "three/d"})
    write_file(name, "x");
  expect(shell(kScrub + "create one two three"), kClean, {"clean          two: 2 files, 2 bytes"});
  flip_byte("one/a", 0);
  expect(shell(kScrub + "verify two one three"), kDamage,
         {"clean          two: 2 files", "damage         one: 1 files", "clean          three: 1"});
  EXPECT_TRUE(fs::exists("two/.vorn-scrub.log"));
  EXPECT_FALSE(fs::exists("one/.vorn-scrub.log") && fs::exists("three/.vorn-scrub.log"));
  write_file("three/" + kManifest, "no manifest");
  expect(shell(kScrub + "verify one three two"), kCouldNotRun,
         {"damage         one", "could not run  three", "clean          two"});
}

TEST_F(Scrub, LeavesAReportOfAFault) {
  write_file("a", "x");
  const Outcome outcome = shell("ulimit -c 0; " + kScrub + "create --crash . ; echo status $?");
  expect(outcome, kClean, {"status 139"}); // 128 and SIGSEGV
  const std::string log = read_file(kManifest + ".log");
  for (const char *part : {"thrd=scrub_check0, sig = [11], SIGSEGV", "fault_on_purpose",
                           "LwpCtxSwitch:0 instId old:0xffffffffffffffff"})
    EXPECT_TRUE(contains(log, part)) << part << " in\n" << log;
}

TEST_F(Scrub, ReplacesNothingButAManifest) {
  fs::create_directory("d");
  expect(shell(kScrub + "create --manifest d ."), kCouldNotRun, {"no regular file"});
  expect(create("chmod 555 .; " + kAsAnyone), kCouldNotRun, {"--manifest"});
  chmod(".", 0755);
  EXPECT_TRUE(fs::is_directory("d"));
}

TEST_F(Scrub, RefusesWrongCommandLines) {
  const std::pair<const char *, const char *> rows[] = {
      {"", "the command is missing"},
      {"create . --colour", "no option --colour"},
      {"create . --manifest d/", "names no file"},
      {"create --manifest d . .", "cannot serve several directories"},
      {"create . --settings .", "there is no settings file"},
      {"create missing", "there is no directory"},
      {"verify .", "make one with create"},
  };
  for (const auto &[words, text] : rows)
    expect(shell(kScrub + words), kCouldNotRun, {text});
  expect(shell(kScrub + "--help"), kClean, {"Exit status:"});
  EXPECT_TRUE(fs::is_empty(".")) << "a log was left behind";
  EXPECT_FALSE(fs::exists("missing"));
  expect(create("exec >/dev/full; "), kCouldNotRun, {"cannot write to standard output"});
}

} // namespace
