// Reads the command line.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_OPTIONS_HPP
#define SCRUB_OPTIONS_HPP

#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "scrub.hpp"

namespace scrub {

struct CommandLine {
  struct Directory {
    std::string root;
    OwnPaths paths;
  };

  Command command = Command::kWrong;
  std::vector<Directory> directories;
  std::string manifest;      // empty: .vorn-scrub in each directory
  std::string log_directory; // empty: that of the first manifest
  std::string settings_file; // empty: none
  Options options;
  std::set<std::string, std::less<>> given; // options, without their dashes
};

struct Option {
  const char *name;     // without dashes
  char letter;          // the short form; NUL: none
  const char *argument; // its name in the help; NULL: none
  const char *commands; // that take the option: 'c', 'v', 'u' for create, verify, update
  bool repeats;
  const char *wanted;                                        // values that are right, for messages
  bool (*take)(CommandLine &line, const std::string &value); // false: a wrong value
  const char *help;
};

// All options, in the order of the help.
std::span<const Option> all_options();

// Returns the option, or NULL.
const Option *find_option(std::string_view name);

// Whether the command takes the option.
bool takes(Command command, const Option &option);

// Writes an error to standard error, and returns Command::kWrong, if the line is wrong.
CommandLine parse_options(int argc, char **argv);

void print_help();

// Read a number from least to most, in decimal digits. Return false for anything else.
bool parse_number(std::string_view text, std::uint64_t least, std::uint64_t most,
                  std::uint64_t &value);

} // namespace scrub

#endif
