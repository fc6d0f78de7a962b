// Reports the run of a directory: prints and logs a line for each finding, and prints the account
// at the end. Used by the thread of the run's instance, whose counts it keeps; any thread may use
// progress(), cpus() and series().
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_REPORT_HPP
#define SCRUB_REPORT_HPP

#include <cstdint>
#include <string>

#include "console.hpp"
#include "machine.hpp"
#include "page_figures.hpp"
#include "progress.hpp"
#include "scrub.hpp"
#include "series.hpp"
#include "summary.hpp"
#include "verdict.hpp"

namespace scrub {

class HtmlReport;
class JsonRun;

// Where the reports of all directories go.
struct Outputs {
  Console &console;
  JsonRun *json = nullptr;    // with --json and --json-lines alone
  HtmlReport *page = nullptr; // with --report alone
  bool has_log = false;       // if not, findings are not logged
};

class Report {
public:
  Report(const Job &job, Command command, const Outputs &outputs);

  // Says what begins: "Verifying /srv/data against /var/lib/manifest".
  void begin(const std::string &what);

  // Keeps a sentence for people: what narrows the run, or what it could not do.
  void note(const std::string &text);

  void finding(const Finding &finding);

  // There is no further finding of the file of the last one. Without this call the next finding of
  // another file says so, or the end of the run.
  void end_file();

  // From the counts so far. After finish() also from the summary.
  ExitStatus status() const;
  std::uint64_t damaged_files() const;

  Progress &progress() { return progress_; }
  CpuUsage &cpus() { return cpus_; }
  Series &series() { return series_; }

  // Keeps what the page shows of threads and timers. Called before they end.
  void observe();

  // Called once, or fail() is.
  void finish(const Summary &summary);

  // An error ended the run. The caller reports the error.
  void fail(const std::string &why);

  // What the page shows. Valid after finish() or fail().
  const DirectoryFigures &figures() const { return figures_; }
  const MachineFigures &machine() const { return machine_; }

private:
  static constexpr std::uint64_t kMostLogged = 10000; // findings

  bool is_text() const;
  void count_finding(const Finding &finding);
  void log_finding(const Finding &finding);
  void print_finding(const Finding &finding);
  std::uint64_t taken() const; // nanoseconds
  void close(ExitStatus status);
  void log_end(const Summary &summary);
  void print_account(const Summary &summary);

  const Job &job_;
  const Command command_;
  const Outputs outputs_;
  const std::uint64_t started_; // nanoseconds
  Progress progress_;
  CpuUsage cpus_;
  Series series_;
  DirectoryFigures figures_;
  MachineFigures machine_;
  bool ended_early_ = false;        // interrupted or limited
  bool silent_damage_open_ = false; // the last line is of a damaged file, whose last line is due
  std::uint64_t findings_ = 0;
};

} // namespace scrub

#endif
