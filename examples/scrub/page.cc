// Writes the page of a run.
// SPDX-License-Identifier: Apache-2.0
#include "page.hpp"

#include <cinttypes>
#include <string>

#include "account.hpp"
#include "page_style.hpp"
#include "plots.hpp"
#include "text.hpp"
#include "vorn_version.h"

namespace scrub {
namespace {

struct Outcome {
  const char *style;
  const char *words;
  const char *meaning;
};

Outcome outcome_of(Command command, ExitStatus status) {
  switch (status) {
  case kClean:
    break;
  case kDamage:
    return {"damage", "SILENT DAMAGE",
            "Content differs from what was recorded, and neither size nor times say that a program "
            "wrote it."};
  case kCouldNotRun:
    return {"failed", "COULD NOT RUN", "An error ended the run. It says nothing about the data."};
  case kIncomplete:
    return {"incomplete", "INCOMPLETE",
            "No silent damage was found in what was read, but not everything could be read, or the "
            "medium was right only at the second read."};
  case kDifferent:
    return {"different", "DIFFERENCES",
            "Nothing is damaged. Files differ from the manifest because they were written, moved, "
            "added or removed."};
  }
  if (command == Command::kCreate)
    return {"clean", "RECORDED", "The manifest holds the checksums of every file."};
  if (command == Command::kUpdate)
    return {"clean", "UP TO DATE", "The manifest was brought up to date. No damage was found."};
  return {"clean", "CLEAN", "Everything that was read is as it was recorded."};
}

constexpr const char *kVerdictNames[] = {
    "Silent damage", "Passing fault", "Modified",           "Grown",  "Shrunk", "Missing", "New",
    "Moved",         "Unreadable",    "Changed while read", "Skipped"};
static_assert(std::size(kVerdictNames) == static_cast<std::size_t>(Verdict::kVerdicts));

const char *name_of(Verdict verdict) { return kVerdictNames[static_cast<std::size_t>(verdict)]; }

std::string time_text(std::time_t time) {
  tm parts{};
  char text[64] = "";
  if (localtime_r(&time, &parts) != nullptr)
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &parts);
  return text;
}

std::string hexadecimal(std::uint32_t number, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "%0*" PRIx32, digits, number);
  return text;
}

std::string range_text(std::uint64_t first, std::uint64_t last) {
  return first == last ? grouped(first) : grouped(first) + " to " + grouped(last);
}

// Cells.

Html cell(std::string_view text) {
  Html html;
  html << "<td>";
  html.text(text) << "</td>";
  return html;
}

Html code_cell(std::string_view text) {
  Html html;
  html << "<td class=\"code\">";
  html.text(text) << "</td>";
  return html;
}

Html number_cell(std::string_view text) {
  Html html;
  html << "<td class=\"number\">";
  html.text(text) << "</td>";
  return html;
}

Html number_cell(std::uint64_t number) { return number_cell(grouped(number)); }

// A name may hold characters that are written from right to left: bdi keeps them to themselves.
Html path_of(std::string_view path) {
  Html html;
  html << "<bdi>";
  html.path(path) << "</bdi>";
  return html;
}

Html path_header(std::string_view path) {
  Html html;
  html << "<th scope=\"row\" class=\"path\">" << path_of(path) << "</th>";
  return html;
}

Html row_header(std::string_view text) {
  Html html;
  html << "<th scope=\"row\">";
  html.text(text) << "</th>";
  return html;
}

// Tables.

Html begin_table(Literal id, std::string_view caption,
                 std::initializer_list<const char *> columns) {
  Html html;
  html << "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-label=\"";
  html.text(caption) << "\">\n<table class=\"" << id << "\">\n<caption>";
  html.text(caption) << "</caption>\n<thead><tr>";
  for (const char *column : columns) {
    html << "<th scope=\"col\">";
    html.text(column) << "</th>";
  }
  html << "</tr></thead>\n<tbody>\n";
  return html;
}

constexpr Literal kEndTable = "</tbody>\n</table>\n</div>\n";

Html row_table(Literal id, std::string_view caption, const std::vector<Row> &rows) {
  Html html;
  if (rows.empty()) return html;
  html << begin_table(id, caption, {"Figure", "Value"});
  for (const Row &row : rows)
    html << "<tr>" << row_header(row.name) << cell(row.value) << "</tr>\n";
  html << kEndTable;
  return html;
}

