// test-runs: vorn-scrub
// Tests vorn-scrub as an operator runs it: a script sets up a tree and runs the program.
// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/scratch.hpp"
#include "support/shell.hpp"
#include "vorn_crc.h"

namespace {

// What each script may use: "$user" runs a command without root's right to any file.
const std::string kFunctions =
    "numa=" VORN_SAMPLE_NUMA " product=" VORN_SAMPLE_PRODUCT " settings=" VORN_SAMPLE_SETTINGS "\n"
    "user='" +
    std::string(geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search" : "") +
    R"('
    numbers() { seq 2000000 | head -c "$1"; }
    flip() { printf '\001' | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }
    quietly() { "$@" >/dev/null; }
    # Says what the program says about the settings on standard input.
    try() { cat >../s.ini; scrub create --settings ../s.ini . 2>&1 | sed -n 's/.*s.ini: //p'; }
    )";

// Runs in an empty tree, which also holds the manifest. Its parent is for other files.
class Scrub : public testing::Test {
protected:
  Scrub() {
    const std::string program = "exec " VORN_TEST_EMULATOR " '" VORN_TEST_PROGRAM "' \"$@\"";
    scratch::write_program(directory_ / "bin/scrub", program);
    setenv("PATH", (directory_ / "bin:" + getenv("PATH")).c_str(), 1);
    std::filesystem::create_directory(directory_ / "tree");
    EXPECT_EQ(chdir((directory_ / "tree").c_str()), 0);
  }
  ~Scrub() override { EXPECT_EQ(chdir("/"), 0); }

  // Expects these lines in this order, each as a part of the output; "$" stands for the end of a
  // line. A line after "!" must not be there.
  static void expect(const std::string &script, int status, const std::string &wanted) {
    const Outcome outcome = shell(kFunctions + script);
    SCOPED_TRACE(outcome.text);
    EXPECT_EQ(outcome.status, status);
    std::istringstream lines(wanted);
    std::size_t end = 0;
    for (std::string line; std::getline(lines, line);) {
      if (line.empty()) continue;
      const bool absent = line[0] == '!';
      if (line.back() == '$') line.back() = '\n';
      const std::size_t at = outcome.text.find(line.substr(absent), absent ? 0 : end);
      EXPECT_EQ(at == std::string::npos, absent) << line;
      if (!absent && at != std::string::npos) end = at + line.size() - 1;
    }
  }

private:
  scratch::Directory directory_;
};

enum { kClean, kDamage, kCouldNotRun };

const struct Row {
  const char *name, *script;
  int status; // of the script
  const char *wanted;
} kRows[] = {
    // A walk meets the files of "a" before "a-b"; a plain comparison of bytes orders them
    // otherwise.
    {"UntouchedTreeIsClean", R"(
     mkdir -p size a/b
     for size in 0 1 511 512 513 4095 4096 4097 1048577; do numbers $size >size/$size; done
     for name in a-b a.txt a/b/c a0 ... -x ' ' %41 'new\nline' '\001\177' '\303\274' '\302\233' \
                 '\377' '\342\202' '\355\240\200'; do
       case $name in *%*) ;; *) name=$(printf -- "$name"); esac
       printf 123456789 >"./$name"
     done
     ln -s a link; ln -s nowhere a/dangling; mkfifo fifo
     scrub create .; sed -n 's/.* file .* //p' .vorn-scrub | tr '\n' ' '
     grep -c ' block 0 e3069283 d0db$' .vorn-scrub; scrub verify . && ls -A)",
     kClean,
     R"(
24 read, 3 links and special files left out
  machine
  busy
%01%7F %20 %2541 -x ... a/b/c a-b a.txt a0 new%0Aline size/0 size/1 size/1048577)"
     " size/4095 size/4096 size/4097 size/511 size/512 size/513 %C2%9B \xC3\xBC %E2%82"
     R"( %ED%A0%80 %FF 15$
CLEAN
24 read, 3 links and special files left out
  machine
  busy
