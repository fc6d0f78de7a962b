// Reads and writes the number of the last part.
// SPDX-License-Identifier: Apache-2.0
#include "part_state.hpp"

#include <charconv>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace scrub {
namespace {

constexpr std::string_view kTitle = "vorn-scrub-part 1 ";

bool parse(std::string_view line, Part &part) {
  if (!line.starts_with(kTitle)) return false;
  line.remove_prefix(kTitle.size());
  const auto number = std::from_chars(line.begin(), line.end(), part.number);
  if (number.ec != std::errc() || number.ptr == line.end() || *number.ptr != '/') return false;
  const auto of = std::from_chars(number.ptr + 1, line.end(), part.of);
  return of.ec == std::errc() && of.ptr == line.end();
}

} // namespace

Part PartState::choose(Part wanted) const {
  if (wanted.of == 0 || wanted.number != 0) return wanted;
  const std::vector<std::string> lines = file_.read();
  Part last{0, wanted.of};
  if (!lines.empty() && (lines.size() != 1 || !parse(lines[0], last)))
    throw std::runtime_error(file_.path() + " does not hold a part");
  wanted.number = last.of == wanted.of ? last.number % wanted.of + 1 : 1;
  return wanted;
}

int PartState::save(const Part &completed) const {
  return file_.write({std::string(kTitle) + std::to_string(completed.number) + "/" +
                      std::to_string(completed.of)});
}

} // namespace scrub
