// Reads the command line.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_OPTIONS_HPP
#define SCRUB_OPTIONS_HPP

#include <string>
#include <vector>

#include "scrub.hpp"

namespace scrub {

enum class Command { kCreate, kVerify, kHelp, kVersion, kWrong };

struct Options {
  Command command = Command::kWrong;
  std::vector<Job> jobs;     // one for each directory
  std::string settings_file; // empty: none
};

// Writes an error to standard error.
Options parse_options(int argc, char **argv);

void print_help();

} // namespace scrub

#endif
