// Reads the command line and prints the help.
// SPDX-License-Identifier: Apache-2.0
#include "options.hpp"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <sys/stat.h>

#include "scope_filter.hpp"
#include "text.hpp"

namespace scrub {
namespace {

constexpr char kUsage[] = "vorn-scrub create|verify|update [OPTION...] DIR...";

struct Wrong : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string shown(std::string_view text) { return quoted(text); }

// Walks the arguments. Options may stand anywhere before "--".
class Parser {
public:
  Parser(int argc, char **argv) : arguments_(argv + std::min(argc, 1), argv + argc) {}

  CommandLine parse() {
    while (next_ < arguments_.size())
      take(arguments_[next_++]);
    if (line_.given.contains("help"))
      line_.command = Command::kHelp;
    else if (line_.given.contains("version"))
      line_.command = Command::kVersion;
    else
      finish();
    return line_;
  }

private:
  void take(const std::string &argument) {
    if (only_operands_ || argument == "-" || !argument.starts_with('-'))
      return operands_.push_back(argument);
    if (argument == "--") {
      only_operands_ = true;
    } else if (argument.starts_with("--")) {
      const std::size_t equals = argument.find('=');
      const std::string name = argument.substr(2, equals == argument.npos ? equals : equals - 2);
      take_option(find_option(name), "--" + name, equals == argument.npos ? nullptr : &argument);
    } else {
      for (const char letter : argument.substr(1)) {
        const auto options = all_options();
        const auto at = std::ranges::find(options, letter, &Option::letter);
        take_option(at == options.end() ? nullptr : &*at, std::string{'-', letter}, nullptr);
      }
    }
  }

  // joined is NULL or the argument "--NAME=VALUE".
  void take_option(const Option *option, const std::string &name, const std::string *joined) {
    if (option == nullptr) throw Wrong("there is no option " + shown(name));
    std::string value;
    if (option->argument == nullptr) {
      if (joined != nullptr) throw Wrong(name + " takes no value");
    } else if (joined != nullptr) {
      value = joined->substr(name.size() + 1);
    } else if (next_ < arguments_.size()) {
      value = arguments_[next_++];
    } else {
      throw Wrong(name + " needs a value");
    }
    const bool again = !line_.given.insert(option->name).second;
    if (again && !option->repeats && option->argument != nullptr)
      throw Wrong(name + " may be given once");
    if (!option->take(line_, value))
      throw Wrong(name + " is '" + shown(value) + "', wanted: " + option->wanted);
  }

  void finish() {
    if (operands_.empty()) throw Wrong("the command is missing");
    line_.command = command_of(operands_[0]);
    for (const std::string &name : line_.given) {
      if (!takes(line_.command, *find_option(name)))
        throw Wrong(operands_[0] + " does not take --" + name);
    }
    if (operands_.size() == 1) throw Wrong("the directory is missing");
    if (line_.given.contains("json") && line_.given.contains("json-lines"))
      throw Wrong("--json and --json-lines exclude each other");
    check_single();
    check_accepted();
    set_paths();
  }

  static Command command_of(const std::string &word) {
    if (word == "create") return Command::kCreate;
    if (word == "verify") return Command::kVerify;
    if (word == "update") return Command::kUpdate;
    throw Wrong("the command is create, verify or update, not " + shown(word));
  }

  void check_single() const {
    if (operands_.size() == 2) return;
    for (const char *name : {"manifest", "only", "accept"}) {
      if (line_.given.contains(name))
        throw Wrong(std::string("--") + name + " cannot serve several directories");
    }
  }

  void check_accepted() const {
    const ScopeFilter filter({.excludes = {}, .only = line_.options.scope.only}, {});
    for (const std::string &path : line_.options.accepted) {
      if (!filter.wanted(path)) throw Wrong("--accept " + shown(path) + " is outside of --only");
    }
  }

  void set_paths() {
    for (std::size_t i = 1; i < operands_.size(); ++i) {
      CommandLine::Directory directory{operands_[i], {}};
      if (directory.root.empty()) throw Wrong("a directory has no name");
      const bool own = line_.manifest.empty();
      set_manifest(directory.paths, own ? directory.root + "/.vorn-scrub" : line_.manifest);
      line_.directories.push_back(std::move(directory));
      line_.directories.back().paths.log_directory =
          line_.log_directory.empty() ? line_.directories[0].paths.manifest_directory
                                      : line_.log_directory;
    }
  }

