// Prints and logs the findings, and prints the account at the end.
// SPDX-License-Identifier: Apache-2.0
#include "report.hpp"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>

#include "account.hpp"
#include "finding_text.hpp"
#include "html_report.hpp"
#include "instance.hpp"
#include "json_report.hpp"
#include "log.hpp"
#include "memory_table.hpp"
#include "text.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

constexpr std::size_t kLongestLoggedPath = 2048; // bytes

void print_row(const std::string &name, const std::string &value) {
  if (!value.empty()) std::printf("  %-9s %s\n", name.c_str(), value.c_str());
}

std::string busy_text(const CpuFigures &cpus) {
  if (cpus.means.empty()) return {};
  std::uint64_t sum = 0;
  for (const std::uint32_t mean : cpus.means)
    sum += mean;
  const std::uint64_t count = cpus.means.size();
  std::string text = grouped((sum + count / 2) / count) + " % of the CPUs:";
  for (std::size_t cpu = 0; cpu < count; ++cpu)
    text += (cpu == 0 ? " " : ", ") + std::to_string(cpu) + ": " + grouped(cpus.means[cpu]) + " %";
  return text;
}

void print_memory() {
  const Vector<ModuleMemory> modules = memory_by_module();
  if (modules.empty()) print_row("memory", "not accounted: there is no kernel module");
  const char *title = "memory";
  for (const ModuleMemory &module : modules) {
    print_row(title, bytes_text(static_cast<double>(module.bytes)) + " held by " + module.name);
    title = "";
  }
}

std::string label_of(const Finding &finding) {
  std::string label = finding_name(finding);
  for (char &letter : label)
    letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
  return label;
}

// A damaged file and one with passing faults have a finding for each range.
bool counts_as_file(const Finding &finding) {
  const bool ranges = finding.verdict == Verdict::kDamaged || finding.verdict == Verdict::kPassing;
  return !ranges || finding.begins_file;
}

} // namespace

Report::Report(const Job &job, Command command, const Outputs &outputs)
    : job_(job), command_(command), outputs_(outputs), started_(vorn_time_getnanosec()),
      progress_(outputs.console, std::string(printable(job.root)),
                job.options.output == Output::kText && !job.options.quiet) {
  figures_.root = job.root;
  figures_.manifest = job.paths.manifest();
  if (outputs_.json != nullptr) outputs_.json->begin_directory(job, outputs.has_log);
  if (outputs_.page != nullptr) outputs_.page->begin_directory();
}

bool Report::is_text() const { return job_.options.output == Output::kText; }

void Report::begin(const std::string &what) {
  if (is_text() && !job_.options.quiet) progress_.print("%s", what.c_str());
  if (outputs_.has_log) SCRUB_LOG(EVLOG_INFO, "%s.", what.c_str());
}

void Report::note(const std::string &text) {
  figures_.notes.push_back(text);
  if (is_text() && !job_.options.quiet) progress_.print("%s", text.c_str());
}

void Report::finding(const Finding &finding) {
  if (counts_as_file(finding)) end_file();
  count_finding(finding);
  if (outputs_.has_log) log_finding(finding);
  if (outputs_.page != nullptr) outputs_.page->add_finding(finding);
  if (outputs_.json != nullptr) outputs_.json->finding(finding);
  if (is_text()) print_finding(finding);
}

void Report::count_finding(const Finding &finding) {
  if (finding.accepted) {
    if (counts_as_file(finding)) ++count(Count::kAccepted);
    return;
  }
  if (counts_as_file(finding)) ++count_of(finding.verdict);
  if (finding.verdict == Verdict::kDamaged) count(Count::kDamagedBlocks) += finding.blocks;
  if (finding.verdict == Verdict::kPassing) count(Count::kPassingBlocks) += finding.blocks;
}

