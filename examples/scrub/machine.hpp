// Prints the layout of the machine and the usage of its CPUs during the run.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MACHINE_HPP
#define SCRUB_MACHINE_HPP

#include <cstdint>
#include <mutex>

#include "memory.hpp"

namespace scrub {

// Keeps the mean of the library's figures; each figure covers the last second. Any thread may call
// any function.
class CpuUsage {
public:
  // Called once a second.
  void sample();

  // Prints the mean of each CPU, or only the last second if there is no sample.
  void print();

private:
  std::mutex mutex_;
  Vector<std::uint64_t> sums_; // of percents
  std::uint64_t samples_ = 0;
};

// Prints packages, CPUs and model, the memory in use, and the NUMA nodes if there is a NUMA file.
void print_layout();

} // namespace scrub

#endif
