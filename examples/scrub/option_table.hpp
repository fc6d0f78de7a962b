// Declares the table of options, which the parser, the help and the settings share.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_OPTION_TABLE_HPP
#define SCRUB_OPTION_TABLE_HPP

#include <span>
#include <string>
#include <string_view>

#include "options.hpp"

namespace scrub {

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

struct CommandName {
  const char *name;
  Command command;
};

inline constexpr CommandName kCommands[] = {
    {"create", Command::kCreate}, {"verify", Command::kVerify}, {"update", Command::kUpdate}};

inline constexpr unsigned int kEveryCommand =
    command_bit(Command::kCreate) | command_bit(Command::kVerify) | command_bit(Command::kUpdate);

std::string names_of(unsigned int commands); // "create, verify"

} // namespace scrub

#endif
