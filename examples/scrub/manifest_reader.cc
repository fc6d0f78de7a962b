// Tells the version of a manifest, and ends the reading of a partial one.
// SPDX-License-Identifier: Apache-2.0
#include "manifest_reader.hpp"

#include <algorithm>
#include <utility>

#include "manifest_encoding.hpp"
#include "manifest_v1.hpp"
#include "manifest_v2.hpp"

namespace scrub {
namespace {

constexpr std::size_t kMaxHeader = 256;
constexpr std::size_t kMaxVersionDigits = 9;

// Returns the digits of the version after the title; empty if there are none.
std::string_view version_after(std::string_view text) {
  if (!text.starts_with(kManifestTitle)) return {};
  text.remove_prefix(kManifestTitle.size());
  const std::size_t end = text.find_first_not_of("0123456789");
  if (end == std::string_view::npos || end > kMaxVersionDigits || text[0] == '0') return {};
  return text[end] == ' ' || text[end] == '\n' ? text.substr(0, end) : std::string_view();
}

// The first line of version 1 begins with a code.
std::unique_ptr<ManifestFormat> open_format(ManifestInput &input) {
  const std::string_view start = input.hold(kMaxHeader);
  const std::string_view coded =
      version_after(start.substr(std::min(start.size(), ManifestV1::kCodeLength)));
  if (coded == "1") return std::make_unique<ManifestV1>(input);

  const std::string_view plain = version_after(start);
  if (plain == "2") return std::make_unique<ManifestV2>(input);
  const std::string version(coded.empty() ? plain : coded);
  if (version.empty())
    throw ManifestError(input.name() + ", byte 0: this is no manifest of vorn-scrub");
  throw ManifestError(input.name() + ", byte 0: this program cannot read version " + version +
                      " of the manifest, only 1 and 2");
}

} // namespace

ManifestReader::ManifestReader(int fd, std::string name, Kind kind)
    : input_(fd, std::move(name)), kind_(kind), format_(open_format(input_)) {}

// Returns the result of read; false or 0 at the end.
template <class Function>
std::invoke_result_t<Function> ManifestReader::unless_ended(Function read) {
  if (ended_) return {};
  try {
    return read();
  } catch (const ManifestError &) {
    if (kind_ == Kind::kWhole) throw;
    ended_ = true;
    return {};
  }
}

bool ManifestReader::next_file(FileRecord &file) {
  const bool found = unless_ended([&] { return format_->next_file(file); });
  if (!found) ended_ = true;
  return found;
}

bool ManifestReader::next_block(Checksums &block) {
  return unless_ended([&] { return format_->next_block(block); });
}

std::uint64_t ManifestReader::next_zeros() {
  return unless_ended([&] { return format_->next_zeros(); });
}

} // namespace scrub
