// The machine that a run reads on: its layout, and how busy its CPUs were during the run.
#ifndef SCRUB_MACHINE_HPP
#define SCRUB_MACHINE_HPP

#include <cstdint>
#include <mutex>

#include "memory.hpp"

namespace scrub {

// The figures of the library are those of the last second; this keeps their mean. Any thread may
// call any function.
class CpuUsage {
public:
  // To be called once a second.
  void sample();

  // Prints the mean of each CPU; the last second alone if there is no sample.
  void print();

private:
  std::mutex mutex_;
  Vector<std::uint64_t> sums_; // of percents
  std::uint64_t samples_ = 0;
};

// Prints packages, CPUs and model, the memory in use, and the NUMA nodes if a NUMA file tells them.
void print_layout();

} // namespace scrub

#endif
