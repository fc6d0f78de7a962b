// Declares the two jobs of the service.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SCRUB_HPP
#define SCRUB_SCRUB_HPP

#include <string>

#include "own_files.hpp"
#include "settings.hpp"

namespace scrub {

enum ExitStatus { kClean = 0, kDamage = 1, kCouldNotRun = 2, kPassingFault = 3 };

struct Job {
  std::string root;
  OwnPaths paths;
  Settings settings;
  bool has_log = false;
  // Drills: an item of scheduled work overruns its time limit; a checksum thread faults.
  bool stall = false;
  bool crash = false;
};

// Records the checksums of every file below the root. Reports and omits files that cannot be read.
ExitStatus create(const Job &job);

// Reads every file again and compares. Reports a new file, but not as damage.
ExitStatus verify(const Job &job);

// Both throw an exception derived from std::exception if they cannot run.

} // namespace scrub

#endif
