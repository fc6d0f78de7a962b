// Declares the stand-in's console, which is standard error.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSIM_CONSOLE_HPP
#define VORNSIM_CONSOLE_HPP

#include "vorn_api.h"

namespace vornsim {

// Writes one bounded text unless printing is off. No cancellation point.
void print(const char *format, ...) VORN_PRINTF(1, 2);

void set_printing(bool on);

} // namespace vornsim

#endif
