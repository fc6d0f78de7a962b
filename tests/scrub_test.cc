// test-runs: vorn-scrub
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <linux/capability.h>

#include "support/scratch.hpp"
#include "vorn_crc.h"

namespace {

namespace fs = std::filesystem;
using scratch::read_file;
using scratch::write_file;
using Words = std::vector<std::string>;

constexpr int kClean = 0;
constexpr int kDamage = 1;
constexpr int kCouldNotRun = 2;

struct Outcome {
  int status;
  std::string text; // standard output and standard error
};

[[noreturn]] void become_scrub(const Words &arguments) {
  Words words = arguments;
  words.insert(words.begin(), VORN_TEST_PROGRAM);
  if (*VORN_TEST_EMULATOR != '\0') words.insert(words.begin(), VORN_TEST_EMULATOR);
  std::vector<char *> pointers;
  for (std::string &word : words)
    pointers.push_back(word.data());
  pointers.push_back(nullptr);
  execvp(pointers[0], pointers.data());
  _exit(127);
}

// The program, under way, with the reading end of what it writes.
struct Process {
  pid_t id;
  int output;
};

// Starts the program; first calls prepare in its process.
template <class Prepare> Process start(const Words &arguments, Prepare prepare) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    prepare();
    become_scrub(arguments);
  }
  close(ends[1]);
  return {child, ends[0]};
}

Outcome finish(const Process &process) {
  Outcome outcome{-1, {}};
  char buffer[4096];
  for (ssize_t got; (got = read(process.output, buffer, sizeof buffer)) > 0;)
    outcome.text.append(buffer, static_cast<std::size_t>(got));
  close(process.output);
  int status = 0;
  waitpid(process.id, &status, 0);
  if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  return outcome;
}

template <class Prepare> Outcome scrub(const Words &arguments, Prepare prepare) {
  return finish(start(arguments, prepare));
}

Outcome scrub(const Words &arguments) {
  return scrub(arguments, [] {});
}

std::string pattern(std::size_t size) {
  std::string content(size, '\0');
  std::uint32_t state = 1;
  for (char &c : content) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return content;
}

void flip_byte(const std::string &path, std::size_t offset) {
  std::string content = read_file(path);
  content.at(offset) = static_cast<char>(content[offset] ^ 1);
  write_file(path, content);
}

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

#define EXPECT_OUTCOME(outcome, wanted_status, wanted_text)                                        \
  do {                                                                                             \
    const Outcome &got = (outcome);                                                                \
    EXPECT_EQ(got.status, wanted_status) << got.text;                                              \
    EXPECT_TRUE(contains(got.text, wanted_text)) << "wanted: " << (wanted_text) << "\n"            \
                                                 << got.text;                                      \
  } while (false)

// A tree and, inside it as by default, its manifest.
class Scrub : public testing::Test {
protected:
  Scrub() { fs::create_directory(root()); }

  std::string root() const { return scratch_ / "tree"; }
  std::string file(const std::string &name) const { return root() + "/" + name; }
  std::string manifest() const { return file(".vorn-scrub"); }
  std::string unfinished() const { return file(".vorn-scrub.unfinished"); }

  Outcome create() const { return scrub({"create", root()}); }
  Outcome verify() const { return scrub({"verify", root()}); }

  scratch::Directory scratch_;
};

TEST_F(Scrub, FindsAnUntouchedTreeClean) {
  for (const std::size_t size : {0u, 1u, 511u, 512u, 513u, 4095u, 4096u, 4097u, 1048577u})
    write_file(file("size/" + std::to_string(size)), pattern(size));
  // In a walk the files of "a" come before "a-b", which comes before "a" where '/' is a mere byte.
  write_file(file("odd name"), "123456789");
  for (const char *name : {"a/b/c", "a-b", "a.txt", "a0", "new\nline", "%41", "\x01\x7f",
                           "\xC3\xBC", "\xFF", "-x", " ", "..."})
    write_file(file(name), name);
  symlink("a", file("link").c_str());
  symlink("nowhere", file("a/dangling").c_str());
  mkfifo(file("fifo").c_str(), 0600);

  EXPECT_OUTCOME(create(), kClean, "22 read, 3 links and special files left out");
  // The published checksums.
  EXPECT_TRUE(contains(read_file(manifest()), " odd%20name\n"));
  EXPECT_TRUE(contains(read_file(manifest()), " block 0 e3069283 d0db\n"));

  EXPECT_OUTCOME(verify(), kClean, "22 read, 3 links");
  EXPECT_FALSE(fs::exists(unfinished()));
}

