// Holds the table of options.
// SPDX-License-Identifier: Apache-2.0
#include "option_table.hpp"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "values.hpp"

namespace scrub {
namespace {

using Line = CommandLine;
using Text = const std::string &;

constexpr unsigned int kAll = kEveryCommand;
constexpr unsigned int kCreates = command_bit(Command::kCreate);
constexpr unsigned int kVerifies = command_bit(Command::kVerify);
constexpr unsigned int kUpdates = command_bit(Command::kUpdate);

[[noreturn]] void wrong(const std::string &what) { throw std::invalid_argument(what); }

void set_output(Line &line, Output output) {
  if (line.options.output != Output::kText && line.options.output != output)
    wrong("--json and --json-lines exclude each other");
  line.options.output = output;
}

constexpr KnownOption kOptions[] = {
    {"manifest", 0, "FILE", kAll, false,
     [](Line &line, Text value) { line.manifest = file_value("--manifest", value); }, "Files",
     "the manifest of the one directory; DIR/.vorn-scrub by default"},
    {"log", 0, "DIR", kAll, false,
     [](Line &line, Text value) {
       if (value.empty()) wrong("--log names no directory");
       line.log = value;
     },
     nullptr, "the directory of the log; that of the first manifest by default"},
    {"settings", 0, "FILE", kAll, false,
     [](Line &line, Text value) { line.settings_file = file_value("--settings", value); }, nullptr,
     "an INI file with settings, for which scrub.ini is a sample; an option on the command line "
     "overrides its setting"},

    {"exclude", 0, "PATTERN", kAll, true,
     [](Line &line, Text value) {
       line.options.scope.excludes.push_back(pattern_value("--exclude", value));
     },
     "What to look at",
     "leave out what matches; may be repeated. A pattern without '/' matches a name in any "
     "directory, one with '/' a path below DIR, and one that begins with '**/' a path below any "
     "directory. '*' and '?' match no '/'. A '/' at the end limits the pattern to directories. "
     "The manifest keeps the patterns of create and update, and later runs apply them too"},
    {"only", 0, "PATH", kVerifies | kUpdates, true,
     [](Line &line, Text value) { line.options.scope.only.push_back(value); }, nullptr,
     "look at this file alone, or at what is below this directory; may be repeated, for one DIR. "
     "PATH is the path below DIR; an absolute path that begins with DIR will do too"},
    {"one-file-system", 0, nullptr, kAll, false,
     [](Line &line, Text) { line.options.scope.one_file_system = true; }, nullptr,
     "leave out what is mounted below DIR"},
    {"pseudo", 0, nullptr, kAll, false, [](Line &line, Text) { line.options.scope.pseudo = true; },
     nullptr, "read file systems without a medium too, such as proc and sysfs"},
    {"any-tree", 0, nullptr, kVerifies | kUpdates, false,
     [](Line &line, Text) { line.options.any_tree = true; }, nullptr,
     "take the manifest of another tree: DIR is a copy, or was restored from a backup"},
    {"part", 0, "K/N", kVerifies, false,
     [](Line &line, Text value) { line.options.part = part_value("--part", value); }, nullptr,
     "read only part K of N; N is at most 10000. next/N takes the part after the one that was "
     "completed last, so that N runs read everything"},

    {"accept", 0, "FILE", kUpdates, true,
     [](Line &line, Text value) { line.options.accepted.push_back(value); }, "How to go on",
     "record this file as it is although it is damaged; may be repeated, for one DIR. FILE is a "
     "path as for --only"},
    {"resume", 0, nullptr, kCreates | kVerifies, false,
     [](Line &line, Text) { line.options.resume = true; }, nullptr,
     "go on where an interrupted run ended"},
    {"max-errors", 0, "N", kVerifies, false,
     [](Line &line, Text value) {
       line.options.max_errors = number_value("--max-errors", value, kMaxErrors);
     },
     nullptr, "end the run after N damaged files; 0, the default, is no limit"},
    {"cached", 0, nullptr, kAll, false, [](Line &line, Text) { line.options.cached = true; },
     nullptr, "take what memory holds from there instead of reading it from the medium"},

    {"quiet", 'q', nullptr, kAll, false, [](Line &line, Text) { line.options.quiet = true; },
     "Output", "print only what was found"},
    {"json", 0, nullptr, kAll, false, [](Line &line, Text) { set_output(line, Output::kJson); },
     nullptr, "print one JSON object at the end and nothing else"},
    {"json-lines", 0, nullptr, kAll, false,
     [](Line &line, Text) { set_output(line, Output::kJsonLines); }, nullptr,
     "print each finding at once, as a JSON object on a line, and that object at the end"},
    {"report", 0, "FILE.html", kAll, false,
     [](Line &line, Text value) { line.options.html = file_value("--report", value); }, nullptr,
     "write a page about the run for a browser; the page needs no network"},

    {"stall", 0, nullptr, kAll, false, [](Line &line, Text) { line.options.stall = true; },
     "Drills",
     "an item of scheduled work overruns its time limit of 15 seconds; the run reports when the "
     "library has noticed this, and does not end before"},
    {"crash", 0, nullptr, kAll, false, [](Line &line, Text) { line.options.crash = true; }, nullptr,
     "a reading thread faults; the process dies of SIGSEGV, and the log holds the fault report"},

    {"help", 'h', nullptr, kAll, false, [](Line &line, Text) { line.command = Command::kHelp; },
     "Information", "print this text"},
    {"version", 0, nullptr, kAll, false, [](Line &line, Text) { line.command = Command::kVersion; },
     nullptr, "print the version"},
};

} // namespace

std::span<const KnownOption> known_options() { return kOptions; }

const KnownOption *find_option(std::string_view name) {
  const auto *option = std::ranges::find_if(
      kOptions, [name](const KnownOption &known) { return known.name == name; });
  return option == std::end(kOptions) ? nullptr : option;
}

std::string names_of(unsigned int commands) {
  std::string names;
  for (const CommandName &known : kCommands) {
    if ((commands & command_bit(known.command)) != 0)
      names += (names.empty() ? "" : ", ") + std::string(known.name);
  }
  return names;
}

} // namespace scrub
