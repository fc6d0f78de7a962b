// Prints the layout of the machine and the usage of its CPUs during the run.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MACHINE_HPP
#define SCRUB_MACHINE_HPP

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "memory.hpp"

namespace scrub {

// The usage of each CPU in percent.
struct CpuFigures {
  std::vector<std::uint32_t> means{};
  // Of each CPU: means of consecutive spans of time, all of the same length; the last may be
  // shorter.
  std::vector<std::vector<std::uint8_t>> history{};
};

// Keeps the mean of the library's figures; each figure covers the last second. Any thread may call
// any function.
class CpuUsage {
public:
  // Called once a second.
  void sample();

  // Prints the mean of each CPU, or only the last second if there is no sample.
  void print();

  CpuFigures figures();

private:
  static constexpr std::size_t kPoints = 60; // of the history

  void keep(const Vector<std::uint32_t> &usage);
  void halve();

  std::mutex mutex_;
  Vector<std::uint64_t> sums_; // of percents
  std::uint64_t samples_ = 0;
  Vector<Vector<std::uint64_t>> history_; // points of the CPUs; a point is a sum of percents
  std::uint64_t per_point_ = 1;           // samples
};

// Returns "4 CPUs in 1 package, MODEL, 40 % of the memory in use"; empty if the machine does not
// tell.
std::string layout_text();

// Prints packages, CPUs and model, the memory in use, and the NUMA nodes if there is a NUMA file.
void print_layout();

} // namespace scrub

#endif
