// Holds the table of options, reads the command line and prints the help.
// SPDX-License-Identifier: Apache-2.0
#include "options.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <sys/resource.h>

#include "scope_filter.hpp"
#include "settings_file.hpp"
#include "values.hpp"

namespace scrub {
namespace {

using Line = CommandLine;
using Text = const std::string &;

constexpr char kUsage[] = "vorn-scrub create|verify|update [OPTION...] DIR...";

constexpr unsigned int kCreates = command_bit(Command::kCreate);
constexpr unsigned int kVerifies = command_bit(Command::kVerify);
constexpr unsigned int kUpdates = command_bit(Command::kUpdate);
constexpr unsigned int kAll = kCreates | kVerifies | kUpdates;

struct CommandName {
  const char *name;
  Command command;
};

constexpr CommandName kCommands[] = {
    {"create", Command::kCreate}, {"verify", Command::kVerify}, {"update", Command::kUpdate}};

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
     "The manifest keeps the patterns of create, and later runs apply them too"},
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
    {"max-errors", 0, "N", kVerifies | kUpdates, false,
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

std::string dashed(const KnownOption &option) { return std::string("--") + option.name; }

// Returns "create, verify".
std::string names_of(unsigned int commands) {
  std::string names;
  for (const CommandName &known : kCommands) {
    if ((commands & command_bit(known.command)) != 0)
      names += (names.empty() ? "" : ", ") + std::string(known.name);
  }
  return names;
}

const char *name_of(Command command) {
  return std::ranges::find(kCommands, command, &CommandName::command)->name;
}

// Splits the arguments into options, which it takes, and other words.
class Arguments {
public:
  Arguments(int argc, char **argv, Line &line) : rest_(argv + 1, argv + argc), line_(line) {}

  // Stops at an option that asks for information.
  std::vector<std::string> take_options();

private:
  void take_long(std::string_view text);
  void take_letters(std::string_view letters);
  void take(const KnownOption &option, const std::string &value);

  std::span<char *> rest_;
  Line &line_;
};

std::vector<std::string> Arguments::take_options() {
  std::vector<std::string> words;
  bool options_end = false;
  while (!rest_.empty() && line_.command == Command::kWrong) {
    const std::string_view text = rest_.front();
    rest_ = rest_.subspan(1);
    if (options_end || text.size() < 2 || text[0] != '-') {
      words.emplace_back(text);
    } else if (text == "--") {
      options_end = true;
    } else if (text[1] == '-') {
      take_long(text.substr(2));
    } else {
      take_letters(text.substr(1));
    }
  }
  return words;
}

void Arguments::take_long(std::string_view text) {
  const std::size_t equals = text.find('=');
  const std::string_view name = text.substr(0, equals);
  const KnownOption *option = find_option(name);
  if (option == nullptr) wrong("there is no option --" + readable(name));
  if (option->argument == nullptr) {
    if (equals != text.npos) wrong(dashed(*option) + " takes no value");
    take(*option, {});
  } else if (equals != text.npos) {
    take(*option, std::string(text.substr(equals + 1)));
  } else {
    if (rest_.empty()) wrong(dashed(*option) + " needs a value: " + option->argument);
    const std::string value = rest_.front();
    rest_ = rest_.subspan(1);
    take(*option, value);
  }
}

void Arguments::take_letters(std::string_view letters) {
  for (const char letter : letters) {
    const auto *option = std::ranges::find(kOptions, letter, &KnownOption::letter);
    if (letter == 0 || option == std::end(kOptions))
      wrong("there is no option -" + readable({&letter, 1}));
    take(*option, {});
  }
}

void Arguments::take(const KnownOption &option, const std::string &value) {
  const bool first = line_.given.insert(option.name).second;
  if (!first && option.argument != nullptr && !option.repeatable)
    wrong(dashed(option) + " stands twice on the command line");
  option.take(line_, value);
}

Command command_of(const std::string &word) {
  const auto *known = std::ranges::find(
      kCommands, word, [](const CommandName &one) { return std::string(one.name); });
  if (known == std::end(kCommands))
    wrong("the command is create, verify or update, not '" + readable(word) + "'");
  return known->command;
}

void check_options(const Line &line) {
  for (const std::string &name : line.given) {
    const KnownOption &option = *find_option(name);
    if ((option.commands & command_bit(line.command)) == 0)
      wrong(dashed(option) + " is no option of " + name_of(line.command) + ", only of " +
            names_of(option.commands));
    if (line.targets.size() == 1) continue;
    if (name == "manifest" || name == "only" || name == "accept")
      wrong(dashed(option) + " needs one directory alone, not " +
            std::to_string(line.targets.size()));
  }
}

void set_manifest(OwnPaths &paths, const std::string &path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    paths.manifest_directory = ".";
    paths.manifest_name = path;
    return;
  }
  paths.manifest_directory = path.substr(0, std::max<std::size_t>(slash, 1));
  paths.manifest_name = path.substr(slash + 1);
}

void add_targets(Line &line, std::span<const std::string> roots) {
  for (const std::string &root : roots) {
    if (root.empty()) wrong("the name of a directory is empty");
    Target &target = line.targets.emplace_back();
    target.root = root;
    set_manifest(target.paths, line.manifest.empty() ? root + "/.vorn-scrub" : line.manifest);
    target.paths.log_directory =
        line.log.empty() ? line.targets[0].paths.manifest_directory : line.log;
  }
}

// Makes the path of a file below root, with or without an absolute root before it, a path in the
// tree.
std::string tree_path(const char *option, const std::string &given, std::string_view root) {
  std::string path = given;
  while (root.ends_with('/'))
    root.remove_suffix(1);
  const bool begins_with_root =
      path.starts_with('/') && path.starts_with(root) && path.substr(root.size()).starts_with('/');
  if (begins_with_root) path.erase(0, path.find_first_not_of('/', root.size()));
  if (!normal_tree_path(path) || path.empty())
    refuse_value(option, given, "the path of something below the directory, without '..'");
  return path;
}

bool is_in(std::string_view path, std::string_view directory) {
  return path.starts_with(directory) &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

void set_tree_paths(Line &line) {
  const std::string &root = line.targets[0].root;
  std::vector<std::string> &only = line.options.scope.only;
  for (std::string &path : only)
    path = tree_path("--only", path, root);
  for (std::string &path : line.options.accepted) {
    path = tree_path("--accept", path, root);
    const auto holds_it = [&](const std::string &wanted) { return is_in(path, wanted); };
    if (!only.empty() && std::ranges::none_of(only, holds_it))
      wrong("--accept " + readable(path) + " is outside of what --only names");
  }
}

Line read_line(int argc, char **argv) {
  Line line;
  // The reading threads keep the nice value of the process unless a setting changes it.
  line.options.settings.nice =
      static_cast<std::uint64_t>(std::max(getpriority(PRIO_PROCESS, 0), 0));
  const std::vector<std::string> words = Arguments(argc, argv, line).take_options();
  if (line.command != Command::kWrong) return line;
  if (words.empty()) wrong("the command is missing");
  line.command = command_of(words[0]);
  if (words.size() == 1) wrong("the directory is missing");
  add_targets(line, std::span(words).subspan(1));
  check_options(line);
  set_tree_paths(line);
  return line;
}

// Prints text from a column on, in lines of at most 80 characters. The cursor is at that column.
void print_wrapped(std::string_view text, int column) {
  const std::size_t width = 80 - static_cast<std::size_t>(column);
  while (text.size() > width) {
    const std::size_t blank = text.rfind(' ', width);
    std::printf("%.*s\n%*s", static_cast<int>(blank), text.data(), column, "");
    text.remove_prefix(blank + 1);
  }
  std::printf("%.*s\n", static_cast<int>(text.size()), text.data());
}

void print_option(const KnownOption &option) {
  constexpr int kColumn = 23;
  if (option.heading != nullptr) std::printf("\n%s:\n", option.heading);
  std::string name = option.letter == 0 ? "" : std::string{'-', option.letter, ',', ' '};
  name += dashed(option);
  if (option.argument != nullptr) name += std::string(" ") + option.argument;
  std::string help = option.help;
  if (option.commands != kAll) help += " (" + names_of(option.commands) + ")";
  std::printf("  %-*s ", kColumn - 3, name.c_str());
  print_wrapped(help, kColumn);
}

} // namespace

std::span<const KnownOption> known_options() { return kOptions; }

const KnownOption *find_option(std::string_view name) {
  const auto *option = std::ranges::find_if(
      kOptions, [name](const KnownOption &known) { return known.name == name; });
  return option == std::end(kOptions) ? nullptr : option;
}

CommandLine parse_options(int argc, char **argv) {
  try {
    return read_line(argc, argv);
  } catch (const std::invalid_argument &refused) {
    std::fprintf(stderr, "vorn-scrub: %s\nUsage: %s\nTry 'vorn-scrub --help' for more.\n",
                 refused.what(), kUsage);
    return {};
  }
}

void print_help() {
  std::printf("Usage: %s\n", kUsage);
  std::fputs(R"(
Finds the files below a directory that have been damaged.

  create   reads every regular file below DIR and records the checksums of its
           blocks in a manifest
  verify   reads them again and reports what differs: damage apart from what
           was written on purpose
  update   reads what was written since, and records it; leaves silent damage
           as it was recorded

Several directories are read one after the other, each against its own manifest.
)",
             stdout);
  for (const KnownOption &option : kOptions)
    print_option(option);
  std::string names = "Settings: ";
  for (const std::string_view name : setting_names())
    names += (names.ends_with(": ") ? "" : ", ") + std::string(name);
  std::puts("");
  print_wrapped(names, 0);
  std::fputs(R"(
Silent damage is content that differs although neither the size nor the time of
a change says that the file was written. A block that differs is read again a
second later. If it is right then, the data are good, but the device, the path
to it or memory had a passing fault. A manifest is replaced only when the new
one is complete. Links are not followed. In a name, each byte of a blank, a
control character, '%' or invalid UTF-8 is printed as %XX.

Files, all of them for their owner alone; MANIFEST is DIR/.vorn-scrub or that of
--manifest:
  MANIFEST             the record of the tree
  MANIFEST.old         the record before it
  MANIFEST.unfinished  a record that is being written; an interrupted create
                       leaves it for --resume, and SIGKILL leaves it too
  MANIFEST.checkpoint  where an interrupted verify ended
  MANIFEST.damaged     the files that the last verify found damaged
  MANIFEST.part        the part that was completed last
  NAME.log, NAME.log.N the log, in the directory of --log; NAME is the last
                       component of MANIFEST

Signals: SIGUSR1 prints the progress. SIGINT and SIGTERM end the run within a
second, with its summary and a checkpoint.

Exit status; if several hold, the first of 2, 1, 3, 4, 0:
  0  clean; or the manifest was made or brought up to date
  1  silent damage
  2  the run could not start or go on
  3  incomplete: something was unreadable, skipped, vanished or changed while it
     was read, the run was interrupted, or there was a passing fault
  4  differences, all of them made on purpose (verify)
)",
             stdout);
}

} // namespace scrub
