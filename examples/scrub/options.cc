// Reads the command line and prints the help.
// SPDX-License-Identifier: Apache-2.0
#include "options.hpp"

#include <algorithm>
#include <cstdio>
#include <getopt.h>
#include <string_view>

namespace scrub {
namespace {

constexpr char kUsage[] = "vorn-scrub create|verify [--manifest FILE] [--log DIR]"
                          " [--settings FILE] [--stall] [--crash] DIR...";

Options wrong(const std::string &what) {
  std::fprintf(stderr, "vorn-scrub: %s\nUsage: %s\nTry 'vorn-scrub --help' for more.\n",
               what.c_str(), kUsage);
  return {};
}

Command command_of(std::string_view word) {
  if (word == "create") return Command::kCreate;
  if (word == "verify") return Command::kVerify;
  return Command::kWrong;
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

} // namespace

Options parse_options(int argc, char **argv) {
  const option known[] = {
      {"manifest", required_argument, nullptr, 'm'}, {"log", required_argument, nullptr, 'l'},
      {"settings", required_argument, nullptr, 's'}, {"stall", no_argument, nullptr, 'o'},
      {"crash", no_argument, nullptr, 'c'},          {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'v'},        {nullptr, 0, nullptr, 0}};
  const char *manifest = nullptr;
  const char *log = nullptr;
  const char *settings = nullptr;
  Job drills; // the drills of every job
  opterr = 0;
  for (int letter; (letter = getopt_long(argc, argv, ":h", known, nullptr)) != -1;) {
    switch (letter) {
    case 'm':
      manifest = optarg;
      break;
    case 'l':
      log = optarg;
      break;
    case 's':
      settings = optarg;
      break;
    case 'o':
      drills.stall = true;
      break;
    case 'c':
      drills.crash = true;
      break;
    case 'h':
      return {Command::kHelp, {}, {}};
    case 'v':
      return {Command::kVersion, {}, {}};
    case ':':
      return wrong(std::string(argv[optind - 1]) + " needs a value");
    default:
      return wrong(std::string("there is no option ") +
                   (optopt != 0 ? std::string{'-', static_cast<char>(optopt)} : argv[optind - 1]));
    }
  }

  if (optind == argc) return wrong("the command is missing");
  Options options;
  options.command = command_of(argv[optind]);
  if (options.command == Command::kWrong)
    return wrong(std::string("the command is create or verify, not ") + argv[optind]);
  const std::vector<std::string> roots(argv + optind + 1, argv + argc);
  if (roots.empty()) return wrong("the directory is missing");
  if (manifest != nullptr && roots.size() > 1)
    return wrong(std::string("--manifest ") + manifest + " cannot serve several directories");

  for (const std::string &root : roots) {
    Job &job = options.jobs.emplace_back(drills);
    job.root = root;
    set_manifest(job.paths, manifest != nullptr ? manifest : root + "/.vorn-scrub");
    if (job.paths.manifest_name.empty())
      return wrong(std::string("--manifest ") + manifest + " names no file");
    job.paths.log_directory = log != nullptr ? log : options.jobs[0].paths.manifest_directory;
  }
  if (settings != nullptr && *settings == '\0') return wrong("--settings names no file");
  if (settings != nullptr) options.settings_file = settings;
  return options;
}

void print_help() {
  std::printf("Usage: %s\n", kUsage);
  std::fputs(R"(
Finds the files below a directory that have been damaged.

  create   reads every regular file below DIR and records the checksums of its
           blocks in a manifest
  verify   reads them again and reports each damaged block, and every file that
           is missing or new

Several directories are read one after the other, each against its own manifest.

  --manifest FILE  the manifest of the one directory; DIR/.vorn-scrub by default
  --log DIR        the directory of the log; that of the first manifest by
                   default
  --settings FILE  how much to read at once, how many threads compute checksums,
                   the rate of reading and more; scrub.ini is a sample
  --stall          a drill: an item of scheduled work overruns its time limit of
                   15 seconds; the run reports when the library has noticed
                   this, and does not end before
  --crash          a drill: a thread that computes checksums faults; the process
                   dies of SIGSEGV, and the log holds the fault report
  --help           print this text
  --version        print the version

Links are not followed. Files that cannot be read, or change while they are
read, are reported and skipped. A manifest is replaced only after the new one is
complete. In a name, each byte of a blank, a control character, '%' or invalid
UTF-8 is written as %XX.

A block that differs from the manifest is read again a second later. If it is
wrong again, it is damaged. If it is right, the device, the path to it or memory
had a passing fault: the data are good, but something that read them is not.

Exit status: 0 clean (files may be new or skipped),
1 damage found (a block, a size, a missing or unreadable file), 2 could not run,
3 passing faults, and no damage.
)",
             stdout);
}

} // namespace scrub