// The only line of a damaged file tells where, and whether the file was written to since.
TEST_F(Scrub, NamesTheBlockAndTheSectorOfADamagedByte) {
  const struct {
    std::size_t size, offset;
    const char *block, *sector;
  } rows[] = {
      {1, 0, "DAMAGED     f: block 0 at offset 0,", "sector 0 at offset 0,"},
      {513, 512, "DAMAGED     f: block 0 at offset 0,", "sector 1 at offset 512,"},
      {4097, 4096, "DAMAGED     f: block 1 at offset 4096,", "sector 8 at offset 4096,"},
  };
  for (const auto &row : rows) {
    write_file(file("f"), pattern(row.size));
    const auto written = fs::last_write_time(file("f"));
    ASSERT_EQ(create().status, kClean);
    flip_byte(file("f"), row.offset);
    fs::last_write_time(file("f"), written);
    const Outcome outcome = verify();
    for (const char *part : {row.block, row.sector, "silent damage", "1 read, 1 damaged"})
      EXPECT_OUTCOME(outcome, kDamage, part);
    fs::last_write_time(file("f"), written + std::chrono::hours(1));
    EXPECT_OUTCOME(verify(), kDamage, "written to since");
  }
  EXPECT_TRUE(contains(read_file(file(".vorn-scrub.log")), "damaged: f, block 1, expected"));
}

// More blocks, and more files, than are under way at a time.
TEST_F(Scrub, FindsDamageWhereverItIs) {
  constexpr std::size_t kLarge = (12 << 20) + 1234;
  const auto name = [](std::size_t i) { return "small/" + std::to_string(1000 + i); };
  std::string content = pattern(kLarge);
  write_file(file("large"), content);
  for (std::size_t i = 0; i < 400; ++i)
    write_file(file(name(i)), pattern(i * 37));
  ASSERT_EQ(create().status, kClean);

  Words wanted;
  for (const std::size_t block : {0u, 15u, 16u, 255u, 1007u, 1008u, 2016u, 3071u, 3072u}) {
    content[block * 4096 + block % 1234] ^= 1;
    wanted.push_back("large: block " + std::to_string(block) + " at");
  }
  write_file(file("large"), content);
  for (const std::size_t i : {1u, 62u, 63u, 64u, 200u, 399u}) {
    flip_byte(file(name(i)), i * 37 - 1);
    wanted.push_back(name(i) + ": block " + std::to_string((i * 37 - 1) / 4096) + " at");
  }

  const Outcome outcome = verify();
  EXPECT_OUTCOME(outcome, kDamage, "401 read, 7 damaged");
  std::size_t at = 0;
  for (const std::string &line : wanted) {
    at = outcome.text.find("DAMAGED     ", at);
    ASSERT_EQ(outcome.text.substr(at + 12, line.size()), line);
    at += line.size();
  }
  EXPECT_EQ(outcome.text.find("DAMAGED", at), std::string::npos);
}

