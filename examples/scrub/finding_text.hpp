// Describes findings for people.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_FINDING_TEXT_HPP
#define SCRUB_FINDING_TEXT_HPP

#include <cstddef>
#include <string>
#include <vector>

#include "verdict.hpp"

namespace scrub {

// Returns "damaged", "modified" and so on; "accepted" for a finding that --accept names.
const char *finding_name(const Finding &finding);
const char *verdict_name(Verdict verdict);

// Returns "docs/x: blocks 0 to 12,799 (52,428,800 bytes at offset 0)" and the like. A path of more
// than longest bytes is cut. Block numbers and sizes are grouped for reading; offsets are not, so
// that they fit on the command line of another program.
std::string finding_text(const Finding &finding, std::size_t longest = ~std::size_t{0});

// Returns the lines that follow: the checksums of the first block of a short range, and its wrong
// sectors. Empty if the finding has no checksums.
std::vector<std::string> finding_details(const Finding &finding);

// Returns the number of bytes of the finding's blocks. The last block of a file may be short.
std::uint64_t bytes_of(const Finding &finding);

} // namespace scrub

#endif
