// Reads the command line.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_OPTIONS_HPP
#define SCRUB_OPTIONS_HPP

#include <set>
#include <string>
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

// Writes what is wrong to standard error, and returns the command kWrong then.
CommandLine parse_options(int argc, char **argv);

// Writes the help to standard output.
void print_help();

inline constexpr char kUsage[] = "vorn-scrub create|verify|update [OPTION...] DIR...";

} // namespace scrub

#endif
