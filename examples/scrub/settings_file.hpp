// Reads the settings file of an operator, an INI file with the section [SCRUB]; scrub.ini is a
// sample.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SETTINGS_FILE_HPP
#define SCRUB_SETTINGS_FILE_HPP

#include <string>

#include "options.hpp"

namespace scrub {

// Takes each item that no option of the command line replaces. Throws std::runtime_error, with the
// line, if the file cannot be read, or a setting is unknown, repeated or cannot take effect. The
// library must have started.
void read_settings(const std::string &path, CommandLine &line);

} // namespace scrub

#endif