!.vorn-scrub.unfinished)"},

    // There are more blocks and files than the batches hold at a time.
    {"DamageIsFoundAnywhere", R"(
     numbers 12584146 >large; mkdir small
     for i in $(seq 1000 1399); do head -c $(((i - 1000) * 37)) large >small/$i; done
     touch -d @1 large small/*; quietly scrub create .
     damage() {
       flip $1 $2; touch -d @$3 $1
       printf 'DAMAGED     %s: block %d at offset %d\n' $1 $(($2 / 4096)) $(($2 / 4096 * 4096))
       printf '            sector %d at offset %d\n' $(($2 / 512)) $(($2 / 512 * 512))
     }
     { for block in 0 15 16 255 1007 1008 2016 3071 3072; do
         damage large $((block * 4096 + block % 1234)) 1
       done
       echo '            not written to since the manifest was made: silent damage'
       for i in 1 62 63 64 200 399; do
         damage small/$((1000 + i)) $((i * 37 - 1)) 1.00000000$((i % 2 + 1))
         echo '            written to since the manifest was made'
       done; } >../wanted
     scrub verify . >../out; status=$?; cat ../out
     grep -E '^DAMAGED|^ +(sector|written|not)' ../out | sed 's/,.* expected.*//' | diff ../wanted -
     grep 'damaged: large, block 15,' .vorn-scrub.log; exit $status)",
     kDamage, "401 read, 7 damaged\n15 damaged$\ndamaged: large, block 15, expected\n!---"},

    {"MissingNewAndResizedFiles", R"(
     mkdir a; for name in a/gone a/kept link directory; do echo x >$name; done
     numbers 9000 >cut; numbers 9000 >grown
     quietly scrub create .
     echo x >'a/added one'; scrub verify .; echo status $?
     rm a/gone link directory; ln -s a/kept link; mkdir directory; echo x >directory/inside
     truncate -s 8999 cut; truncate -s 9001 grown
     scrub verify .)",
     kDamage, R"(
NEW         a/added%20one$
status 0
NEW         a/added%20one$
MISSING     a/gone$
SIZE        cut: expected 9000 bytes, found 8999
MISSING     directory$
NEW         directory/inside$
SIZE        grown: expected 9000 bytes, found 9001
MISSING     link$
3 missing, 2 new
!block 2)"},

    {"WhatCannotBeReadIsSkipped", R"(
     mkdir dir; for name in dir/inside file open; do echo x >$name; done
     quietly scrub create .
     chmod 0 dir file
     $user scrub create --manifest ../m .; $user scrub verify .
     status=$?; chmod 700 dir; exit $status)",
     kDamage, R"(
3 read, 2 skipped
UNREADABLE  dir/inside: Permission denied$
UNREADABLE  file: Permission denied$
1 read, 2 unreadable)"},

    {"TreeDeeperThanTheLimitOfDescriptors", R"(
     deep=$(printf 'd/%.0s' $(seq 100)); mkdir -p $deep; echo x >$deep/bottom
     ulimit -S -n 64; scrub create .)",
     kClean, "1 read$"},

    // The manifest is the second file that a run opens.
    {"ClosedOutputIsNotTheManifest", R"(
     for i in $(seq 20); do name=$(printf %0250d $i); echo x >$name; chmod 0 $name; done
     echo x >z
     (exec <&- >&-; $user scrub create .); echo status $?
     $user scrub verify .)",
     kClean, "status 2\n1 read, 20 new"},

    {"CutOrEditedManifestIsRefused", R"(
     numbers 9000 >a; numbers 10 >b; quietly scrub create .; cp .vorn-scrub ../whole
     refused() {
       scrub verify . >../out 2>&1; echo status $? >>../out
       grep -q "line $1: " ../out && grep -q 'status 2' ../out && ! grep -q MISSING ../out ||
         { echo "line $1 is taken"; cat ../out; }
     }
     yes x | tr -d '\n' | head -c 100000 >.vorn-scrub; refused 1
     for line in $(seq $(wc -l <../whole)); do
       for column in 0 8 10; do
         sed -E "$line{s/^(.{$column})1/\12/;t;s/^(.{$column})./\11/}" ../whole >.vorn-scrub
         refused $line
       done
       head -n $((line - 1)) ../whole >.vorn-scrub; refused $line
       head -n $line ../whole | head -c -1 >.vorn-scrub; refused $line
     done
     echo $line lines; (cat ../whole; echo x) >.vorn-scrub; refused $((line + 1)))",
     0, "8 lines\n!is taken"},

    {"FailedRunKeepsTheOldManifest", R"(
     echo x >small; quietly scrub create .; cp .vorn-scrub ../old
     truncate -s 1T sparse
     printf '[SCRUB]\nREAD_SIZE_LIMIT=1048576\nRATE_LIMIT=1\n' >../slow.ini
     same() { cmp .vorn-scrub ../old; ls .vorn-scrub.unfinished 2>&-; }
     for settings in "$settings" ../slow.ini; do
       scrub create --settings $settings . &
       while [ ! -e .vorn-scrub.unfinished ]; do sleep 0.01; done
       kill -INT $!; wait $!; echo status $?; same
     done
     (ulimit -f 2048; scrub create .); status=$?; same; exit $status)",
     kCouldNotRun, R"(
