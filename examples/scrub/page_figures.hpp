// Defines what the page of a run shows.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PAGE_FIGURES_HPP
#define SCRUB_PAGE_FIGURES_HPP

#include <array>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "machine.hpp"
#include "memory_table.hpp"
#include "scrub.hpp"
#include "series.hpp"
#include "thread_table.hpp"
#include "timer_table.hpp"
#include "verdict.hpp"

namespace scrub {

// A figure with its name, in the words of the report.
struct Row {
  std::string name;
  std::string value;
};

struct DirectoryFigures {
  std::string root;
  std::string manifest;
  ExitStatus status = kClean;
  std::string failure{};            // kCouldNotRun: the error
  std::vector<std::string> notes{}; // sentences
  std::array<std::uint64_t, static_cast<std::size_t>(Verdict::kVerdicts)> counts{}; // of files
  std::uint64_t damaged_blocks = 0;
  std::uint64_t accepted = 0; // files that --accept names
  std::vector<Row> figures{}; // what was read and recorded, and how
  Series::Figures series{};
  CpuFigures cpus{};
};

// What the process and the machine did during the run.
struct MachineFigures {
  std::string layout{}; // CPUs and memory
  std::vector<ThreadRow> threads{};
  std::vector<TimerRow> timers{};
  std::vector<Row> pool{};
  Vector<ModuleMemory> memory{};
};

struct PageFigures {
  Command command = Command::kVerify;
  ExitStatus status = kClean; // of all directories
  std::string failure{};      // why nothing could run
  std::time_t started = 0;
  std::time_t ended = 0;
  std::vector<DirectoryFigures> directories{};
  MachineFigures machine{};
  std::vector<Row> settings{};
  std::string version{}; // of the program
};

// Collects what the library and the system tell at the end of a run.
MachineFigures machine_figures();

} // namespace scrub

#endif
