// Merges the manifest and the walk into entries.
// SPDX-License-Identifier: Apache-2.0
#include "planner.hpp"

#include <utility>

#include "interrupt.hpp"

namespace scrub {
namespace {

// A batch with so many recorded blocks is full: more would not fit into its small files.
constexpr std::uint64_t kFull = 1024;

} // namespace

Planner::Planner(ManifestReader *manifest, Walk &walk, const ScopeFilter &filter,
                 const Window &window, Wanted wanted)
    : manifest_(manifest), walk_(walk), filter_(filter), window_(window),
      wanted_(std::move(wanted)) {}

std::size_t Planner::fill(std::span<Entry> entries) {
  if (!std::exchange(started_, true)) {
    next_recorded();
    next_found();
  }
  std::size_t count = 0;
  std::uint64_t blocks = 0;
  while (count < entries.size() && blocks < kFull && (more_recorded_ || more_found_) &&
         !interrupted()) {
    Entry &entry = entries[count++];
    take(entry);
    if (entry.recorded) blocks += entry.end_block - entry.first_block;
  }
  return count;
}

void Planner::next_recorded() {
  more_recorded_ = manifest_ != nullptr && manifest_->next_file(record_);
  if (!more_recorded_ || !wanted_.foreign) return;
  record_.changed = FileRecord().changed;
  record_.inode = 0;
}

// A recorded path that is a directory now, which cannot be read, is missing as a file.
void Planner::take(Entry &entry) {
  entry.recorded = entry.found = entry.outside = entry.dropped = false;
  entry.action = Action::kNothing;
  entry.error = 0;
  entry.first_block = entry.end_block = 0;
  entry.whole = entry.in = true;
  const bool found_first =
      more_found_ && (!more_recorded_ || path_before(found_.path, record_.path));
  if (found_first) return take_found(entry);
  const bool both = more_found_ && found_.error == 0 && found_.path == record_.path;
  take_recorded(entry);
  if (both) {
    entry.found = true;
    std::swap(entry.file, found_);
    const bool always = wanted_.always && wanted_.always(entry.record.path);
    entry.action = always ? Action::kRead : wanted_.recorded;
    next_found();
  }
  select(entry);
}

void Planner::take_recorded(Entry &entry) {
  entry.recorded = true;
  std::swap(entry.record, record_);
  next_recorded();
  entry.outside = !filter_.covers(entry.record.path);
  entry.dropped = entry.outside && filter_.wanted(entry.record.path);
}

void Planner::take_found(Entry &entry) {
  entry.found = true;
  std::swap(entry.file, found_);
  next_found();
  if (entry.file.error == 0) {
    entry.action = wanted_.added;
    return;
  }
  entry.error = entry.file.error;
}

// The window counts every record that the run covers, also a missing one.
void Planner::select(Entry &entry) {
  if (entry.outside) {
    entry.action = Action::kNothing;
    return;
  }
  const std::uint64_t blocks = block_count(entry.record.size);
  const Window::Selection selection = window_.select(entry.record);
  entry.first_block = selection.first;
  entry.end_block = selection.end;
  entry.in = selection.in;
  entry.whole = selection.end - selection.first == blocks;
  if (!selection.in || (selection.first == selection.end && blocks != 0))
    entry.action = Action::kNothing;
}

} // namespace scrub