interrupted
status 2
interrupted
status 2
File too large
!differ
!.vorn-scrub.unfinished$)"},

    {"OneRunAtATimeWritesAManifest", R"(
     echo x >a; yes | head -c 1000 >.vorn-scrub.unfinished # as if a killed run had left it
     flock .vorn-scrub.unfinished scrub create .; echo status $?; ls .vorn-scrub.unfinished
     scrub create . && scrub verify .)",
     kClean, "another run is writing\nstatus 2\n.vorn-scrub.unfinished$\n1 read\nCLEAN"},

    {"ItsOwnFilesAreNoData", R"(
     mkdir m logs
     for name in m/sums.txt m/sums.log logs/sums logs/sums.log.old; do echo data >$name; done
     echo old >logs/sums.log.1; echo old >m/sums
     for command in create verify verify; do scrub $command --manifest m/sums --log logs .; done
     cat logs/sums.log)",
     kClean, "4 read$\n4 read$\n4 read$\nverified: 4 files"},

    // A run that could not run weighs most, then damage. A directory does not affect the others.
    {"EachDirectoryHasItsManifest", R"(
     mkdir one two three; for name in one/a two/b two/c three/d; do echo >$name; done
     scrub create one two three; rm */.vorn-scrub.log
     flip one/a 0; scrub verify two one three; echo status $?; ls */.vorn-scrub.log
     echo no manifest >three/.vorn-scrub; scrub verify one three two)",
     kCouldNotRun, R"(
clean          two: 2 files, 2 bytes
clean          two: 2 files
damage         one: 1 files
clean          three: 1
status 1
two/.vorn-scrub.log$
damage         one
could not run  three
clean          two
!three/.vorn-scrub.log$)"},

    {"FaultIsReported", R"(
     echo x >a; ulimit -c 0; scrub create --crash .; echo status $?; cat .vorn-scrub.log)",
     0, R"(
status 139
thrd=scrub_check0, sig = [11], SIGSEGV
fault_on_purpose
LwpCtxSwitch:0 instId old:0xffffffffffffffff)"},

    {"OnlyAManifestIsReplaced", R"(
     mkdir d; scrub create --manifest d .; chmod 555 .; $user scrub create .; status=$?
     chmod 755 .; [ -d d ] && exit $status)",
     kCouldNotRun, "no regular file\n--manifest"},

    {"WrongCommandLines", R"(
     scrub; scrub create . --colour; scrub create . --manifest d/; scrub create --manifest d . .
     scrub create . --settings .; scrub create . --log; scrub create; scrub check .
     scrub create missing; scrub verify .; echo status $?
     scrub --help && ls -A
     (exec >/dev/full; scrub create .))",
     kCouldNotRun, R"(
the command is missing
no option --colour
names no file
cannot serve several directories
there is no settings file
--log needs a value
the directory is missing
create or verify, not check
there is no directory
make one with create
status 2
Exit status:
cannot write to standard output
!.vorn-scrub$)"},

    {"SettingsAreTaken", R"(
     printf '[SCRUB]\nREAD_SIZE_LIMIT=4096\nTHREADS=1\nRATE_LIMIT=0\n' | try
     printf '[SCRUB]\nREAD_SIZE_LIMIT=1048576\nTHREADS=16\nRATE_LIMIT=100000' | try
     printf '\r\n; of us\r\n[SCRUB]\r\n\t RATE_LIMIT = 20 \r\nNICE=19\nCPUS=1,4-7\r\n' | try
     printf '[OTHER]\nTHREADS=9\nCOLOUR=red\n[SCRUB]\nTHREADS=2\n[MORE]\nno item\n' | try
     printf "[SCRUB]\nPRODUCT=$product\nCPUS=GROUP_1/IDLE,*/CTRL\n" | try
     try <$settings # which has every setting with its default
     sed 's/=131072/=8192/; s/THREADS=1/THREADS=5/; s/RATE_LIMIT=0/RATE_LIMIT=6/' $settings | try
     printf "[SCRUB]\nNUMA=$numa\n" >../s.ini; scrub create --settings ../s.ini .)",
     kClean, R"(
