// Writes the findings and the figures of a run as JSON.
// SPDX-License-Identifier: Apache-2.0
#include "json_report.hpp"

#include <algorithm>
#include <cstdio>
#include <span>
#include <system_error>
#include <utility>

#include "account.hpp"
#include "finding_text.hpp"
#include "memory_table.hpp"
#include "text.hpp"

namespace scrub {
namespace {

constexpr std::uint64_t kVersion = 1; // of the objects

void print(const Json &json) {
  const String &text = json.str();
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void print_line(const Json &json) {
  print(json);
  std::putchar('\n');
  std::fflush(stdout);
}

void add_hexadecimal(Json &json, unsigned int number, int digits) {
  char text[16];
  const int length = std::snprintf(text, sizeof text, "%0*x", digits, number);
  json.text({text, static_cast<std::size_t>(length)});
}

bool has_blocks(Verdict verdict) {
  return verdict == Verdict::kDamaged || verdict == Verdict::kPassing;
}

void add_sectors(Json &json, const Finding &finding) {
  json.key("sectors").begin_array();
  for (std::size_t i = 0; i < finding.expected.sectors; ++i) {
    if (finding.expected.guards[i] == finding.found.guards[i]) continue;
    const std::uint64_t sector = finding.first_block * kSectorsPerBlock + i;
    json.begin_object().key("sector").number(sector);
    json.key("offset").number(sector * kSectorSize);
    add_hexadecimal(json.key("expected"), finding.expected.guards[i], 4);
    add_hexadecimal(json.key("found"), finding.found.guards[i], 4);
    json.end_object();
  }
  json.end_array();
}

// It is known how many blocks of a whole file differ, not which; of a moved one, nothing.
void add_range(Json &json, const Finding &finding) {
  if (finding.whole_file) {
    if (finding.blocks != 0) json.key("blocks").number(finding.blocks);
    return;
  }
  json.key("first_block").number(finding.first_block).key("blocks").number(finding.blocks);
  json.key("offset").number(finding.first_block * kBlockSize);
  json.key("length").number(bytes_of(finding));
  if (finding.expected.sectors == 0) return;
  add_hexadecimal(json.key("expected"), finding.expected.crc, 8);
  add_hexadecimal(json.key("found"), finding.found.crc, 8);
  add_sectors(json, finding);
}

void add_finding(Json &json, const Finding &finding) {
  const Verdict verdict = finding.verdict;
  json.key("verdict").text(verdict_name(verdict));
  json.path("path", finding.path);
  if (!finding.from.empty()) json.path("recorded_path", finding.from);
  if (finding.accepted) json.key("accepted").flag(true);
  if (has_blocks(verdict)) add_range(json, finding);
  if (verdict == Verdict::kModified || verdict == Verdict::kGrown || verdict == Verdict::kShrunk) {
    json.key("recorded_size").number(finding.recorded_size).key("size").number(finding.size);
    json.key("blocks").number(finding.blocks);
  }
  if (!finding.why.empty()) json.key("why").text(finding.why);
}

void add_totals(Json &json, const char *name, const Totals &totals) {
  json.key(name).begin_object().key("files").number(totals.files);
  json.key("blocks").number(totals.blocks).key("bytes").number(totals.bytes).end_object();
}

void add_part(Json &json, const Part &part) {
  json.key("part");
  if (part.of == 0) {
    json.null();
    return;
  }
  json.begin_object().key("number").number(part.number).key("of").number(part.of).end_object();
}

void add_summary(Json &json, Command command, const Summary &summary) {
  add_part(json, summary.part);
  json.key("resumed").flag(summary.resumed).key("interrupted").flag(summary.interrupted);
  json.key("limited").flag(summary.limited);
  json.key("committed");
  if (command == Command::kVerify) {
    json.null();
  } else {
    json.flag(summary.committed);
  }
  add_totals(json, "read", summary.read);
  add_totals(json, "recorded", summary.recorded);
  json.key("medium").begin_object().key("direct").number(summary.medium.direct);
  json.key("dropped").number(summary.medium.dropped);
  json.key("cached").number(summary.medium.cached).end_object();
  json.key("left_out").begin_object().key("links").number(summary.left_out.links);
  json.key("specials").number(summary.left_out.specials);
  json.key("excluded").number(summary.left_out.excluded);
  json.key("other_file_systems").number(summary.left_out.other_file_systems);
  json.key("pseudo").number(summary.left_out.pseudo).end_object();
}

void add_counts(Json &json, const Tally &tally) {
  json.key("counts").begin_object();
  for (std::size_t i = 0; i < static_cast<std::size_t>(Verdict::kVerdicts); ++i) {
    const auto verdict = static_cast<Verdict>(i);
    json.key(verdict_name(verdict)).number(tally[count_for(verdict)]);
  }
  json.key("accepted").number(tally[Count::kAccepted]);
  json.key("damaged_blocks").number(tally[Count::kDamagedBlocks]);
  json.key("passing_blocks").number(tally[Count::kPassingBlocks]).end_object();
}

void add_figures(Json &json, const DirectoryFigures &figures) {
  json.key("cpus").begin_array();
  for (const std::uint32_t mean : figures.cpus.means)
    json.number(mean);
  json.end_array().key("memory").begin_array();
  for (const ModuleMemory &module : memory_by_module()) {
    json.begin_object().key("module").text(module.name);
    json.key("bytes").number(module.bytes < 0 ? 0 : static_cast<std::uint64_t>(module.bytes));
    json.end_object();
  }
  json.end_array();
}

} // namespace

JsonRun::JsonRun(Output output, Command command, std::string version)
    : output_(output), command_(command), version_(std::move(version)),
      started_(std::time(nullptr)) {}

void JsonRun::begin_directory(const Job &job, bool has_log) {
  root_ = job.root;
  manifest_ = job.paths.manifest();
  log_ = has_log ? job.paths.log() : "";
  if (!findings_) findings_.emplace(job.paths.manifest_directory);
  begin_ = bytes_;
  left_out_ = 0;
}

void JsonRun::finding(const Finding &finding) {
  Json json;
  json.begin_object();
  if (output_ == Output::kJsonLines) {
    json.key("type").text("finding").path("directory", root_);
    add_finding(json, finding);
    print_line(json.end_object());
    return;
  }
  add_finding(json, finding);
  keep(json.end_object().str());
}

void JsonRun::keep(const String &finding) {
  const String text = bytes_ == begin_ ? finding : "," + finding;
  if (kept_ == kMostFindings || bytes_ + text.size() > kMostBytes) {
    ++left_out_;
    return;
  }
  try {
    findings_->add(std::as_bytes(std::span(text)));
  } catch (const std::system_error &) {
    ++left_out_;
    return;
  }
  ++kept_;
  bytes_ += text.size();
}

void JsonRun::end_directory(const DirectoryFigures &figures, const Tally &tally,
                            const Summary *summary, std::uint64_t taken) {
  Json json;
  json.begin_object().path("directory", root_).path("manifest", manifest_);
  if (log_.empty()) {
    json.key("log").null();
  } else {
    json.path("log", log_);
  }
  json.key("status").text(status_name(figures.status));
  json.key("exit_status").number(figures.status);
  if (!figures.failure.empty()) json.key("error").text(figures.failure);
  json.key("notes").begin_array();
  for (const std::string &note : figures.notes)
    json.text(note);
  json.end_array();
  add_counts(json, tally);
  if (summary != nullptr) {
    json.key("summary").text(verdict_line(command_, tally, *summary));
    add_summary(json, command_, *summary);
    add_figures(json, figures);
  }
  json.key("seconds").real(static_cast<double>(taken) / 1e9);
  Json tail;
  if (output_ == Output::kJson) {
    json.key("findings").begin_array();
    tail.end_array().key("findings_left_out").number(left_out_);
  }
  directories_.push_back({json, begin_, bytes_, tail.end_object()});
}

void JsonRun::finish(ExitStatus status, const std::string &error) {
  Json json;
  json.begin_object().key("type").text("run").key("schema").number(kVersion);
  json.key("program").text("vorn-scrub").key("version").text(version_);
  json.key("command");
  if (command_ == Command::kWrong) {
    json.null();
  } else {
    json.text(command_name(command_));
  }
  json.key("started").text(utc_text(started_)).key("ended").text(utc_text(std::time(nullptr)));
  json.key("status").text(status_name(status)).key("exit_status").number(status);
  if (!error.empty()) json.key("error").text(error);
  print(json.key("directories").begin_array());
  for (const Directory &directory : directories_) {
    if (&directory != &directories_.front()) std::putchar(',');
    print(directory.head);
    print_findings(directory);
    print(directory.tail);
  }
  print_line(Json().end_array().end_object());
}

void JsonRun::print_findings(const Directory &directory) {
  char text[4096];
  for (std::uint64_t at = directory.begin; at < directory.end;) {
    const auto size = std::min<std::uint64_t>(directory.end - at, sizeof text);
    findings_->read(at, std::as_writable_bytes(std::span(text, size)));
    std::fwrite(text, 1, size, stdout);
    at += size;
  }
}

} // namespace scrub
