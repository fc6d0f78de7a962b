// Reads the tree and compares it with the manifest.
// SPDX-License-Identifier: Apache-2.0
#include "verification.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "digest.hpp"
#include "interrupt.hpp"
#include "supervision.hpp"

namespace scrub {

Verification::Verification(const Job &job, Report &report)
    : job_(job), options_(job.options), report_(report), name_(job.paths.manifest()),
      fd_(open_manifest(name_)), checked_(fd_, name_), tree_(job.root), own_(job.paths),
      filter_(options_.scope, checked_.tree), walk_(tree_, own_, options_.scope, checked_.tree),
      planned_fd_(open_again(fd_, name_)), planned_(planned_fd_.get(), name_),
      manifest_fd_(open_again(fd_, name_)), manifest_(manifest_fd_.get(), name_),
      damaged_(job.paths), checkpoint_file_(job.paths), part_state_(job.paths),
      part_(part_state_.choose(options_.part)), ranges_(report),
      moves_(job.paths.manifest_directory) {
  check_readable(tree_, job);
  foreign_ = is_foreign(checked_.tree, tree_, job);
}

void Verification::run() {
  choose_window();
  report_.progress().expect_bytes(bytes_);
  Supervision supervision(report_.progress(), report_.cpus(), options_.stall);
  planner_.emplace(&planned_, walk_, filter_, window_,
                   Wanted{Action::kRead, Action::kStatus, foreign_});
  engine_.emplace(options_, report_.series(),
                  [this](std::span<Entry> entries) { return planner_->fill(entries); });
  second_.emplace(tree_, *engine_, [this](const Suspects &suspects) { judge(suspects); });
  compare();
  if (!over()) {
    second_->finish();
    limited_ = false; // everything was read
  }
  if (!over()) resolve_moves();
  ranges_.flush();
  report_.end_file();
  if (!over()) supervision.finish();
  finish();
}

bool Verification::stop() {
  if (!interrupted()) return engine_->stop(-1);
  return engine_->stop(kPatience) && second_->stop(kPatience);
}

void Verification::compare() {
  while (Batch *batch = engine_->next()) {
    for (Entry &entry : batch->entries()) {
      take(*batch, entry);
      if (over()) return;
    }
    poll();
  }
}

void Verification::take(Batch &batch, Entry &entry) {
  if (!entry.recorded) return take_added(entry);
  forget_changed();
  while (manifest_.next_file(record_) && record_.path != entry.record.path) {
  }
  if (entry.outside) return;
  if (!entry.found) return take_lost(entry);
  switch (entry.outcome) {
  case Outcome::kNotAsked:
  case Outcome::kStatus:
    return;
  case Outcome::kFailed:
    return fail(entry, entry.error);
  case Outcome::kRead:
    compare_small(batch, entry);
    break;
  case Outcome::kLarge:
    compare_large(entry);
    break;
  }
  if (interrupted()) return;
  last_ = {entry.record.path, entry.end_block};
}

void Verification::take_added(const Entry &entry) {
  if (entry.error != 0) return skip(entry.path(), entry.error);
  moves_.added(entry.path(), entry.now, {}, 0);
}

void Verification::take_lost(const Entry &entry) {
  report_.progress().drop_bytes(bytes_of(entry));
  if (const int error = why_not_found(tree_, filter_, entry.record.path); error != 0) {
    if (error == EXDEV) return;
    if (entry.in && is_gone(error)) changed(entry.record, reason(error));
    if (entry.in && !is_gone(error)) unreadable(entry.record, reason(error));
    return;
  }
  Digest digest;
  Checksums block;
  while (manifest_.next_block(block) && !interrupted())
    digest.add(block);
  moves_.missing(entry.record, digest.value());
}

// The bytes of the blocks that the run was to read.
std::uint64_t Verification::bytes_of(const Entry &entry) {
  return std::min(entry.record.size, entry.end_block * kBlockSize) -
         std::min(entry.record.size, entry.first_block * kBlockSize);
}

void Verification::compare_small(Batch &batch, const Entry &entry) {
  add_way(medium_, entry.way);
  Comparison comparison(manifest_, entry.record, entry.now, is_known(entry));
  const std::span<const Checksums> blocks = batch.checksums(entry);
  comparison.add({.checksums = blocks, .zeros = 0, .bytes = entry.now.size});
  count_read(blocks.size(), entry.now.size);
  end(entry, comparison, entry.now, entry.has_changed);
}

void Verification::compare_large(const Entry &entry) {
  const Opened opened = open_file(entry, options_.cached);
  if (opened.error != 0) return fail(entry, opened.error);
  const Attributes &now = opened.file->attributes();
  // The blocks before the checkpoint say nothing about a file that was written since.
  const bool again =
      entry.record.path == resumed_at_.path && !unwritten(entry.record, now) && resumed_;
  const std::uint64_t first = again ? 0 : entry.first_block;
  Comparison comparison(manifest_, entry.record, now, is_known(entry), first);
  std::uint64_t bytes = 0;
  const int error =
      engine_->read(opened.file, first, entry.end_block, [&](const Engine::Blocks &blocks) {
        comparison.add(blocks);
        bytes += blocks.bytes;
        count_read(blocks.checksums.size() + blocks.zeros, blocks.bytes);
        if (comparison.has_suspects()) second_->add(comparison.take_suspects());
        poll();
        last_ = {entry.record.path, comparison.block()};
      });
  add_way(medium_, opened.file->way());
  if (error == EINTR) return;
  if (error != 0) {
    char why[128];
    std::snprintf(why, sizeof why, "%s, block %llu", std::strerror(error),
                  static_cast<unsigned long long>(engine_->failed_block()));
    return unreadable(entry.record, why);
  }
  const std::uint64_t wanted =
      std::min(now.size, entry.end_block * kBlockSize) - std::min(now.size, first * kBlockSize);
  end(entry, comparison, now, bytes < wanted || opened.file->has_changed());
}

void Verification::count_read(std::uint64_t blocks, std::uint64_t bytes) {
  read_.blocks += blocks;
  read_.bytes += bytes;
  count(Count::kBytes) += bytes;
  report_.progress().add_bytes(bytes);
}

void Verification::end(const Entry &entry, Comparison &comparison, const Attributes &now,
                       bool has_changed) {
  ++read_.files;
  ++count(Count::kFiles);
  report_.progress().add_file();
  if (has_changed) return changed(entry.record, "written while the run read it");
  if (comparison.is_unwritten()) {
    if (comparison.has_suspects()) return second_->add(comparison.take_suspects());
    if (comparison.differing() == 0 && entry.whole) damaged_.remove(entry.record.path);
    return;
  }
  const Verdict verdict = comparison.verdict();
  if (verdict == Verdict::kVerdicts) return;
  report_.finding({.verdict = verdict,
                   .path = entry.record.path,
                   .recorded_size = entry.record.size,
                   .size = now.size,
                   .blocks = comparison.differing()});
}

} // namespace scrub
