#include "machine.hpp"

#include <cstdio>
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
  std::printf("  busy      %s %% of the CPUs:", grouped(sum / samples_ / sums_.size()).c_str());
  for (std::size_t cpu = 0; cpu < sums_.size(); ++cpu)
    std::printf("%s %zu: %s %%", cpu == 0 ? "" : ",", cpu, grouped(sums_[cpu] / samples_).c_str());
  std::putchar('\n');
}

void print_layout() {
  std::uint32_t packages = 0;
  std::uint32_t cpus = 0;
  char model[VORN_CPUMODEL_SIZE] = "";
  if (vorn_get_phycpu_num(&packages) != 0 || vorn_get_logic_cpu_num(&cpus) != 0 ||
      vorn_get_cpumodel_info(model) != 0)
    return;
  std::printf("  machine   %s in %s (%s), %u %% of the memory in use\n",
              counted(cpus, "CPU").c_str(), counted(packages, "package").c_str(), model,
              vorn_sysinfo_mem_usage());
}

} // namespace scrub
