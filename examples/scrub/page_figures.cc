// Collects what the library and the system tell at the end of a run.
// SPDX-License-Identifier: Apache-2.0
#include "page_figures.hpp"

#include <algorithm>

#include "text.hpp"
#include "vorn_sched_work.h"

namespace scrub {
namespace {

// The name that the library gives to the threads of scheduled work.
constexpr std::string_view kWorker = "vorn_schedwork";

std::vector<Row> pool_rows(const std::vector<ThreadRow> &threads) {
  const auto workers = std::count_if(threads.begin(), threads.end(), [](const ThreadRow &thread) {
    return thread.name == kWorker && !thread.ended;
  });
  std::vector<Row> rows = {{"Threads", grouped(static_cast<std::uint64_t>(workers)) +
                                           " of at most " + grouped(VORN_SCHED_WORK_THREAD_COUNT)}};

  vorn_sched_work_heal_task_s *task = nullptr;
  std::uint32_t tasks = 0;
  if (vorn_get_sched_work_heal_task_info(&task, &tasks) != 0 || tasks == 0 ||
      task->check == nullptr)
    return rows;
  vorn_sched_work_heal_result_s result{};
  task->check(&result);
  rows.push_back({task->name, result.outcome == 1 ? "passed at the end of the run: no stall"
                                                  : "failed: every thread of the pool hangs"});
  return rows;
}

} // namespace

MachineFigures machine_figures() {
  MachineFigures figures;
  figures.layout = layout_text();
  figures.threads = thread_table().rows();
  figures.timers = timer_table().rows();
  figures.pool = pool_rows(figures.threads);
  figures.memory = memory_by_module();
  return figures;
}

} // namespace scrub
