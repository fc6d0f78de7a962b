// Defines the functions for programs that are linked with --wrap=popen and similar options.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cmd.h"

FILE *__wrap_popen(const char *command, const char *mode) { return vorn_popen(command, mode); }

int __wrap_pclose(FILE *stream) { return vorn_pclose(stream); }

int __wrap_system(const char *command) { return vorn_system(command); }
