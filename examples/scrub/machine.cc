// Prints the machine's layout and keeps the mean usage of its CPUs.
// SPDX-License-Identifier: Apache-2.0
#include "machine.hpp"

#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>

#include "text.hpp"
#include "vorn_cpuinfo.h"
#include "vorn_cpumask.h"
#include "vorn_numa.h"
#include "vorn_sysinfo.h"

namespace scrub {
namespace {

Vector<std::uint32_t> usage_now() {
  Vector<std::uint32_t> usage(VORN_CPUMASK_CPU_COUNT);
  const int count =
      vorn_get_cpu_usage_array(usage.data(), static_cast<std::uint32_t>(usage.size()));
  usage.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return usage;
}

// Returns the CPUs of a node as "0-7,16".
std::string cpus_of(std::uint32_t node) {
  cpumask mask{};
  vorn_numam_cpumask_get(node, &mask);
  std::string list;
  for (unsigned cpu = vorn_first_cpu(&mask); cpu < VORN_CPUMASK_CPU_COUNT;) {
    unsigned last = cpu;
    unsigned next = vorn_next_cpu(last, &mask);
    for (; next == last + 1 && next < VORN_CPUMASK_CPU_COUNT; next = vorn_next_cpu(last, &mask))
      last = next;
    if (!list.empty()) list += ',';
    list += std::to_string(cpu);
    if (last != cpu) list += '-' + std::to_string(last);
    cpu = next;
  }
  return list;
}

// Prints the NUMA nodes of the file in the settings, or else of the node's file if there is one.
void print_nodes() {
  if (vorn_numam_init(nullptr) != 0 || vorn_numam_num_get() == 0) return;
  const auto nodes = static_cast<std::uint32_t>(vorn_numam_num_get());
  std::printf("  numa      %s:", counted(nodes, "node").c_str());
  for (std::uint32_t node = 0; node < nodes; ++node)
    std::printf("%s CPUs %s", node == 0 ? "" : ",", cpus_of(node).c_str());
  std::putchar('\n');
}

// Returns the quotient, rounded to the nearest whole number.
std::uint64_t mean(std::uint64_t sum, std::uint64_t count) { return (sum + count / 2) / count; }

} // namespace

void CpuUsage::sample() {
  const Vector<std::uint32_t> usage = usage_now();
  const std::lock_guard hold(mutex_);
  sums_.resize(usage.size());
  for (std::size_t cpu = 0; cpu < usage.size(); ++cpu)
    sums_[cpu] += usage[cpu];
  ++samples_;
}

void CpuUsage::print() {
  if (samples_ == 0) sample();
  const std::lock_guard hold(mutex_);
  if (sums_.empty()) return;
  const std::uint64_t sum = std::accumulate(sums_.begin(), sums_.end(), std::uint64_t{0});
  std::printf("  busy      %s %% of the CPUs:",
              grouped(mean(sum, samples_ * sums_.size())).c_str());
  for (std::size_t cpu = 0; cpu < sums_.size(); ++cpu)
    std::printf("%s %zu: %s %%", cpu == 0 ? "" : ",", cpu,
                grouped(mean(sums_[cpu], samples_)).c_str());
  std::putchar('\n');
}

void print_layout() {
  std::uint32_t packages = 0;
  std::uint32_t cpus = 0;
  char model[VORN_CPUMODEL_SIZE] = "";
  if (vorn_get_phycpu_num(&packages) != 0 || vorn_get_logic_cpu_num(&cpus) != 0 ||
      vorn_get_cpumodel_info(model) != 0)
    return;
  const bool known = std::strcmp(model, "unknown") != 0;
  std::printf("  machine   %s in %s%s%s, %u %% of the memory in use\n",
              counted(cpus, "CPU").c_str(), counted(packages, "package").c_str(), known ? ", " : "",
              known ? model : "", vorn_sysinfo_mem_usage());
  print_nodes();
}

} // namespace scrub
