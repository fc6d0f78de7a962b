// Runs the rows of a program for the analysis. A row is a function whose name begins with row_, and
// tools/analyse-aarch64 analyses its last call, which finds everything initialised.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BENCH_ANALYSIS_ROWS_HPP
#define VORN_BENCH_ANALYSIS_ROWS_HPP

#include <initializer_list>

inline void run(std::initializer_list<void (*)()> rows) {
  for (void (*row)() : rows) {
    for (int call = 0; call < 3; ++call)
      row();
  }
}

#endif