TEST_F(Scrub, ReportsMissingNewAndResizedFiles) {
  for (const char *name : {"a/gone", "a/kept", "becomes-link", "becomes-directory"})
    write_file(file(name), "x");
  for (const char *name : {"cut", "grown"})
    write_file(file(name), pattern(9000));
  ASSERT_EQ(create().status, kClean);
  write_file(file("a/added one"), "x");
  EXPECT_OUTCOME(verify(), kClean, "NEW         a/added%20one\n");

  for (const char *name : {"a/gone", "becomes-link", "becomes-directory"})
    fs::remove(file(name));
  symlink("a/kept", file("becomes-link").c_str());
  write_file(file("becomes-directory/inside"), "x");
  fs::resize_file(file("cut"), 8999);
  fs::resize_file(file("grown"), 9001);
  const Outcome outcome = verify();
  for (const char *line :
       {"MISSING     a/gone\n", "MISSING     becomes-link\n", "MISSING     becomes-directory\n",
        "NEW         becomes-directory/inside\n",
        "SIZE        cut: expected 9000 bytes, found 8999",
        "SIZE        grown: expected 9000 bytes, found 9001", "3 missing, 2 new"})
    EXPECT_OUTCOME(outcome, kDamage, line);
  EXPECT_FALSE(contains(outcome.text, "block 2")) << "a block that is not whole was compared";
}

// Root may read everything: what it takes is given up for good in the program's process.
void give_up_reading() {
  prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
  prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
}

TEST_F(Scrub, SkipsWhatCannotBeRead) {
  for (const char *name : {"closed-dir/inside", "closed-file", "open"})
    write_file(file(name), "x");
  ASSERT_EQ(create().status, kClean);
  chmod(file("closed-file").c_str(), 0);
  chmod(file("closed-dir").c_str(), 0);

  const Outcome verified = scrub({"verify", root()}, give_up_reading);
  for (const char *line : {"SKIPPED     closed-dir: Permission denied\n",
                           "UNREADABLE  closed-dir/inside: Permission denied\n",
                           "UNREADABLE  closed-file: Permission denied\n", "1 read, 2 unreadable"})
    EXPECT_OUTCOME(verified, kDamage, line);
  EXPECT_OUTCOME(scrub({"create", root()}, give_up_reading), kClean, "1 read, 2 skipped");
  chmod(file("closed-dir").c_str(), 0700);
}

TEST_F(Scrub, RefusesAManifestThatWasCutOrEdited) {
  write_file(file("a"), pattern(9000));
  write_file(file("b"), pattern(10));
  ASSERT_EQ(create().status, kClean);
  const std::string whole = read_file(manifest());

  const auto expect_refusal = [&](const std::string &text, std::size_t line, std::size_t at) {
    write_file(manifest(), text);
    const Outcome outcome = verify();
    SCOPED_TRACE(at);
    EXPECT_OUTCOME(outcome, kCouldNotRun, "line " + std::to_string(line) + ": ");
    EXPECT_FALSE(contains(outcome.text, "MISSING")) << outcome.text;
  };
  expect_refusal(std::string(100000, 'x'), 1, 0);
  std::size_t line = 1;
  for (std::size_t at = 0; at < whole.size(); at = whole.find('\n', at) + 1, ++line) {
    for (const std::size_t column : {0u, 7u, 8u, 10u}) {
      std::string edited = whole;
      edited[at + column] = edited[at + column] == '1' ? '2' : '1';
      expect_refusal(edited, line, at + column);
    }
    expect_refusal(whole.substr(0, at), line, at);
    expect_refusal(whole.substr(0, whole.find('\n', at)), line, at);
  }
  EXPECT_EQ(line, 9u); // title, a and its three blocks, b and its block, end
  expect_refusal(whole + "x", line, whole.size());
}

// The manifest with these texts, each behind its code.
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

// Whoever edits a manifest may give it the right codes.
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
      {{title, "file 1 0.000000000 %61", block, end}, 2},
      {{title, file_a, "block 1 00000000 0000", end}, 3},
      {{title, file_a, block, "end files 1 blocks 1 bytes 2"}, 4},
      {{title, file_a, block, end, end}, 5},
  };
  for (const auto &row : rows) {
    write_file(manifest(), sealed(row.texts));
    const Outcome outcome = verify();
    if (row.line == 0) {
      EXPECT_NE(outcome.status, kCouldNotRun) << outcome.text;
    } else {
      EXPECT_OUTCOME(outcome, kCouldNotRun, "line " + std::to_string(row.line) + ": ");
    }
  }
}