Html paragraph(std::string_view text) {
  Html html;
  html << "<p>";
  html.text(text) << "</p>\n";
  return html;
}

// Findings.

// Names the sectors of the first block whose guards differ.
std::string sectors_text(const Finding &finding) {
  std::string text;
  for (std::size_t i = 0; i < finding.expected.sectors; ++i) {
    if (finding.expected.guards[i] == finding.found.guards[i]) continue;
    text += (text.empty() ? "" : ", ") + grouped(finding.first_block * kSectorsPerBlock + i) +
            " (" + hexadecimal(finding.expected.guards[i], 4) + ", " +
            hexadecimal(finding.found.guards[i], 4) + ")";
  }
  return text;
}

Html damage_cells(const Finding &finding) {
  Html html;
  if (finding.whole_file) {
    html << cell(finding.blocks == 0 ? "" : counted(finding.blocks, "block")) << number_cell("")
         << cell("") << cell("") << cell("");
    return html;
  }
  const std::uint64_t last = finding.first_block + finding.blocks - (finding.blocks == 0 ? 0 : 1);
  html << cell(range_text(finding.first_block, last))
       << number_cell(finding.first_block * kBlockSize)
       << code_cell(hexadecimal(finding.expected.crc, 8))
       << code_cell(hexadecimal(finding.found.crc, 8)) << code_cell(sectors_text(finding));
  return html;
}

Html difference_cells(const Finding &finding) {
  const bool is_new = finding.verdict == Verdict::kNew;
  const bool is_missing = finding.verdict == Verdict::kMissing;
  Html html;
  html << number_cell(is_new ? "" : grouped(finding.recorded_size))
       << number_cell(is_missing ? "" : grouped(finding.size))
       << number_cell(finding.blocks == 0 ? "" : grouped(finding.blocks)) << "<td class=\"path\">"
       << path_of(finding.from) << "</td>";
  return html;
}

struct TableText {
  Literal id;
  const char *title;
  const char *caption;
  std::initializer_list<const char *> columns;
};

const TableText &text_of(FindingKind kind) {
  static const TableText kTexts[] = {
      {"damage",
       "Damage",
       "Ranges of blocks of 4,096 bytes that differ. The checksums are those of the first block of "
       "the range; sectors of 512 bytes have their guards, recorded and found.",
       {"Path", "Verdict", "Blocks", "First byte", "CRC-32C recorded", "CRC-32C found",
        "Sectors of the first block"}},
      {"not-read",
       "Not read",
       "Files that were not read to their end.",
       {"Path", "Verdict", "Why"}},
      {"differences",
       "Differences",
       "Files that were written, moved, added or removed.",
       {"Path", "Verdict", "Bytes recorded", "Bytes now", "Blocks that differ", "Recorded as"}}};
  return kTexts[static_cast<std::size_t>(kind)];
}

Html finding_table(FindingKind kind, const FindingTable &table) {
  Html html;
  if (table.rows.markup().empty() && table.left_out == 0) return html;
  const TableText &text = text_of(kind);
  html << "<h3>";
  html.text(text.title) << "</h3>\n"
                        << begin_table(text.id, text.caption, text.columns) << table.rows
                        << kEndTable;
  if (table.left_out != 0)
    html << paragraph(
        counted(table.left_out, "more row") +
        " would not fit on the page. The report on the terminal and the log have all.");
  return html;
}

Html count_table(const DirectoryFigures &directory) {
  Html html;
  html << begin_table("counts", "Files by verdict.", {"Verdict", "Files"});
  for (std::size_t i = 0; i < directory.counts.size(); ++i)
    html << (directory.counts[i] == 0 ? Literal("<tr class=\"none\">") : Literal("<tr>"))
         << row_header(kVerdictNames[i]) << number_cell(directory.counts[i]) << "</tr>\n";
  if (directory.accepted != 0)
    html << "<tr>" << row_header("Accepted as it is") << number_cell(directory.accepted)
         << "</tr>\n";
  html << kEndTable;
  return html;
}

