// Draws the conclusions from the counts of a run.
// SPDX-License-Identifier: Apache-2.0
#include "account.hpp"

#include <algorithm>
#include <cstdio>
#include <initializer_list>

#include "text.hpp"

namespace scrub {
namespace {

struct Counted {
  Count which;
  const char *what;
};

constexpr Counted kNotRead[] = {{Count::kUnreadable, "unreadable"},
                                {Count::kChanged, "changed while read"},
                                {Count::kSkipped, "skipped"},
                                {Count::kPassing, "with passing faults"}};
constexpr Counted kDifferences[] = {{Count::kModified, "modified"}, {Count::kGrown, "grown"},
                                    {Count::kShrunk, "shrunk"},     {Count::kMissing, "missing"},
                                    {Count::kNew, "new"},           {Count::kMoved, "moved"}};

void append(std::string &list, const std::string &item) {
  if (!list.empty()) list += ", ";
  list += item;
}

void append(std::string &list, std::uint64_t count, const char *what) {
  if (count != 0) append(list, grouped(count) + " " + what);
}

template <std::size_t N>
void append(std::string &list, const Tally &tally, const Counted (&counts)[N]) {
  for (const Counted &counted : counts)
    append(list, tally[counted.which], counted.what);
}

template <std::size_t N> bool any(const Tally &tally, const Counted (&counts)[N]) {
  return std::any_of(std::begin(counts), std::end(counts),
                     [&](const Counted &counted) { return tally[counted.which] != 0; });
}

std::string what_is_missing(const Tally &tally, const Summary &summary) {
  std::string list;
  append(list, tally, kNotRead);
  if (summary.interrupted) append(list, "interrupted");
  if (summary.limited) append(list, "ended by --max-errors");
  return list;
}

std::string damage_line(Command command, const Tally &tally, const Summary &summary) {
  const std::uint64_t blocks = tally[Count::kDamagedBlocks];
  const std::uint64_t files = tally[Count::kDamaged];
  std::string line = "SILENT DAMAGE: " + (blocks == 0 ? "the content" : counted(blocks, "block")) +
                     " of " + counted(files, "file") + (blocks < 2 ? " differs" : " differ") +
                     ", and nothing says that a program wrote there";
  if (command == Command::kUpdate) line += "; the manifest keeps the record";
  const std::string missing = what_is_missing(tally, summary);
  return missing.empty() ? line : line + "; incomplete: " + missing;
}

std::string clean_line(Command command, const Tally &tally) {
  if (command == Command::kCreate) return "RECORDED: the manifest is complete";
  if (command == Command::kVerify) return "CLEAN: everything that was read is as recorded";
  std::string taken;
  append(taken, tally, kDifferences);
  append(taken, tally[Count::kAccepted], "accepted");
  return "UP TO DATE: " + (taken.empty() ? "nothing had changed" : taken);
}

std::string line_of(ExitStatus status, Command command, const Tally &tally,
                    const Summary &summary) {
  if (status == kDamage) return damage_line(command, tally, summary);
  if (status == kIncomplete) return "INCOMPLETE: " + what_is_missing(tally, summary);
  if (status == kClean) return clean_line(command, tally);
  std::string differences;
  append(differences, tally, kDifferences);
  return "ONLY DIFFERENCES: " + differences;
}

std::string files_text(const Tally &tally, const Summary &summary) {
  std::string text = grouped(summary.read.files) + " read";
  append(text, tally[Count::kDamaged], "damaged");
  append(text, tally[Count::kAccepted], "accepted");
  append(text, tally, kNotRead);
  append(text, tally, kDifferences);
  return text;
}

std::string left_out_text(const Walk::Counts &left_out) {
  std::string text;
  if (left_out.links != 0) append(text, counted(left_out.links, "symbolic link"));
  if (left_out.specials != 0) append(text, counted(left_out.specials, "special file"));
  append(text, left_out.excluded, "excluded");
  append(text, left_out.other_file_systems, "on other file systems");
  if (left_out.pseudo != 0) append(text, counted(left_out.pseudo, "pseudo file system"));
  return text;
}

std::string totals_text(const Totals &totals) {
  return grouped(totals.bytes) + " (" + bytes_text(static_cast<double>(totals.bytes)) + ") in " +
         counted(totals.blocks, "block");
}

std::string medium_text(const Medium &medium) {
  std::string text;
  if (medium.direct != 0) append(text, "direct reads for " + counted(medium.direct, "file"));
  if (medium.dropped != 0)
    append(text, "cache dropped before and after for " + counted(medium.dropped, "file"));
  if (medium.cached != 0)
    append(text, "reads through the cache for " + counted(medium.cached, "file"));
  return text;
}

std::string speed_text(std::uint64_t bytes, std::uint64_t taken) {
  const double seconds = static_cast<double>(std::max<std::uint64_t>(taken, 1)) / 1e9;
  char text[96];
  std::snprintf(text, sizeof text, "%.1f MB/s, %.2f s", static_cast<double>(bytes) / 1e6 / seconds,
                seconds);
  return text;
}

} // namespace

const char *status_name(ExitStatus status) {
  switch (status) {
  case kClean:
    return "clean";
  case kDamage:
    return "silent damage";
  case kIncomplete:
    return "incomplete";
  case kDifferent:
    return "differences";
  default:
    return "could not run";
  }
}

const char *command_name(Command command) {
  switch (command) {
  case Command::kCreate:
    return "create";
  case Command::kUpdate:
    return "update";
  default:
    return "verify";
  }
}

ExitStatus status_of(Command command, const Tally &tally, bool interrupted, bool limited) {
  if (tally[Count::kDamaged] != 0) return kDamage;
  if (interrupted || limited || any(tally, kNotRead)) return kIncomplete;
  return command == Command::kVerify && any(tally, kDifferences) ? kDifferent : kClean;
}

std::string verdict_line(Command command, const Tally &tally, const Summary &summary) {
  const ExitStatus status = status_of(command, tally, summary.interrupted, summary.limited);
  std::string line = line_of(status, command, tally, summary);
  if (command != Command::kVerify && status != kClean && !summary.committed)
    line += "; the manifest was not written";
  if (!summary.note.empty()) line += " (" + summary.note + ")";
  return line;
}

std::vector<Row> read_rows(Command command, const Tally &tally, const Summary &summary,
                           std::uint64_t taken) {
  std::string bytes = totals_text(summary.read);
  append(bytes, tally[Count::kDamagedBlocks], "damaged");
  std::vector<Row> rows = {{"files", files_text(tally, summary)}, {"bytes", bytes}};
  const auto add = [&rows](const char *name, const std::string &value) {
    if (!value.empty()) rows.push_back({name, value});
  };
  add("left out", left_out_text(summary.left_out));
  if (tally[Count::kPassingBlocks] != 0)
    add("passing",
        counted(tally[Count::kPassingBlocks], "block") + " right at the second read alone");
  if (command == Command::kUpdate && summary.committed)
    add("recorded", counted(summary.recorded.files, "file") + ", " + totals_text(summary.recorded));
  add("medium", medium_text(summary.medium));
  add("speed", speed_text(summary.read.bytes, taken));
  return rows;
}

} // namespace scrub
