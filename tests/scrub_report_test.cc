// test-links: scrub_objects
// Tests what a run of vorn-scrub tells: the lines of its findings, its status, its JSON, its
// progress and its messages.
// SPDX-License-Identifier: Apache-2.0
#include "report.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "account.hpp"
#include "finding_text.hpp"
#include "instance.hpp"
#include "interrupt.hpp"
#include "json_report.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/shell.hpp"
#include "text.hpp"
#include "vorn_init.h"

namespace {

using namespace scrub;

constexpr char kOddName[] = "a b\n\"%\xFF\u202E";

// Block 1 of a file of 5000 bytes, with one wrong sector of two.
Finding damaged_block() {
  Finding finding{.path = "docs/y",
                  .recorded_size = 5000,
                  .size = 5000,
                  .first_block = 1,
                  .blocks = 1,
                  .begins_file = true};
  finding.expected = {.crc = 0x0a6c1e55, .sectors = 2, .guards = {0x1111, 0x0c1a}};
  finding.found = {.crc = 0x91d2b0c7, .sectors = 2, .guards = {0x1111, 0x77b2}};
  return finding;
}

Finding damaged_range(std::uint64_t first, std::uint64_t blocks, bool begins) {
  return {.path = "docs/x",
          .recorded_size = 52428799,
          .size = 52428799,
          .first_block = first,
          .blocks = blocks,
          .begins_file = begins};
}

// Runs body with the report of a directory, and returns what it printed.
struct DirectoryRun {
  Options options{};
  Command command = Command::kVerify;
  JsonRun *json = nullptr;
  DirectoryFigures figures{};

