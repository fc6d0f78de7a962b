// Reads the settings file.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SETTINGS_FILE_HPP
#define SCRUB_SETTINGS_FILE_HPP

#include "options.hpp"

namespace scrub {

// Adds the settings of line.settings_file to line.options. Leaves out a setting of an option that
// the command line has or that the command does not take, but refuses a wrong value of it too.
// Throws std::runtime_error: "settings FILE, line 7: THREADS is '0', wanted: 1 to 16". Needs the
// library to be started.
void read_settings(CommandLine &line);

} // namespace scrub

#endif