reads of at most 4,096 bytes, 1 checksum thread, no rate limit, nice 0, CPUs 0-1023$
reads of at most 1,048,576 bytes, 16 checksum threads, at most 100,000 MB/s, nice 0, CPUs 0-1023$
reads of at most 131,072 bytes, 1 checksum thread, at most 20 MB/s, nice 19, CPUs 1,4-7$
reads of at most 131,072 bytes, 2 checksum threads, no rate limit, nice 0, CPUs 0-1023$
nice 0, CPUs GROUP_1/IDLE,*/CTRL of /
reads of at most 131,072 bytes, 1 checksum thread, no rate limit, nice 0, CPUs 0-1023$
reads of at most 8,192 bytes, 5 checksum threads, at most 6 MB/s, nice 0, CPUs 0-1023$
  numa      2 nodes: CPUs 0-7, CPUs 8-15$)"},

    {"WrongSettingsAreRefused", R"(
     printf 'THREADS=2\n[SCRUBBER]\nTHREADS=2\n; [SCRUB]\n' | try
     printf '[SCRUB]\n\nTHREAD=2\n' | try
     printf '[SCRUB]\nTHREADS 2\n' | try
     printf '[SCRUB]\nTHREADS=\n' | try
     printf '[SCRUB]\nTHREADS=17\n' | try
     printf '[SCRUB]\nTHREADS=%01000d' | try
     printf '[SCRUB]\nREAD_SIZE_LIMIT=5000\n' | try
     printf '[SCRUB]\nCPUS=all\n' | try
     printf "[SCRUB]\nPRODUCT=$product\nCPUS=GROUP_2/CTRL\n" | try
     printf '[SCRUB]\nPRODUCT=../s.ini\n' | try
     printf '[SCRUB]\nNUMA=../s.ini\n' | try
     chmod 0 ../s.ini; $user scrub create --settings ../s.ini .)",
     kCouldNotRun, R"(
there is no section [SCRUB]$
line 3: there is no setting THREAD$
line 2: neither NAME=value nor a comment, which begins with ';'$
THREADS is '', wanted: 1 to 16$
THREADS is '17', wanted: 1 to 16$
THREADS is too long, wanted: 1 to 16$
READ_SIZE_LIMIT is '5000', wanted: 4096 to 1048576, a multiple of 4096$
CPUS is 'all', wanted: numbers, ranges and partitions, as 0-3,GROUP_0/CTRL$
CPUS is 'GROUP_2/CTRL'
PRODUCT is '../s.ini', which has no partitions
NUMA is '../s.ini', which has no NUMA nodes
settings ../s.ini: cannot be read)"},

    {"ManifestIsTheSameWithAnySettings", R"(
     numbers 3000000 >large; for i in $(seq 100); do head -c $((i * 97)) large >$i; done
     quietly scrub create --manifest ../wanted .
     for set in 4096,1,20 12288,3,0 1048576,4,0; do
       echo "[SCRUB],READ_SIZE_LIMIT=${set%%,*},THREADS=${set#*,}" |
         sed 's/\(.*\),/\1,RATE_LIMIT=/' | tr , '\n' >../s.ini
       scrub create --manifest ../got --settings ../s.ini . | grep -E '^Set|speed +(20.0|1?[0-9]\..) '
       cmp ../wanted ../got && quietly scrub verify --manifest ../got --settings ../s.ini . || exit 9
     done)",
     kClean, R"(
4,096 bytes, 1 checksum thread, at most 20 MB/s
speed
12,288 bytes, 3 checksum threads, no rate limit
1,048,576 bytes, 4 checksum threads)"},
};

void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }

class ScrubTable : public Scrub, public testing::WithParamInterface<Row> {};

TEST_P(ScrubTable, Row) { expect(GetParam().script, GetParam().status, GetParam().wanted); }

INSTANTIATE_TEST_SUITE_P(All, ScrubTable, testing::ValuesIn(kRows),
                         [](const auto &row) { return row.param.name; });

// Writes a manifest of these lines, each after its code.
void seal(const std::vector<std::string> &lines) {
  std::string manifest;
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::string &line : lines) {
    crc =
        vorn_crc32cContinue(crc, (line + "\n").data(), static_cast<std::uint32_t>(line.size() + 1));
    char code[16];
    std::snprintf(code, sizeof code, "%08x ", vorn_crc32cEnd(crc));
    manifest += code + line + "\n";
  }
  scratch::write_file("./.vorn-scrub", manifest);
}

// An editor of a manifest may give it the right codes.
TEST_F(Scrub, ManifestThatMakesNoSenseIsRefused) {
  const std::string title = "vorn-scrub-manifest 1 block 4096 crc32c sector 512 crc16-t10dif";
  const std::string file = "file 1 0.000000000 ", block = "block 0 00000000 0000";
  const std::string end = "end files 1 blocks 1 bytes 1";
  const std::pair<std::vector<std::string>, const char *> rows[] = {
      {{title, file + "a", block, file + "a", block, end}, "line 4: "},
      {{title, file + "b", block, file + "a", block, end}, "line 4: "},
      {{title, file + "../a", block, end}, "line 2: "},
      {{title, file + "a/./b", block, end}, "line 2: "},
  };
  for (const auto &[lines, refusal] : rows) {
    seal(lines);
    expect("scrub verify .", kCouldNotRun, refusal);
  }
  seal({title, file + "a", block, end});
  expect("scrub verify .", kDamage, "MISSING     a$");
}

} // namespace
