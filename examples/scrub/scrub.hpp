// Declares the jobs of the service.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SCRUB_HPP
#define SCRUB_SCRUB_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "own_files.hpp"
#include "settings.hpp"
#include "verdict.hpp"

namespace scrub {

enum class Command { kCreate, kVerify, kUpdate, kHelp, kVersion, kWrong };

// The files of the tree that a run looks at.
struct Scope {
  std::vector<std::string> excludes; // glob patterns of names, or of paths if they hold a slash
  std::vector<std::string> only;     // paths in the tree: these and what is below; empty: all
  bool one_file_system = false;
  bool pseudo = false; // also file systems such as proc
};

// Part number of of; 0 of 0 is everything. If number is 0 and of is not, the run takes the part
// after the last one that it completed.
struct Part {
  std::uint64_t number = 0;
  std::uint64_t of = 0;
};

enum class Output { kText, kJson, kJsonLines };

// What the command line and the settings file say, for all directories.
struct Options {
  Settings settings;
  Scope scope;
  Part part;
  std::vector<std::string> accepted; // update: paths in the tree to record as they are
  std::uint64_t max_errors = 0;      // end the run after as many damaged files; 0: no limit
  std::string html;                  // the page to write; empty: none
  Output output = Output::kText;
  bool quiet = false;
  bool resume = false;
  bool any_tree = false; // take a manifest of another tree
  bool cached = false;   // believe the page cache
  // Drills: an item of scheduled work overruns its time limit; a reading thread faults.
  bool stall = false;
  bool crash = false;
};

struct Job {
  std::string root;
  OwnPaths paths;
  const Options &options;
};

class Report;

// Read a directory, and tell the report what they find. Throw an exception derived from
// std::exception if they cannot run. After an interrupt they return as usual.
void create(const Job &job, Report &report); // records every file below the root
void verify(const Job &job, Report &report); // reads every recorded file again and compares
void update(const Job &job, Report &report); // reads what was written since, and records it

} // namespace scrub

#endif
