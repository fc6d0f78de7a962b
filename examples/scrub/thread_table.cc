// Keeps the CPU time of each thread of the process.
// SPDX-License-Identifier: Apache-2.0
#include "thread_table.hpp"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "vorn_thrd.h"

namespace scrub {
namespace {

constexpr const char *kStrategies[] = {"default",    "critical", "control",
                                       "management", "I/O",      "background"};
static_assert(std::size(kStrategies) == VORN_THRD_STRATEGY_COUNT);

// Adds the strategy if the library knows the thread.
void ask_library(ThreadRow &row) {
  vorn_thread_s *record = vorn_thrd_getthreadinfobytid(row.tid);
  if (record == nullptr) return;
  const int strategy = __atomic_load_n(&record->strategy, __ATOMIC_RELAXED);
  const bool known = strategy >= 0 && strategy < VORN_THRD_STRATEGY_COUNT;
  row.strategy = known ? kStrategies[strategy] : "none applied";
  vorn_thrd_putthreadinfo(record);
}

// Reads a thread's stat file: "1 (name) S ..." with the user and the system time in ticks as fields
// 14 and 15, and its start as field 22. A name may contain blanks and parentheses.
bool ask_system(ThreadRow &row) {
  std::ifstream file("/proc/self/task/" + std::to_string(row.tid) + "/stat");
  const std::string line((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const std::size_t open = line.find('(');
  const std::size_t close = line.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return false;
  row.name = line.substr(open + 1, close - open - 1);

  std::istringstream fields(line.substr(close + 1));
  std::string state;
  fields >> state;
  std::uint64_t ticks = 0;
  for (int field = 4; field <= 22; ++field) {
    std::int64_t value = 0;
    if (!(fields >> value)) return false;
    if (field == 14 || field == 15) ticks += static_cast<std::uint64_t>(value);
    if (field == 22) row.began = static_cast<std::uint64_t>(value);
  }
  row.seconds = static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
  return true;
}

std::vector<long> threads_of_process() {
  const auto close = [](DIR *directory) { closedir(directory); };
  const std::unique_ptr<DIR, decltype(close)> directory(opendir("/proc/self/task"), close);
  std::vector<long> tids;
  if (directory == nullptr) return tids;
  while (const dirent *entry = readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    long tid = 0;
    if (std::from_chars(name.data(), name.data() + name.size(), tid).ec == std::errc())
      tids.push_back(tid);
  }
  return tids;
}

} // namespace

// The system may give the id of an ended thread to a new one, which has another start.
void ThreadTable::take(ThreadRow row) {
  const auto same = std::find_if(rows_.begin(), rows_.end(), [&](const ThreadRow &at) {
    return at.tid == row.tid && at.began == row.began;
  });
  if (same != rows_.end()) {
    row.seconds = std::max(row.seconds, same->seconds); // note() is more precise than sample()
    *same = std::move(row);
  } else if (rows_.size() < kMost) {
    rows_.push_back(std::move(row));
  }
}

void ThreadTable::sample() {
  const std::lock_guard hold(mutex_);
  const std::vector<long> tids = threads_of_process();
  if (tids.empty()) return;
  for (ThreadRow &row : rows_)
    row.ended = true;
  for (const long tid : tids) {
    ThreadRow row{.tid = tid};
    if (!ask_system(row)) continue; // it has ended since
    ask_library(row);
    take(std::move(row));
  }
}

void ThreadTable::note() {
  ThreadRow row{.tid = vorn_thread_get_knl_tid()};
  const std::lock_guard hold(mutex_);
  if (!ask_system(row)) return;
  ask_library(row);
  timespec used{};
  if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used) == 0)
    row.seconds = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
  take(std::move(row));
}

std::vector<ThreadRow> ThreadTable::rows() {
  sample();
  const std::lock_guard hold(mutex_);
  return rows_;
}

ThreadTable &thread_table() {
  static ThreadTable table;
  return table;
}

} // namespace scrub