TEST_F(Scrub, ARunThatFailsOrIsInterruptedKeepsTheOldManifest) {
  write_file(file("small"), "x");
  ASSERT_EQ(create().status, kClean);
  const std::string old_manifest = read_file(manifest());
  write_file(file("sparse"), "");
  fs::resize_file(file("sparse"), std::uintmax_t{1} << 40);
  const auto expect_old_manifest = [&] {
    EXPECT_EQ(read_file(manifest()), old_manifest);
    EXPECT_FALSE(fs::exists(unfinished()));
  };

  const Process process = start({"create", root()}, [] {});
  while (!fs::exists(unfinished()))
    usleep(1000);
  kill(process.id, SIGINT);
  EXPECT_OUTCOME(finish(process), kCouldNotRun, "interrupted");
  expect_old_manifest();

  const Outcome limited = scrub({"create", root()}, [] {
    const rlimit limit{1 << 20, 1 << 20};
    setrlimit(RLIMIT_FSIZE, &limit);
  });
  EXPECT_OUTCOME(limited, kCouldNotRun, "File too large");
  expect_old_manifest();
}

TEST_F(Scrub, OneRunAtATimeWritesAManifest) {
  write_file(file("a"), "x");
  write_file(unfinished(), std::string(1000, 'x')); // a run that was killed
  const int fd = open(unfinished().c_str(), O_RDONLY);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  EXPECT_OUTCOME(create(), kCouldNotRun, "another run is writing");
  EXPECT_TRUE(fs::exists(unfinished()));
  close(fd);
  EXPECT_OUTCOME(create(), kClean, "1 read");
  EXPECT_OUTCOME(verify(), kClean, "CLEAN");
}

TEST_F(Scrub, TakesNoFileOfItsOwnForData) {
  for (const char *name : {"m/sums.txt", "m/sums.log", "logs/sums", "logs/sums.log.old"})
    write_file(file(name), "of the user");
  write_file(file("logs/sums.log.1"), "an old log");
  write_file(file("m/sums"), "an old manifest");
  for (const char *command : {"create", "verify", "verify"})
    EXPECT_OUTCOME(scrub({command, "--manifest", file("m/sums"), "--log", file("logs"), root()}),
                   kClean, "4 read");
  EXPECT_TRUE(contains(read_file(file("logs/sums.log")), "verified: 4 files"));
}

TEST_F(Scrub, ReplacesNothingButAManifest) {
  fs::create_directory(file("d"));
  EXPECT_OUTCOME(scrub({"create", "--manifest", file("d"), root()}), kCouldNotRun,
                 "no regular file");
  EXPECT_OUTCOME(scrub({"create", root()},
                       [this] {
                         chmod(root().c_str(), 0555);
                         give_up_reading();
                       }),
                 kCouldNotRun, "--manifest");
  chmod(root().c_str(), 0755);
  EXPECT_TRUE(fs::is_directory(file("d")));
}

TEST_F(Scrub, RefusesWrongCommandLines) {
  const std::string missing = scratch_ / "missing";
  const std::pair<Words, const char *> rows[] = {
      {{}, "the command is missing"},
      {{"create", root(), "another"}, "not also another"},
      {{"create", root(), "--colour"}, "no option --colour"},
      {{"create", root(), "--manifest", root() + "/"}, "names no file"},
      {{"create", root(), "--settings", root()}, "there is no settings file"},
      {{"create", missing}, "there is no directory"},
      {{"verify", root()}, "make one with create"},
  };
  for (const auto &[words, text] : rows)
    EXPECT_OUTCOME(scrub(words), kCouldNotRun, text);
  EXPECT_OUTCOME(scrub({"--help"}), kClean, "Exit status:");
  EXPECT_TRUE(fs::is_empty(root())) << "a log was left behind";
  EXPECT_FALSE(fs::exists(missing));
  EXPECT_OUTCOME(
      scrub({"create", root()}, [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); }),
      kCouldNotRun, "cannot write to standard output");
}

} // namespace
