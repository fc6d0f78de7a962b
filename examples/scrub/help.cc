// Prints the help.
// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <string>
#include <string_view>

#include "option_table.hpp"
#include "setting_table.hpp"

namespace scrub {
namespace {

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
  name += "--" + std::string(option.name);
  if (option.argument != nullptr) name += std::string(" ") + option.argument;
  std::string help = option.help;
  if (option.commands != kEveryCommand) help += " (" + names_of(option.commands) + ")";
  std::printf("  %-*s ", kColumn - 3, name.c_str());
  print_wrapped(help, kColumn);
}

} // namespace

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
  for (const KnownOption &option : known_options())
    print_option(option);
  std::string names = "Settings: ";
  for (const KnownSetting &setting : known_settings())
    names += (names.ends_with(": ") ? "" : ", ") + std::string(setting.name);
  std::puts("");
  print_wrapped(names, 0);
  std::fputs(R"(
Silent damage is content that differs although neither the size nor the time of
a change says that the file was written. A block that differs is read again a
second later. If it is right then, the data are good, but the device, the path
to it or memory had a passing fault. A manifest is replaced only when the new
one is complete. Links are not followed. In a name, each byte of a blank, a
control character, a change of direction, '%' or invalid UTF-8 is printed as %XX.

Files, all of them for their owner alone; MANIFEST is DIR/.vorn-scrub or that of
--manifest:
  MANIFEST             the record of the tree
  MANIFEST.old         the record before it
  MANIFEST.unfinished  a record that is being written; an interrupted create
                       leaves it for --resume, and SIGKILL leaves it too
  MANIFEST.checkpoint  where an interrupted verify ended
  MANIFEST.damaged     the files that verify found damaged, until they are right
                       again or accepted
  MANIFEST.part        the part that was completed last
  NAME.log, NAME.log.N the log, in the directory of --log; NAME is the last
                       component of MANIFEST

Signals: SIGUSR1 prints the progress. SIGINT, SIGTERM and, without nohup(1),
SIGHUP end the run within a second, with its summary; create and verify can go
on with --resume.

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