  static void set_manifest(OwnPaths &paths, const std::string &path) {
    struct stat status {};
    if (path.ends_with('/') || (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)))
      throw Wrong("--manifest " + shown(path) + " is a directory, wanted: a file");
    const std::size_t slash = path.rfind('/');
    paths.manifest_directory =
        slash == path.npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
    paths.manifest_name = slash == path.npos ? path : path.substr(slash + 1);
  }

  const std::vector<std::string> arguments_;
  std::size_t next_ = 0;
  bool only_operands_ = false;
  std::vector<std::string> operands_;
  CommandLine line_;
};

// Prints words from a column to another.
void print_wrapped(std::string_view text, std::size_t column, std::size_t end) {
  std::size_t at = column;
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    if (at != column && at + 1 + word.size() > end) {
      std::printf("\n%*s", static_cast<int>(column), "");
      at = column;
    }
    std::printf("%s%.*s", at == column ? "" : " ", static_cast<int>(word.size()), word.data());
    at += word.size() + (at != column);
  }
  std::putchar('\n');
}

void print_option(const Option &option) {
  constexpr int kColumn = 22;
  std::string name = option.letter != 0 ? std::string{'-', option.letter, ',', ' '} : "";
  name += std::string("--") + option.name;
  if (option.argument != nullptr) name += std::string(" ") + option.argument;
  if (name.size() + 3 > kColumn) {
    std::printf("  %s\n%*s", name.c_str(), kColumn, "");
  } else {
    std::printf("  %-*s", kColumn - 2, name.c_str());
  }
  std::string help = option.help;
  if (std::string_view(option.commands) == "vu") help += " (verify, update)";
  if (std::string_view(option.commands) == "cv") help += " (create, verify)";
  if (std::string_view(option.commands) == "v") help += " (verify)";
  if (std::string_view(option.commands) == "u") help += " (update)";
  print_wrapped(help, kColumn, 79);
}

} // namespace

CommandLine parse_options(int argc, char **argv) {
  try {
    return Parser(argc, argv).parse();
  } catch (const Wrong &wrong) {
    std::fprintf(stderr, "vorn-scrub: %s\nUsage: %s\nTry 'vorn-scrub --help' for more.\n",
                 wrong.what(), kUsage);
    return {};
  }
}

void print_help() {
  std::printf("Usage: %s\n", kUsage);
  std::fputs(R"(
Finds the files below a directory that were damaged silently: their content
differs, and neither size nor time says that a program wrote them.

  create   reads every regular file below DIR and records the checksums of its
           blocks in a manifest
  verify   reads them again from the medium, and reports what differs
  update   takes new, modified, moved and deleted files into the manifest; reads
           only what was written since, and leaves silent damage as recorded

Several directories are read one after the other, each against its manifest.

)",
             stdout);
  for (const Option &option : all_options())
    print_option(option);
  std::fputs(R"(
DAMAGED is silent damage, MODIFIED, GROWN and SHRUNK files were written, MISSING
ones are recorded only, NEW ones are not recorded, MOVED ones are recorded under
another path, UNREADABLE ones fail, CHANGED ones were written while the run read
them. A wrong block is read again a second later: PASSING if it is right then.
Links are not followed. In a name, each byte of a blank, a control character,
'%' or invalid UTF-8 is written as %XX.

SIGUSR1 prints the progress to standard error. SIGINT and SIGTERM end a run
within a second; verify leaves a checkpoint and create an unfinished manifest,
from which --resume goes on.

Exit status; the worst counts, in the order 2, 1, 3, 4, 0:
  0  clean; update: the manifest is up to date
  1  silent damage; update left it as recorded
  2  the run could not start, or an error ended it
  3  incomplete: files were unreadable, skipped, changed or vanished, the run was
     interrupted, or a block was wrong at its first read only
  4  only differences that a program made on purpose
)",
             stdout);
}

} // namespace scrub
