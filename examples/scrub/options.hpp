// Reads the command line.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_OPTIONS_HPP
#define SCRUB_OPTIONS_HPP
#include <string>
#include <vector>
#include "scrub.hpp"
namespace scrub {
struct CommandLine {
  Command command = Command::kWrong;
  struct Directory { std::string root; OwnPaths paths; };
  std::vector<Directory> directories;
  std::string settings_file;
  Options options;
};
CommandLine parse_options(int argc, char **argv);
void print_help();
}
#endif
