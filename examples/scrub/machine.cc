// Prints the machine's layout and keeps the mean usage of its CPUs.
// SPDX-License-Identifier: Apache-2.0
#include "machine.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <utility>

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
  keep(usage);
  ++samples_;
}

// Adds a sample to the last point of the history, or begins a point. A point has the
// CPUs of its samples: there are none before the library's first sample.
void CpuUsage::keep(const Vector<std::uint32_t> &usage) {
  if (samples_ % per_point_ == 0) {
    if (history_.size() == kPoints) halve();
    history_.emplace_back(usage.size());
  }
  Vector<std::uint64_t> &point = history_.back();
  point.resize(usage.size());
  for (std::size_t cpu = 0; cpu < usage.size(); ++cpu)
    point[cpu] += usage[cpu];
}

// Merges each two points into one.
void CpuUsage::halve() {
  for (std::size_t i = 0; i < kPoints / 2; ++i) {
    Vector<std::uint64_t> &point = history_[2 * i];
    const Vector<std::uint64_t> &next = history_[2 * i + 1];
    for (std::size_t cpu = 0; cpu < std::min(point.size(), next.size()); ++cpu)
      point[cpu] += next[cpu];
    if (i != 0) history_[i] = std::move(point);
  }
  history_.resize(kPoints / 2);
  per_point_ *= 2;
}

CpuFigures CpuUsage::figures() {
  if (samples_ == 0) sample();
  const std::lock_guard hold(mutex_);
  CpuFigures figures;
  for (std::size_t cpu = 0; cpu < sums_.size(); ++cpu) {
    figures.means.push_back(static_cast<std::uint32_t>(mean(sums_[cpu], samples_)));
    std::vector<std::uint8_t> &history = figures.history.emplace_back();
    for (std::size_t i = 0; i < history_.size(); ++i) {
      const std::uint64_t samples = std::min(per_point_, samples_ - i * per_point_);
      const std::uint64_t sum = cpu < history_[i].size() ? history_[i][cpu] : 0;
      history.push_back(
          static_cast<std::uint8_t>(std::min<std::uint64_t>(mean(sum, samples), 100)));
    }
  }
  return figures;
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

std::string layout_text() {
  std::uint32_t packages = 0;
  std::uint32_t cpus = 0;
  char model[VORN_CPUMODEL_SIZE] = "";
  if (vorn_get_phycpu_num(&packages) != 0 || vorn_get_logic_cpu_num(&cpus) != 0 ||
      vorn_get_cpumodel_info(model) != 0)
    return {};
  const bool known = std::strcmp(model, "unknown") != 0;
  return counted(cpus, "CPU") + " in " + counted(packages, "package") + (known ? ", " : "") +
         (known ? model : "") + ", " + std::to_string(vorn_sysinfo_mem_usage()) +
         " % of the memory in use";
}

void print_layout() {
  const std::string layout = layout_text();
  if (layout.empty()) return;
  std::printf("  machine   %s\n", layout.c_str());
  print_nodes();
}

} // namespace scrub