Html cpu_table(const CpuFigures &cpus) {
  Html html;
  if (cpus.means.empty()) return html;
  html << "<h3>CPU per core</h3>\n"
       << begin_table("cpus", "Usage of each CPU of the machine, by all programs.",
                      {"CPU", "Mean", "Over time, 0 to 100 %"});
  for (std::size_t cpu = 0; cpu < cpus.means.size(); ++cpu) {
    html << "<tr>" << row_header(std::to_string(cpu))
         << number_cell(std::to_string(cpus.means[cpu]) + " %") << "<td>";
    if (cpu < cpus.history.size())
      html << usage_plot(cpus.history[cpu], "Usage of CPU " + std::to_string(cpu) + " over time");
    html << "</td></tr>\n";
  }
  html << kEndTable;
  return html;
}

Html plots(const DirectoryFigures &directory) {
  const std::string of(escape(directory.root));
  Html html;
  html << "<div class=\"plots\">\n<div>\n<h3>Throughput over time</h3>\n"
       << throughput_plot(directory.series, of) << "</div>\n<div>\n<h3>Latency of reads</h3>\n"
       << latency_plot(directory.series, of) << "</div>\n</div>\n";
  return html;
}

Html directory_section(const PageFigures &figures, std::size_t number,
                       const FindingTables &tables) {
  const DirectoryFigures &directory = figures.directories[number];
  Html html;
  html << "<section class=\"directory\" aria-labelledby=\"directory-";
  html.number(number) << "\">\n<h2 id=\"directory-";
  html.number(number) << "\"><span class=\"path\">" << path_of(directory.root) << "</span>: ";
  html.text(outcome_of(figures.command, directory.status).words) << "</h2>\n";
  if (!directory.failure.empty()) html << paragraph("Error: " + directory.failure + ".");
  for (const std::string &note : directory.notes)
    html << paragraph(note);
  html << "<div class=\"plots\">\n"
       << count_table(directory)
       << row_table("read", "What was read and recorded.", directory.figures) << "</div>\n";
  for (std::size_t kind = 0; kind < kFindingKinds; ++kind)
    html << finding_table(static_cast<FindingKind>(kind), tables[kind]);
  html << plots(directory) << cpu_table(directory.cpus) << "<p>Manifest: <span class=\"path\">"
       << path_of(directory.manifest) << "</span></p>\n</section>\n";
  return html;
}

// The machine.

Html thread_rows(const std::vector<ThreadRow> &threads) {
  Html html;
  html << "<h3>Threads</h3>\n"
       << begin_table("threads", "Threads of the process, with their CPU time.",
                      {"Name", "Thread id", "Strategy", "CPU time", "State"});
  for (const ThreadRow &thread : threads) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f s", thread.seconds);
    html << "<tr>" << row_header(thread.name) << number_cell(std::to_string(thread.tid))
         << cell(thread.strategy.empty() ? "not the library's" : thread.strategy)
         << number_cell(seconds) << cell(thread.ended ? "ended" : "runs") << "</tr>\n";
  }
  html << kEndTable;
  if (threads.size() >= ThreadTable::kMost)
    html << paragraph("Threads that started later are not in the table.");
  return html;
}

std::string milliseconds(std::uint64_t nanoseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4g ms", static_cast<double>(nanoseconds) / 1e6);
  return text;
}

Html timer_rows(const std::vector<TimerRow> &timers) {
  Html html;
  html << "<h3>Timers</h3>\n";
  if (timers.empty()) return html << paragraph("No timer expired.");
  html << begin_table("timers", "Timers of the service that expired.",
                      {"Purpose", "Set by", "Kind", "Time-out", "Expiries", "Latest by"});
  for (const TimerRow &timer : timers)
    html << "<tr>" << row_header(timer.purpose) << code_cell(timer.set_by)
         << cell(timer.high_resolution ? "high resolution" : "timer wheel")
         << number_cell(milliseconds(timer.period)) << number_cell(timer.expiries)
         << number_cell(milliseconds(timer.latest)) << "</tr>\n";
  html << kEndTable;
  return html;
}

Html memory_rows(const Vector<ModuleMemory> &memory) {
  Html html;
  html << "<h3>Memory by module</h3>\n";
  if (memory.empty())
    return html << paragraph("The memory was not accounted: there is no kernel module.");
  html << begin_table("memory", "Memory that the modules held at the end of the run.",
                      {"Module", "Bytes", "Amount"});
  for (const ModuleMemory &module : memory)
    html << "<tr>" << row_header(module.name)
         << number_cell(module.bytes < 0 ? std::to_string(module.bytes)
                                         : grouped(static_cast<std::uint64_t>(module.bytes)))
         << number_cell(bytes_text(static_cast<double>(module.bytes))) << "</tr>\n";
  html << kEndTable;
  return html;
}

