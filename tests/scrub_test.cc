// test-runs: vorn-scrub
// Tests vorn-scrub as an operator runs it: a script sets up a tree and runs the program.
// SPDX-License-Identifier: Apache-2.0
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

#include "support/scratch.hpp"
#include "support/shell.hpp"

namespace {

// What each script may use: "$user" runs a command without root's right to any file and nice value.
const std::string kFunctions =
    "user='" +
    std::string(geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search,-sys_nice"
                               : "") +
    R"('
    numbers() { seq 2000000 | head -c "$1"; }
    flip() { printf '\001' | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }
    quietly() { "$@" >/dev/null; }
    # Records the tree in ../m and continues in a copy of it: what is written to the copy with its
    # old time is silent damage of a copy.
    silently() { quietly scrub create --manifest ../m . && cp -a . ../copy && cd ../copy; }
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

enum { kClean, kDamage, kCouldNotRun, kIncomplete, kDifferent };

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
     scrub create . && scrub verify . && stat -c %a .vorn-scrub .vorn-scrub.log | tr '\n' ' '; ls -A
     cat .vorn-scrub.log)",
     kClean, R"(
24 read
CLEAN
24 read
600 600
!.vorn-scrub.unfinished
!SCHED_THREAD_FREE_NUM)"},

    // There are more blocks and files than the batches and pieces hold at a time.
    {"DamageIsFoundAnywhere", R"(
     numbers 12584146 >large; mkdir small
     for i in $(seq 1000 1399); do head -c $(((i - 1000) * 37)) large >small/$i; done
     touch -d @1 large small/*; silently
     damage() { flip $1 $2; touch -d @1 $1; echo $1 $(($2 / 4096)); }
     { for block in 0 15 16 255 1007 1008 2016 3071 3072; do
         damage large $((block * 4096 + block % 1234))
       done
       for i in 1 62 63 64 200 399; do damage small/$((1000 + i)) $((i * 37 - 1)); done; } >../wanted
     scrub verify --any-tree --manifest ../m . >../out; status=$?; cat ../out
     scrub verify --any-tree --manifest ../m --json-lines . | python3 -c '
import json, sys
for line in sys.stdin:
    found = json.loads(line)
    if "path" in found:
        for i in range(found["blocks"]): print(found["path"], found["first_block"] + i)' |
       diff - ../wanted; exit $status)",
     kDamage, R"(
DAMAGED     large: block
silent damage
SILENT DAMAGE
!---)"},

    {"VerdictsAreApart", R"(
     mkdir dir; for name in gone kept moved dir/inside open link; do echo $name >$name; done
     for name in cut grown changed; do numbers 9000 >$name; done; >void
     quietly scrub create .
     echo x >'added one'; >empty; rm gone link void; mv moved dir/elsewhere; ln -s kept link
     truncate -s 8192 cut; echo more >>grown; flip changed 5000; touch kept; chmod 0 open
     $user scrub verify .; echo status $?; chmod 600 open; cat .vorn-scrub.log
     scrub verify -q .)",
     kDifferent, R"(
MODIFIED    changed: 1 of 3 blocks
SHRUNK      cut: from 9,000 to 8,192 bytes
GROWN       grown: from 9,000 to 9,005 bytes
UNREADABLE  open: Permission denied$
NEW         added%20one$
MOVED       dir/elsewhere: recorded as moved$
NEW         empty$
MISSING     gone$
MISSING     link$
MISSING     void$
INCOMPLETE
status 3
NEW         added
!MISSING     moved)"},

    {"UpdateTakesWhatWasWritten", R"(
     mkdir d; for i in 1 2 3 4 5 6; do numbers $((i * 5000)) >d/$i; done; quietly scrub create .
     cp .vorn-scrub ../first
     numbers 77 >d/2; echo x >d/new; rm d/3; mv d/4 four; touch d/5
     scrub update .; echo status $?; quietly scrub update .; cmp .vorn-scrub.old ../first && stat -c %a .vorn-scrub.old
     scrub verify .)",
     kClean, R"(
SHRUNK      d/2
MISSING     d/3
NEW         d/new
MOVED       four: recorded as d/4
status 0
600$
CLEAN)"},

    // Known damage stays recorded as it was, also if a program wrote the file since, until it is
    // accepted. What an update of a copy leaves tells damage from writing without the list.
    {"UpdateRefusesDamage", R"(
     for name in a b c; do numbers 9000 >$name; done; touch -d @1 ?; silently
     flip a 1; flip b 5000; touch -d @1 ?; mv b B
     scrub verify -q --any-tree --manifest ../m .; echo status $?; cat ../m.damaged
     scrub update -q --any-tree --manifest ../m .; echo status $?
     rm ../m.damaged; scrub verify -q --manifest ../m .
     echo >>a; scrub update -q --manifest ../m .; echo status $?
     scrub update -q --manifest ../m --accept ./a .; echo status $?; ls ../m.damaged
     scrub verify -q --manifest ../m .; echo status $?
     scrub update -q --manifest ../m --accept nothing .)",
     kCouldNotRun, R"(
DAMAGED     a: block 0
status 1
$
DAMAGED     a: 1 of 3 blocks differs$
status 1
DAMAGED     a: block 0
DAMAGED     a: 1 of 3 blocks differs, from 9,000 to 9,001 bytes
status 1
ACCEPTED    a$
status 0
status 0
!m.damaged$
--accept nothing: No such file)"},

    {"RenamedFileThatIsDamagedIsNotBlessed", R"(
     numbers 9000 >a; touch -d @1 a; quietly scrub create .; mv a b; flip b 1; touch -d @1 b
     scrub verify .; echo status $?; sed 's/^a$/listed/' .vorn-scrub.damaged
     scrub update -q .; echo status $?
     scrub verify --json . | grep -c first_block; scrub update -q --accept b .; scrub verify -q .)",
     kClean, R"(
DAMAGED     b: recorded as a, and its content differs$
SILENT DAMAGE: the content of 1 file differs
status 1
listed$
DAMAGED     b
status 1
0$
ACCEPTED    b$)"},

    {"GrowthDoesNotHideKnownDamage", R"(
     numbers 9000 >a; touch -d @1 a; silently; flip a 8999; touch -d @1 a
     scrub verify -q --any-tree --manifest ../m .; echo more >>a
     scrub update -q --any-tree --manifest ../m .; echo status $?
     scrub update -q --any-tree --manifest ../m --exclude a .; ls ../m.damaged)",
     kCouldNotRun, R"(
DAMAGED     a: block 2
DAMAGED     a: from 9,000 to 9,005 bytes$
status 1
cannot access '../m.damaged')"},

    {"TooManyDamagedFilesStandForAll", R"(
     name=$(printf %0240d 0)
     all() { for i in $(seq 1100); do echo $1 >$name$i; done; touch -d @1 *; }
     check() { quietly scrub verify -q --any-tree --manifest ../m "$@" .; ls ../m.damaged; }
     all x; silently; all y; check; sed -n 2p ../m.damaged; all x; check --part 1/1; check)",
     kCouldNotRun, R"(
../m.damaged$
%$
../m.damaged$
cannot access '../m.damaged')"},

    {"UpdateKeepsTheRecordOfWhatItCannotRead", R"(
     mkdir dir was; for name in dir/inside file open was/kept; do echo $name >$name; done
     quietly scrub create .
     echo y >>file; mv open renamed; mv was hidden; chmod 0 dir file renamed hidden
     $user scrub update -q .; echo status $?; chmod 700 dir file renamed hidden
     scrub verify -q .)",
     kDifferent, R"(
UNREADABLE  dir/inside: Permission denied$
UNREADABLE  file: Permission denied$
UNREADABLE  renamed: Permission denied
status 3
GROWN       file
MOVED       hidden/kept: recorded as was/kept$
MOVED       renamed: recorded as open$)"},

    {"SkippedFilesMakeCreateIncomplete", R"(
     mkdir dir; for name in dir/inside file open; do echo x >$name; done; chmod 0 dir file
     $user scrub create .; status=$?; chmod 700 dir; exit $status)",
     kIncomplete,
     "SKIPPED     dir: Permission denied$\nSKIPPED     file: Permission denied$\n1 read"},

    {"TreeDeeperThanLimits", R"(
     name=$(printf %0250d 0); deep=$(pwd)
     (for i in $(seq 40); do mkdir $name; cd $name; done; echo x >bottom) # 10,000 bytes
     mkdir z; echo y >z/last; ulimit -n 64; scrub create . && scrub verify .)",
     kClean, "2 read\nCLEAN\n2 read"},

    {"ScopeIsKept", R"(
     mkdir -p a/cache b; for name in a/x a/x.tmp a/cache/y b/z; do echo $name >$name; done
     scrub create -q --exclude '*.tmp' --exclude cache/ .; echo w >>a/x.tmp
     scrub verify . | grep read; scrub verify --only b . | grep read
     scrub verify --exclude b . | grep read
     scrub verify --only b --only c .
     echo n >a/n; echo v >>b/z; scrub update -q --only b .; scrub verify -q .
     scrub update -q --exclude b .; grep -ac b/z .vorn-scrub
     scrub create /proc/self; cp -a . ../copy; scrub verify --manifest .vorn-scrub ../copy)",
     kCouldNotRun, R"(
2 read
1 read
1 read
--only c: neither in the tree nor recorded$
GROWN       b/z
NEW         a/n$
0$
is a proc file system
belongs to another tree)"},

    {"PartsCoverTheTree", R"(
     numbers 2000000 >large; for i in $(seq 40); do numbers $((i * 100)) >$i; done; touch -d @1 *
     silently; flip large 1000000; flip 7 0; touch -d @1 *
     for part in 1 2 3 4 5 6 7; do
       scrub verify -q --any-tree --manifest ../m --part next/7 .; echo $?; cat ../m.part | head -1
     done >../out; cat ../out; grep -c DAMAGED ../out; grep -c '^1' ../out
     grep -cx '7\|large' ../m.damaged
     next() { scrub verify -q --any-tree --manifest ../m "$@" .; head -1 ../m.part; }
     next --part next/3; next --part next/3 --only 7; next --part 2/2
     sed -i s:2/2:1/2: ../m.part; next --part next/2; rm ../m.part
     mkdir ../m.part; scrub verify -q --any-tree --manifest ../m --part 1/2 .; ls ../m.part*)",
     kClean, R"(
part 1 7/7$
2$
2$
2$
part 1 1/3$
part 1 1/3$
part 1 2/2$
is not as it was written
!m.part.unfinished)"},

    {"InterruptedRunGoesOn", R"(
     numbers 4000000 >a; numbers 3000000 >b; touch -d @1 a b; silently
     for at in 1 $(seq 1000000 200000 2800000); do flip a $at; done; flip b 2999999; touch -d @1 a b
     printf '[SCRUB]\nREAD_SIZE_LIMIT=4096\nTHREADS=1\nRATE_LIMIT=1\n' >../slow.ini
     trap '' HUP
     slow() {
       scrub $1 --settings ../slow.ini $2 $3 $4 . & pid=$!
       sleep 2.2; kill -HUP $pid; sleep 0.3; kill -USR1 $pid; sleep 0.2; kill -TERM $pid; wait $pid; echo status $?
     }
     again() { scrub verify --any-tree --manifest ../m --resume "$@" .; echo status $?; }
     slow verify --any-tree --manifest ../m >../out; cat ../out; ls ../m.checkpoint
     cp ../m.checkpoint ../kept; again --only a; again --one-file-system
     scrub verify -q --any-tree --manifest ../m --only b .; cmp ../kept ../m.checkpoint; again | tee -a ../out; ls ../m.checkpoint
     echo of a: $(grep -c 'DAMAGED     a' ../out)
     cp ../kept ../m.checkpoint; touch a; again -q
     slow create; ls .vorn-scrub*; scrub create --resume . && scrub verify .
     cp .vorn-scrub ../kept; touch a; slow update; cmp .vorn-scrub ../kept
     [ ! -e .vorn-scrub.unfinished ] || echo file stays)",
     kClean, R"(
of 7.0 MB
DAMAGED     a: block 0
silent damage
incomplete: interrupted
status 1
../m.checkpoint$
another part or other paths
another part or other paths
DAMAGED     b
Going on
DAMAGED     b: block 732
status 1
of a: 11
MODIFIED    a: 11 of 977 blocks
status 3
.vorn-scrub.unfinished$
Going on
RECORDED
CLEAN
status 3
!UNREADABLE
!differ:
!file stays)"},

    {"InterruptedTwiceKeepsWhatWasRecorded", R"(
     numbers 1500000 >a; for i in $(seq 50); do numbers $((i * 99)) >b$i; done; numbers 14000000 >c
     printf '[SCRUB]\nREAD_SIZE_LIMIT=4096\nRATE_LIMIT=1\n' >../slow.ini
     cut() {
       scrub create -q --settings ../slow.ini $2 . & pid=$!
       sleep $1; kill -TERM $pid; wait $pid
     }
     cut 4; touch a; cut 0.9 --resume; scrub create --resume .
     head -c 70000 .vorn-scrub >.vorn-scrub.unfinished # as a killed run leaves it
     scrub create --resume . && scrub verify .)",
     kClean, "files     2 read\nfiles     1 read\nCLEAN"},

    {"SparseFileNeedsLittle", R"(
     truncate -s 4G sparse; numbers 5000 | dd of=sparse bs=4096 seek=5 conv=notrunc status=none
     scrub create . && scrub verify . && [ $(stat -c %s .vorn-scrub) -lt 4096 ])",
     kClean, "1 read\nCLEAN"},

    {"ChangingTreeNeverEndsTheRun", R"(
     for i in $(seq 60); do numbers 200000 >f$i; done; quietly scrub create .
     (while [ ! -e ../stop ]; do
       for i in 1 9 18; do
         numbers 999 >f$i; mv f$((i + 1)) n$i; truncate -s 5 f$((i + 2)); rm -f f$((i + 3))
         mkfifo f$((i + 3)) 2>&-; rm -f f$((i + 4)); ln -s f1 f$((i + 4)) 2>&-; mv n$i f$((i + 1))
       done
     done) &
     for i in 1 2 3; do scrub verify . >../out 2>&1; echo status $?; done
     scrub update -q . >../out 2>&1; echo $?; touch ../stop; wait)",
     kClean, "!status 0\n!status 1\n!status 2"},

    // The manifest is the second file that a run opens.
    {"ClosedOutputIsNotTheManifest", R"(
     echo x >z; (exec <&- >&-; scrub create .); echo status $?
     scrub verify -q .; (exec >/dev/full; scrub --help; echo help $? >&2; scrub verify .))",
     kCouldNotRun,
     "status 2\ncannot write to standard output\nhelp 2\ncannot write to standard output"},

    {"CutOrEditedManifestIsRefused", R"(
     numbers 9000 >a; numbers 10 >b; quietly scrub create .; cp .vorn-scrub ../whole
     size=$(stat -c %s ../whole)
     for at in $(seq 3 9 $((size - 1))); do
       head -c $at ../whole >.vorn-scrub; scrub verify -q . 2>&1 | grep -q MISSING && echo taken
       cp ../whole .vorn-scrub; flip .vorn-scrub $at; cmp -s .vorn-scrub ../whole && continue
       scrub verify -q . >../out 2>&1; [ $? = 2 ] && grep -q 'vorn-scrub' ../out || echo taken $at
     done
     sed 's/manifest 2/manifest 3/' ../whole >.vorn-scrub; scrub verify .)",
     kCouldNotRun, "cannot read version 3\n!taken"},

    {"FailedRunKeepsTheOldManifest", R"(
     echo x >small; quietly scrub create .; cp .vorn-scrub ../old
     numbers 9000000 >large
     (ulimit -f 16; scrub create .); status=$?; cmp .vorn-scrub ../old
     ls .vorn-scrub.unfinished 2>&-; exit $status)",
     kCouldNotRun, "File too large\n!differ\n!.vorn-scrub.unfinished$"},

    {"OneRunAtATimeWritesAManifest", R"(
     echo x >a; yes | head -c 1000 >.vorn-scrub.unfinished # as if a killed run had left it
     flock .vorn-scrub.unfinished scrub create .; echo status $?; ls .vorn-scrub.unfinished
     >.vorn-scrub.unfinished; chmod 644 .vorn-scrub.unfinished
     scrub create . && scrub verify . && stat -c %a .vorn-scrub)",
     kClean, "another run is writing\nstatus 2\n.vorn-scrub.unfinished$\n1 read\nCLEAN\n600$"},

    {"ItsOwnFilesAreNoData", R"(
     mkdir m logs
     echo >m/sums.part.unfinished
     for name in m/sums.txt m/sums.log logs/sums logs/sums.log.old; do echo data >$name; done
     echo old >logs/sums.log.1; echo data >f; scrub create --manifest f .; cat f
     scrub create --report m/sums.txt .; cat m/sums.txt; rm -f f* .vorn*
     for command in create verify update verify; do
       scrub $command --manifest m/sums --log logs .
     done; stat -c %a logs/sums.log)",
     kClean, R"(
cannot replace ./f: it is no manifest$
data$
is not replaced$
data$
4 read$
4 read$
4 read$
600$)"},

    // A run that could not run weighs most, then damage. A directory does not affect the others.
    {"EachDirectoryHasItsManifest", R"(
     mkdir one two three; for name in one/a two/b two/c three/d; do echo >$name; done
     scrub create one two three; rm */.vorn-scrub.log
     echo >>one/a; scrub verify two one three; echo status $?; ls */.vorn-scrub.log
     echo no manifest >three/.vorn-scrub; scrub verify one three two)",
     kCouldNotRun, R"(
  clean          one$
  clean          two$
