// Compares the blocks of a file with its record.
// SPDX-License-Identifier: Apache-2.0
#include "comparison.hpp"

#include <algorithm>
#include <utility>

#include "interrupt.hpp"

namespace scrub {
namespace {

// A last block that was short and has grown is as recorded if its whole sectors are.
bool same_beginning(const Checksums &expected, const Checksums &found, std::size_t bytes) {
  const std::size_t whole = bytes / kSectorSize;
  return std::equal(expected.guards.begin(),
                    expected.guards.begin() + static_cast<std::ptrdiff_t>(whole),
                    found.guards.begin());
}

} // namespace

Comparison::Comparison(ManifestReader &manifest, const FileRecord &record, const Attributes &now,
                       bool known, std::uint64_t first_block)
    : manifest_(manifest), record_(record), now_(now),
      unwritten_(unwritten(record, now) ||
                 (known && record.size == now.size && same_time(record.written, now.written))),
      block_(0) {
  Checksums skipped;
  for (; block_ < first_block && manifest_.next_block(skipped) && !interrupted(); ++block_) {
  }
}

void Comparison::add(const Engine::Blocks &blocks) {
  for (const Checksums &found : blocks.checksums)
    compare(found);
  for (std::uint64_t i = 0; i < blocks.zeros && block_ * kBlockSize < record_.size; ++i)
    compare(zero_block());
}

void Comparison::compare(const Checksums &found) {
  Checksums expected;
  if (!manifest_.next_block(expected)) return; // beyond the recorded end
  const std::uint64_t block = block_++;
  const std::size_t recorded = block_length(record_.size, block);
  const std::size_t common = std::min(recorded, block_length(now_.size, block));
  const bool whole = common == recorded && common == block_length(now_.size, block);
  if (!whole && common % kSectorSize != 0) has_rest_ = true;
  if (whole ? found == expected : same_beginning(expected, found, common)) return;
  ++differing_;
  if (unwritten_) suspects_.push_back({block, expected, found});
}

Suspects Comparison::take_suspects() { return {record_, now_, std::exchange(suspects_, {})}; }

Verdict Comparison::verdict() const {
  if (differing_ != 0) return Verdict::kModified;
  if (now_.size > record_.size) return Verdict::kGrown;
  return now_.size < record_.size ? Verdict::kShrunk : Verdict::kVerdicts;
}

} // namespace scrub