Html machine_section(const PageFigures &figures) {
  const MachineFigures &machine = figures.machine;
  Html html;
  html << "<section aria-labelledby=\"machine\">\n<h2 id=\"machine\">How the run went</h2>\n";
  if (!machine.layout.empty()) html << paragraph("Machine: " + machine.layout + ".");
  html << "<div class=\"plots\">\n<div>\n"
       << thread_rows(machine.threads) << "</div>\n<div>\n"
       << "<h3>Work pool</h3>\n"
       << row_table("pool", "The pool of scheduled work.", machine.pool)
       << memory_rows(machine.memory) << "</div>\n</div>\n"
       << timer_rows(machine.timers) << "</section>\n";
  return html;
}

Html settings_section(const PageFigures &figures) {
  Html html;
  html << "<section aria-labelledby=\"settings\">\n<h2 id=\"settings\">Settings and versions</h2>\n"
       << "<div class=\"plots\">\n"
       << row_table("settings", "Settings of the run.", figures.settings)
       << row_table("versions", "Versions.",
                    {{"vorn-scrub", figures.version}, {"Vorn library", vorn_version()}})
       << "</div>\n</section>\n";
  return html;
}

Html head(const PageFigures &figures, const Outcome &outcome) {
  Html html;
  html << kPageStart << "<meta http-equiv=\"Content-Security-Policy\" content=\"" << kPagePolicy
       << "\">\n<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
          "<meta name=\"referrer\" content=\"no-referrer\">\n<title>";
  html.text(outcome.words) << ": vorn-scrub ";
  html.text(command_name(figures.command));
  for (std::size_t i = 0; i < figures.directories.size() && i < 3; ++i) {
    html << " ";
    html.path(figures.directories[i].root);
  }
  html << "</title>\n<style>" << kPageStyle << "</style>\n</head>\n<body>\n";
  return html;
}

Html verdict(const PageFigures &figures, const Outcome &outcome) {
  Html html;
  html << "<header class=\"";
  html.text(outcome.style) << "\">\n<p>vorn-scrub ";
  html.text(command_name(figures.command)) << "</p>\n<h1>";
  html.text(outcome.words) << "</h1>\n" << paragraph(outcome.meaning);
  if (!figures.failure.empty()) html << paragraph("Error: " + figures.failure + ".");
  html << "<p>From <time>";
  html.text(time_text(figures.started)) << "</time> to <time>";
  html.text(time_text(figures.ended)) << "</time>. Exit status ";
  html.number(static_cast<std::uint64_t>(figures.status)) << ".</p>\n</header>\n<main>\n";
  return html;
}

void write(std::FILE *file, const Html &html) {
  std::fwrite(html.markup().data(), 1, html.markup().size(), file);
}

} // namespace

FindingKind kind_of(Verdict verdict) {
  switch (verdict) {
  case Verdict::kDamaged:
  case Verdict::kPassing:
    return FindingKind::kDamage;
  case Verdict::kUnreadable:
  case Verdict::kChanged:
  case Verdict::kSkipped:
    return FindingKind::kNotRead;
  default:
    return FindingKind::kDifferences;
  }
}

Html finding_row(const Finding &finding) {
  Html html;
  const std::string verdict = name_of(finding.verdict);
  html << "<tr>" << path_header(finding.path)
       << cell(finding.accepted ? verdict + ", accepted" : verdict);
  switch (kind_of(finding.verdict)) {
  case FindingKind::kDamage:
    html << damage_cells(finding);
    break;
  case FindingKind::kNotRead:
    html << cell(finding.why);
    break;
  default:
    html << difference_cells(finding);
  }
  html << "</tr>\n";
  return html;
}

void write_page(std::FILE *file, const PageFigures &figures,
                std::span<const FindingTables> tables) {
  const Outcome outcome = outcome_of(figures.command, figures.status);
  write(file, head(figures, outcome));
  write(file, verdict(figures, outcome));
  const FindingTables none{};
  for (std::size_t i = 0; i < figures.directories.size(); ++i)
    write(file, directory_section(figures, i, i < tables.size() ? tables[i] : none));
  write(file, machine_section(figures));
  write(file, settings_section(figures));
  std::fputs("</main>\n<footer><p>This page needs no network and no other file.</p></footer>\n"
             "</body>\n</html>\n",
             file);
}

} // namespace scrub
