// The two jobs of the service.
#ifndef SCRUB_SCRUB_HPP
#define SCRUB_SCRUB_HPP

#include <string>

#include "places.hpp"
#include "settings.hpp"

namespace scrub {

enum ExitStatus { kClean = 0, kDamage = 1, kCouldNotRun = 2, kPassingFault = 3 };

struct Job {
  std::string root;
  Places places;
  Settings settings;
  bool has_log = false;
  // Drills: have an item of scheduled work overrun its time limit, a checksum thread fault.
  bool stall = false;
  bool crash = false;
};

// Records the checksums of every file below the root. What cannot be read is reported and left out.
ExitStatus create(const Job &job);

// Reads every file again and compares. A new file is reported, and is no damage.
ExitStatus verify(const Job &job);

// Both throw what is derived from std::exception when they cannot run.

} // namespace scrub

#endif
