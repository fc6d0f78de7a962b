// Describes findings for people.
// SPDX-License-Identifier: Apache-2.0
#include "finding_text.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <iterator>

#include "text.hpp"

namespace scrub {
namespace {

constexpr std::uint64_t kShortRange = 8; // blocks

std::string path_text(std::string_view path, std::size_t longest) {
  const String word = printable(path);
  if (word.size() <= longest) return std::string(word);
  return std::string(word.substr(0, longest)) + "...";
}

std::string checksum_text(const Finding &finding) {
  char text[64];
  std::snprintf(text, sizeof text, ", expected %08" PRIx32 ", found %08" PRIx32,
                finding.expected.crc, finding.found.crc);
  return text;
}

std::string range_text(const Finding &finding) {
  const std::string offset = std::to_string(finding.first_block * kBlockSize);
  if (finding.blocks == 1)
    return "block " + grouped(finding.first_block) + " at offset " + offset +
           checksum_text(finding);
  return "blocks " + grouped(finding.first_block) + " to " +
         grouped(finding.first_block + finding.blocks - 1) + " (" + grouped(bytes_of(finding)) +
         " bytes at offset " + offset + ")";
}

std::string sizes_text(const Finding &finding) {
  return "from " + grouped(finding.recorded_size) + " to " + grouped(finding.size) + " bytes";
}

std::string modified_text(const Finding &finding) {
  std::string text;
  if (finding.blocks != 0) {
    const std::uint64_t all = block_count(std::max(finding.size, finding.recorded_size));
    text = ": " + grouped(finding.blocks) + " of " + counted(all, "block") +
           (finding.blocks == 1 ? " differs" : " differ");
  }
  if (finding.size == finding.recorded_size) return text;
  return text + (text.empty() ? ": " : ", ") + sizes_text(finding);
}

} // namespace

const char *verdict_name(Verdict verdict) {
  constexpr const char *kNames[] = {"damaged",    "passing", "modified", "grown",
                                    "shrunk",     "missing", "new",      "moved",
                                    "unreadable", "changed", "skipped"};
  static_assert(std::size(kNames) == static_cast<std::size_t>(Verdict::kVerdicts));
  return kNames[static_cast<std::size_t>(verdict)];
}

const char *finding_name(const Finding &finding) {
  return finding.accepted ? "accepted" : verdict_name(finding.verdict);
}

std::uint64_t bytes_of(const Finding &finding) {
  const std::uint64_t whole = finding.blocks * kBlockSize;
  const std::uint64_t start = finding.first_block * kBlockSize;
  const std::uint64_t size = std::max(finding.size, finding.recorded_size);
  return size > start ? std::min(whole, size - start) : whole;
}

std::string finding_text(const Finding &finding, std::size_t longest) {
  const std::string path = path_text(finding.path, longest);
  const std::string from = path_text(finding.from, longest);
  if (finding.accepted) return path;
  switch (finding.verdict) {
  case Verdict::kDamaged:
    if (finding.whole_file)
      return path + (from.empty() ? modified_text(finding)
                                  : ": recorded as " + from + ", and its content differs");
    return path + (from.empty() ? "" : ", recorded as " + from) + ": " + range_text(finding);
  case Verdict::kPassing:
    return path + ": " + range_text(finding) +
           (finding.blocks == 1 ? " at first, right at the second read"
                                : ", right at the second read");
  case Verdict::kModified:
    return path + modified_text(finding);
  case Verdict::kGrown:
  case Verdict::kShrunk:
    return path + ": " + sizes_text(finding);
  case Verdict::kMoved:
    return path + ": recorded as " + from;
  default:
    return finding.why.empty() ? path : path + ": " + std::string(finding.why);
  }
}

std::vector<std::string> finding_details(const Finding &finding) {
  const bool has_checksums = finding.expected.sectors != 0 && finding.expected != finding.found;
  if (finding.accepted || !has_checksums || finding.blocks > kShortRange) return {};

  std::vector<std::string> lines;
  if (finding.blocks > 1)
    lines.push_back("block " + grouped(finding.first_block) + checksum_text(finding));
  for (std::size_t i = 0; i < finding.expected.sectors; ++i) {
    if (finding.expected.guards[i] == finding.found.guards[i]) continue;
    const std::uint64_t sector = finding.first_block * kSectorsPerBlock + i;
    char guards[64];
    std::snprintf(guards, sizeof guards, ", guard expected %04x, found %04x",
                  finding.expected.guards[i], finding.found.guards[i]);
    lines.push_back("sector " + grouped(sector) + " at offset " +
                    std::to_string(sector * kSectorSize) + guards);
  }
  return lines;
}

} // namespace scrub