// The number of messages has a limit, so that a run with many findings leaves the log of the runs
// before it in place. The message at the end of the run is always there.
void Report::log_finding(const Finding &finding) {
  if (++findings_ > kMostLogged) return;
  const bool damage = finding.verdict == Verdict::kDamaged && !finding.accepted;
  SCRUB_LOG(damage ? EVLOG_ERROR : EVLOG_WARNING, "%s: %s.", finding_name(finding),
            finding_text(finding, kLongestLoggedPath).c_str());
}

void Report::print_finding(const Finding &finding) {
  if (finding.accepted && !counts_as_file(finding)) return;
  progress_.print("%-11s %s", label_of(finding).c_str(), finding_text(finding).c_str());
  for (const std::string &line : finding_details(finding))
    progress_.print("            %s", line.c_str());
  silent_damage_open_ = finding.verdict == Verdict::kDamaged && !finding.accepted;
}

void Report::end_file() {
  if (silent_damage_open_)
    progress_.print("            not written since it was recorded: silent damage");
  silent_damage_open_ = false;
}

ExitStatus Report::status() const { return status_of(command_, tally(), ended_early_, false); }

std::uint64_t Report::damaged_files() const { return count_of(Verdict::kDamaged); }

std::uint64_t Report::taken() const { return vorn_time_getnanosec() - started_; }

void Report::close(ExitStatus status) {
  const Tally counts = tally();
  figures_.status = status;
  for (std::size_t i = 0; i < figures_.counts.size(); ++i)
    figures_.counts[i] = counts[count_for(static_cast<Verdict>(i))];
  figures_.damaged_blocks = counts[Count::kDamagedBlocks];
  figures_.accepted = counts[Count::kAccepted];
  figures_.series = series_.figures();
  figures_.cpus = cpus_.figures();
}

void Report::observe() {
  if (outputs_.page != nullptr) machine_ = machine_figures();
}

void Report::finish(const Summary &summary) {
  end_file();
  ended_early_ = summary.interrupted || summary.limited;
  progress_.finish(!ended_early_);
  if (!summary.note.empty()) figures_.notes.push_back(summary.note);
  count(Count::kFiles) = summary.read.files;
  count(Count::kBytes) = summary.read.bytes;
  const std::uint64_t taken = this->taken();
  figures_.figures = read_rows(command_, tally(), summary, taken);
  close(status());
  if (outputs_.json != nullptr) outputs_.json->end_directory(figures_, tally(), &summary, taken);
  if (outputs_.has_log) log_end(summary);
  if (is_text() && !job_.options.quiet) print_account(summary);
}

void Report::fail(const std::string &why) {
  end_file();
  progress_.finish(false);
  figures_.failure = why;
  close(kCouldNotRun);
  if (outputs_.json != nullptr) outputs_.json->end_directory(figures_, tally(), nullptr, taken());
}

void Report::log_end(const Summary &summary) {
  if (findings_ > kMostLogged)
    SCRUB_LOG(EVLOG_WARNING, "%" PRIu64 " findings more are not in the log.",
              findings_ - kMostLogged);
  SCRUB_LOG(EVLOG_INFO, "%s of %s ended. %s. %" PRIu64 " files, %" PRIu64 " bytes read.",
            command_name(command_), printable(job_.root).c_str(),
            verdict_line(command_, tally(), summary).c_str(), summary.read.files,
            summary.read.bytes);
}

void Report::print_account(const Summary &summary) {
  std::printf("\n%s\n", verdict_line(command_, tally(), summary).c_str());
  for (const Row &row : figures_.figures)
    print_row(row.name, row.value);
  print_row("machine", layout_text());
  print_row("numa", nodes_text());
  print_row("busy", busy_text(figures_.cpus));
  print_memory();
  print_row("manifest", std::string(printable(job_.paths.manifest())));
  const std::string log(printable(job_.paths.log()));
  print_row("log",
            outputs_.has_log
                ? counted(log_messages_written, "message") + " of vorn-scrub in " + log
                : "none, cannot write " + log + ": warnings and errors alone, on the console");
}

} // namespace scrub
