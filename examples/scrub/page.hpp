// Writes the page of a run: the verdict first, then what was found, then how the run went.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PAGE_HPP
#define SCRUB_PAGE_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "html.hpp"
#include "page_figures.hpp"
#include "verdict.hpp"

namespace scrub {

// A file that begins so is a page of an earlier run.
inline constexpr Literal kPageStart =
    "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
    "<meta name=\"generator\" content=\"vorn-scrub\">\n";

// The tables of findings.
enum class FindingKind : std::size_t { kDamage, kNotRead, kDifferences, kKinds };

constexpr auto kFindingKinds = static_cast<std::size_t>(FindingKind::kKinds);

struct FindingTable {
  Html rows{};
  std::uint64_t left_out = 0; // findings without a row
};

using FindingTables = std::array<FindingTable, kFindingKinds>; // of a directory

FindingKind kind_of(Verdict verdict);
Html finding_row(const Finding &finding);

// Writes the page to file, whose error indicator tells of failures. tables may have fewer elements
// than there are directories.
void write_page(std::FILE *file, const PageFigures &figures, std::span<const FindingTables> tables);

} // namespace scrub

#endif
