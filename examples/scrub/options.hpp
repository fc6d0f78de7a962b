// Reads the command line.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_OPTIONS_HPP
#define SCRUB_OPTIONS_HPP

#include <functional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "own_files.hpp"
#include "scrub.hpp"

namespace scrub {

// A directory of the command line and the files that belong to it.
struct Target {
  std::string root;
  OwnPaths paths;
};

struct CommandLine {
  Command command = Command::kWrong;
  std::vector<Target> targets; // one or more, unless command is kHelp, kVersion or kWrong
  std::string manifest;        // as given; empty: each directory has its own
  std::string log;             // as given; empty: the directory of the first manifest
  std::string settings_file;   // empty: none
  Options options;
  std::set<std::string, std::less<>> given; // names of options, which no setting overrides
};

// An option, for the parser, the help, and what must agree with them.
struct KnownOption {
  const char *name;      // without dashes
  char letter;           // 0: none
  const char *argument;  // its name in the help; null: none
  unsigned int commands; // that take it: command_bit() of each
  bool repeatable;
  void (*take)(CommandLine &line, const std::string &value); // throws std::invalid_argument
  const char *heading; // in the help, before the option; null: none
  const char *help;
};

constexpr unsigned int command_bit(Command command) {
  return 1u << static_cast<unsigned int>(command);
}

std::span<const KnownOption> known_options();
const KnownOption *find_option(std::string_view name); // null: there is none

// Writes what is wrong to standard error, and returns the command kWrong then.
CommandLine parse_options(int argc, char **argv);

// Writes the help to standard output.
void print_help();

} // namespace scrub

#endif