GROWN       a
status 4
two/.vorn-scrub.log$
!three/.vorn-scrub.log$)"},

    {"FaultIsReported", R"(
     echo x >a; ulimit -c 0; scrub create --crash .; echo status $?; cat .vorn-scrub.log)",
     0, R"(
status 139
thrd=scrub_read
fault_on_purpose)"},

    // Each message appears once. Machine-readable output stays so when a run fails.
    {"MessagesAppearOnce", R"(
     echo x >a; quietly scrub create .; echo y >>a; rm .vorn-scrub.log
     scrub verify . >../out 2>../err; grep -c GROWN ../out; cat ../err; grep -c 'grown: a' .vorn-scrub.log
     scrub verify --manifest . . 2>&1 | head -1
     scrub verify --json missing | python3 -c 'import json, sys; print(json.load(sys.stdin)["error"])'
     scrub verify --json . | python3 -c 'import json, sys; print(json.load(sys.stdin)["exit_status"])')",
     kClean, "1$\n1$\nnot a directory\nthere is no directory\n4$"},

    {"NiceThatMayNotBeSetIsRefused", R"(
     printf '[SCRUB]\nNICE=5\n' >../nice.ini
     $user nice -n 10 scrub create --settings ../nice.ini .)",
     kCouldNotRun, "line 2: NICE is '5', which this process may not set: Permission denied$"},

    {"ManifestIsTheSameWithAnySettings", R"(
     numbers 3000000 >large; for i in $(seq 100); do head -c $((i * 97)) large >$i; done
     quietly scrub create --manifest ../wanted .
     for set in 4096,1,20 12288,3,0 1048576,16,0; do
       echo "[SCRUB],READ_SIZE_LIMIT=${set%%,*},THREADS=${set#*,}" |
         sed 's/\(.*\),/\1,RATE_LIMIT=/' | tr , '\n' >../s.ini
       scrub create --manifest ../got --settings ../s.ini . | grep -E 'speed +(20.0|1?[0-9]\..) '
       cmp ../wanted ../got && quietly scrub verify --manifest ../got --settings ../s.ini . || exit 9
     done)",
     kClean, "speed"},
};

void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }

class ScrubTable : public Scrub, public testing::WithParamInterface<Row> {};

TEST_P(ScrubTable, Row) { expect(GetParam().script, GetParam().status, GetParam().wanted); }

INSTANTIATE_TEST_SUITE_P(All, ScrubTable, testing::ValuesIn(kRows),
                         [](const auto &row) { return row.param.name; });

} // namespace