  std::string output(const std::function<void(Report &)> &body) {
    EXPECT_EQ(vorn_Init(), 0);
    prepare_instances(1);
    capture::take();
    testing::internal::CaptureStdout();
    Console console;
    const Job job{"/srv/data", {"/srv/data", ".vorn-scrub", "/srv/data"}, options};
    Instance instance("report", [&] {
      Report report(job, command, {.console = console, .json = json, .has_log = true});
      body(report);
      figures = report.figures();
    });
    instance.wait();
    if (json != nullptr) json->finish(figures.status);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }
};

std::vector<capture::Message> own_messages() {
  std::vector<capture::Message> messages = capture::take();
  std::erase_if(messages, [](const capture::Message &one) { return one.module != kModule; });
  return messages;
}

TEST(ScrubFindings, TellRangesSectorsSizesAndSafeNames) {
  EXPECT_EQ(finding_text(damaged_block()),
            "docs/y: block 1 at offset 4096, expected 0a6c1e55, found 91d2b0c7");
  EXPECT_EQ(finding_details(damaged_block()),
            std::vector<std::string>{"sector 9 at offset 4608, guard expected 0c1a, found 77b2"});
  EXPECT_EQ(bytes_of(damaged_block()), 904u);
  EXPECT_EQ(finding_text(damaged_range(0, 12800, true)),
            "docs/x: blocks 0 to 12,799 (52,428,799 bytes at offset 0)");

  EXPECT_EQ(finding_text({.verdict = Verdict::kModified,
                          .path = "m",
                          .recorded_size = 1228800,
                          .size = 1228800,
                          .blocks = 12}),
            "m: 12 of 300 blocks differ");
  EXPECT_EQ(
      finding_text({.verdict = Verdict::kGrown, .path = "g", .recorded_size = 9000, .size = 9001}),
      "g: from 9,000 to 9,001 bytes");
  EXPECT_EQ(finding_text({.verdict = Verdict::kMoved, .path = "b", .from = kOddName}),
            "b: recorded as a%20b%0A\"%25%FF%E2%80%AE");
  EXPECT_EQ(finding_text({.verdict = Verdict::kNew, .path = String(3000, 'n')}, 5), "nnnnn...");
  String back;
  EXPECT_TRUE(unescape(escape(kOddName), back)); // manifests keep the older escape
  EXPECT_EQ(back, kOddName);
}

TEST(ScrubFindings, LeadToTheWorstStatusThatSomethingGives) {
  Tally tally;
  Summary summary{.committed = true};
  EXPECT_EQ(verdict_line(Command::kVerify, tally, summary),
            "CLEAN: everything that was read is as recorded");
  tally[Count::kModified] = 3;
  tally[Count::kNew] = 1;
  EXPECT_EQ(status_of(Command::kVerify, tally, false, false), kDifferent);
  EXPECT_EQ(verdict_line(Command::kVerify, tally, summary), "ONLY DIFFERENCES: 3 modified, 1 new");
  EXPECT_EQ(verdict_line(Command::kUpdate, tally, summary), "UP TO DATE: 3 modified, 1 new");
  for (const Count which :
       {Count::kPassing, Count::kUnreadable, Count::kChanged, Count::kSkipped}) {
    tally[which] = 1;
    EXPECT_EQ(status_of(Command::kCreate, tally, false, false), kIncomplete);
    tally[which] = 0;
  }
  summary.interrupted = true;
  summary.committed = false;
  summary.note = "part 3 of 30";
  EXPECT_EQ(verdict_line(Command::kVerify, tally, summary),
            "INCOMPLETE: interrupted (part 3 of 30)");
  EXPECT_EQ(verdict_line(Command::kCreate, tally, summary),
            "INCOMPLETE: interrupted; the manifest was not written (part 3 of 30)");
  tally[Count::kDamaged] = 1;
  tally[Count::kDamagedBlocks] = 2;
  EXPECT_EQ(status_of(Command::kUpdate, tally, true, true), kDamage);
}

TEST(ScrubReport, PrintsAndLogsEachFindingOnceAndCountsFilesNotRanges) {
  DirectoryRun run;
  const std::string text = run.output([](Report &report) {
    report.begin("Verifying /srv/data");
    report.finding(damaged_range(0, 10, true));
    report.finding(damaged_range(20, 30, false));
    Finding accepted = damaged_block();
    accepted.accepted = true;
    report.finding(accepted);
    report.finding({.verdict = Verdict::kSkipped, .path = "s", .why = "Permission denied"});
    report.finish({.read = {.files = 2, .blocks = 3, .bytes = 9000}});
  });
  EXPECT_EQ(
      text.substr(0, text.find("\n  files")),
      "Verifying /srv/data\n"
      "DAMAGED     docs/x: blocks 0 to 9 (40,960 bytes at offset 0)\n"
      "DAMAGED     docs/x: blocks 20 to 49 (122,880 bytes at offset 81920)\n"
      "            not written since it was recorded: silent damage\n"
      "ACCEPTED    docs/y\n"
      "SKIPPED     s: Permission denied\n\n"
      "SILENT DAMAGE: 40 blocks of 1 file differ, and nothing says that a program wrote there; "
      "incomplete: 1 skipped");
  EXPECT_EQ(run.figures.status, kDamage);
  EXPECT_EQ(run.figures.counts[0], 1u);
  EXPECT_EQ(run.figures.accepted, 1u);

  std::string levels;
  for (const capture::Message &message : own_messages())
    levels += static_cast<char>('0' + message.level);
  EXPECT_EQ(levels, "633446");
}

TEST(ScrubReport, PrintsFindingsAloneIfQuietAndBoundsTheLog) {
  DirectoryRun run;
  run.options.quiet = true;
  constexpr int kMany = 10'002;
  const std::string text = run.output([](Report &report) {
    report.begin("Verifying /srv/data");
    report.note("A note.");
    for (int i = 0; i < kMany; ++i)
      report.finding({.verdict = Verdict::kNew, .path = "n"});
    report.finish({});
  });
  EXPECT_EQ(text.size(), kMany * std::string("NEW         n\n").size());
  const std::vector<capture::Message> logged = own_messages();
  ASSERT_EQ(logged.size(), 10'000u + 3);
  EXPECT_EQ(logged[10'001].text, "2 findings more are not in the log.");
  EXPECT_EQ(logged[10'002].text.rfind("verify of /srv/data ended. ONLY DIFFERENCES", 0), 0u);
}

// Checks each line of the text against the schema, and prints the value of the expression for the
// last line.
Outcome check_json(const std::string &lines, const std::string &expression) {
  const scratch::Directory directory;
  scratch::write_file(directory / "lines", lines);
  scratch::write_file(directory / "check.py", R"(
import base64, json, sys, jsonschema
schema = json.load(open(sys.argv[1]))
jsonschema.Draft7Validator.check_schema(schema)
lines = [json.loads(line) for line in open(sys.argv[2], encoding="utf-8")]
for line in lines:
    jsonschema.validate(line, schema)
last = lines[-1]
print(eval(sys.argv[3]))
)");
  return shell("python3 " + (directory / "check.py") + " '" VORN_SCRUB_SCHEMA "' " +
               (directory / "lines") + " '" + expression + "'");
}

void find_all_kinds(Report &report) {
  report.finding(damaged_block());
  Finding passing = damaged_range(5, 7, true);
  passing.verdict = Verdict::kPassing;
  report.finding(passing);
  for (const Verdict verdict : {Verdict::kModified, Verdict::kGrown, Verdict::kShrunk,
                                Verdict::kMissing, Verdict::kNew, Verdict::kUnreadable})
    report.finding(
        {.verdict = verdict, .path = "p", .recorded_size = 5, .size = 6, .why = "why\x1B"});
  report.finding({.verdict = Verdict::kMoved, .path = kOddName, .from = "o\u202E"});
}

TEST(ScrubJson, FollowsItsSchemaAndKeepsEveryName) {
  DirectoryRun run;
  run.options.output = Output::kJson;
  JsonRun json(run.options.output, run.command, "1.2");
  run.json = &json;
  const std::string text = run.output([](Report &report) {
    report.note("A note.");
    find_all_kinds(report);
    report.finish({.part = {3, 30}, .interrupted = true});
  });
  const Outcome outcome = check_json(
      text, "[last[\"exit_status\"], len(lines), len(last[\"directories\"][0][\"findings\"]), "
            "base64.b64decode(last[\"directories\"][0][\"findings\"][-1][\"path_bytes\"]), "
            "ascii(last[\"directories\"][0][\"findings\"][-1][\"recorded_path\"])]");
  EXPECT_EQ(outcome.text, "[1, 1, 9, b'a b\\n\"%\\xff\\xe2\\x80\\xae', \"'o\\\\u202e'\"]\n");
  EXPECT_EQ(text.find("\u202E"), std::string::npos);
}

TEST(ScrubJson, HasALineForEachFindingAndSaysWhyARunFailed) {
  DirectoryRun run;
  run.options.output = Output::kJsonLines;
  JsonRun json(run.options.output, run.command, "1.2");
  run.json = &json;
  const std::string text = run.output([](Report &report) {
    find_all_kinds(report);
    report.fail("the manifest is damaged");
  });
  const Outcome outcome =
      check_json(text, "[len(lines), last[\"status\"], last[\"directories\"][0][\"error\"]]");
  EXPECT_EQ(outcome.text, "[10, 'could not run', 'the manifest is damaged']\n");

  testing::internal::CaptureStdout();
  JsonRun(Output::kJson, Command::kWrong, "1.2").finish(kCouldNotRun, "there is no command");
  EXPECT_EQ(check_json(testing::internal::GetCapturedStdout(), "last[\"error\"]").text,
            "there is no command\n");
}

TEST(ScrubJson, KeepsABoundedNumberOfFindings) {
  DirectoryRun run;
  run.options.output = Output::kJson;
  JsonRun json(run.options.output, run.command, "1.2");
  run.json = &json;
  const std::string text = run.output([](Report &report) {
    for (int i = 0; i < 40; ++i)
      report.finding({.verdict = Verdict::kNew, .path = String(200'000, 'n')});
    report.finish({});
  });
  EXPECT_LT(text.size(), JsonRun::kMostBytes + 10'000);
  EXPECT_EQ(check_json(text, "last[\"directories\"][0][\"findings_left_out\"]").text, "20\n");
}

TEST(ScrubProgress, TellsTheRateOfTheLastSeconds) {
  constexpr std::uint64_t kSecond = 1'000'000'000;
  RecentRate rate;
  EXPECT_EQ(rate.rate(kSecond, 5), 0);
  for (std::uint64_t i = 0; i <= 100; ++i) // 1000 bytes a second, then nothing for 4 s
    rate.sample(i * kSecond / 10, std::min<std::uint64_t>(i, 60) * 100);
  EXPECT_NEAR(rate.rate(10 * kSecond, 6000), 100, 150);
  EXPECT_EQ(rate.rate(20 * kSecond, 6000), rate.rate(10 * kSecond, 6000) * 4.5 / 14.5);
  EXPECT_EQ(duration_text(59), "59 s");
  EXPECT_EQ(duration_text(3600 * 25 + 60), "1 d 1 h");
}

// Replaces descriptor 2 by a pipe while body runs, and returns what arrived.
std::string on_standard_error(const std::function<void()> &body) {
  int ends[2];
  const int before = dup(STDERR_FILENO);
  EXPECT_EQ(pipe(ends), 0);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  body();
  dup2(before, STDERR_FILENO);
  close(before);
  char text[4096];
  const ssize_t length = read(ends[0], text, sizeof text);
  close(ends[0]);
  return {text, length < 0 ? 0 : static_cast<std::size_t>(length)};
}

TEST(ScrubConsole, WritesTheProgramsMessagesAloneWhileTheLogIsOpen) {
  const std::string text = on_standard_error([] {
    {
      Console console;
      console.hide_library_messages();
      dprintf(STDERR_FILENO, "hidden\n");
      console.say("%s", "said");
    }
    dprintf(STDERR_FILENO, "hidden\n"); // as what the library writes when the process ends
  });
  EXPECT_EQ(text, "vorn-scrub: said\n");
}

TEST(ScrubConsole, HasTheProgressOnSigusr1AlsoIfQuiet) {
  DirectoryRun run;
  run.options.quiet = true;
  const std::string text = on_standard_error([&run] {
    EXPECT_EQ(run.output([](Report &report) {
      catch_signals(); // after the start of the library, which handles SIGUSR1 itself
      report.progress().expect_bytes(2000);
      report.progress().add_bytes(500);
      raise(SIGUSR1);
      usleep(400'000);
      report.finish({});
    }),
              "");
  });
  EXPECT_EQ(text.substr(0, 55), "vorn-scrub: /srv/data:  25%  500 B of 2.0 kB, 0 files, ");
}

} // namespace
