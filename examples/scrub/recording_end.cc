// Tells what has changed, and completes the manifest.
// SPDX-License-Identifier: Apache-2.0
#include "recording.hpp"

#include <cstring>
#include <sys/stat.h>

#include "interrupt.hpp"
#include "manifest_reader.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

constexpr std::uint64_t kCopyTime = 300; // milliseconds

} // namespace

void Recording::leave(const FileRecord &file, int error) {
  if (error == EINTR) return;
  if (!update_) return skip(file.path, error);
  copy(file);
  tell_left(file, is_gone(error) ? Verdict::kChanged : Verdict::kUnreadable, reason(error));
}

void Recording::tell_left(const FileRecord &file, Verdict verdict, const char *why) {
  report_.finding({.verdict = verdict, .path = file.path, .recorded_size = file.size, .why = why});
}

void Recording::skip(const String &path, int error) {
  if (error == EINTR) return;
  report_.finding({.verdict = Verdict::kSkipped, .path = path, .why = reason(error)});
}

void Recording::skip_changed(const String &path, int error) {
  if (error != kChanged) return skip(path, error);
  report_.finding({.verdict = Verdict::kChanged,
                   .path = path,
                   .why = "written or replaced while the run read it"});
}

void Recording::judge(const FileRecord &file, const Attributes &now, Comparison &comparison) {
  // The damage that an earlier run found may still be in a file that was written since.
  const bool known = known_.contains(file.path);
  const bool wrong = comparison.differing() != 0 ? known || comparison.is_unwritten()
                                                 : known && comparison.has_rest();
  const bool accepted = accepted_.contains(file.path);
  if (!wrong || accepted) damaged_.remove(file.path);
  const Verdict verdict = wrong ? Verdict::kDamaged : comparison.verdict();
  if (verdict == Verdict::kVerdicts) return;
  Finding finding{.verdict = verdict,
                  .path = file.path,
                  .recorded_size = file.size,
                  .size = now.size,
                  .blocks = comparison.differing(),
                  .whole_file = true,
                  .begins_file = true,
                  .accepted = wrong && accepted};
  if (wrong && !accepted) restore();
  report_.finding(finding);
}

void Recording::resolve_moves() {
  MoveActions actions;
  actions.read = [](const String &, int &) { return std::nullopt; };
  // The list of damage drops a path that the manifest no longer has.
  actions.moved = [this](const Moved &file) {
    damaged_.remove(file.from);
    report_.finding({.verdict = Verdict::kMoved, .path = file.path, .from = file.from});
  };
  actions.damaged = [this](const Moved &file) {
    const bool accepted = accepted_.contains(file.path);
    if (accepted) {
      damaged_.remove(file.from);
    } else {
      dropped_.add(file.record);
      restored_.add(file.from_record);
    }
    report_.finding({.verdict = Verdict::kDamaged,
                     .path = file.path,
                     .from = file.from,
                     .whole_file = true,
                     .begins_file = true,
                     .accepted = accepted});
  };
  actions.unreadable = [this](const Moved &file, int error) {
    restored_.add(file.from_record);
    report_.finding({.verdict = Verdict::kUnreadable,
                     .path = file.path,
                     .from = file.from,
                     .why = reason(error)});
  };
  actions.missing = [this](const String &path, std::uint64_t size, std::uint64_t record) {
    Finding finding{.verdict = Verdict::kMissing, .path = path, .recorded_size = size};
    if (hidden_) {
      restored_.add(record);
      finding.verdict = Verdict::kUnreadable;
      finding.why = "missing, or below a directory that cannot be read";
    } else {
      damaged_.remove(path);
    }
    report_.finding(finding);
  };
  actions.added = [this](const String &path, std::uint64_t size, int error) {
    if (error != 0) return skip(path, error);
    report_.finding({.verdict = Verdict::kNew, .path = path, .size = size});
  };
  moves_.resolve(actions);
}

void Recording::finish() {
  Summary summary;
  summary.interrupted = interrupted();
  summary.resumed = !update_ && old_ != nullptr;
  if (!interrupted()) {
    if (!restored_.empty()) write_restored();
    if (!interrupted()) {
      writer_->commit();
      summary.committed = true;
      save_damaged();
    }
  }
  if (!summary.committed) {
    summary.interrupted = true;
    if (!update_ && old_ != nullptr) copy_rest();
    if (!update_) writer_->keep_unfinished();
    report_.note(update_ ? "The manifest is as it was" : "create --resume goes on");
  }
  summary.read = read_;
  summary.recorded = writer_->totals();
  summary.medium = medium_;
  report_.observe();
  // The planner uses the walk until it has ended.
  if (stop()) summary.left_out = walk_.counts();
  report_.finish(summary);
}

// What create records is the reference from then on.
void Recording::save_damaged() {
  if (!update_) damaged_.clear();
  if (const int error = damaged_.save(); error != 0)
    report_.note(std::string("The list of damaged files cannot be written: ") +
                 std::strerror(error));
}

// Writes the manifest once more, with old records in place of new ones.
void Recording::write_restored() {
  const Fd fresh_fd = writer_->detach();
  ManifestReader fresh(fresh_fd.get(), job_.paths.manifest());
  const Fd old_fd = open_again(old_->fd, old_->name);
  ManifestReader old(old_fd.get(), old_->name);
  writer_.emplace(job_.paths, record_);

  FileRecord file;
  FileRecord stays;
  const auto next_restored = [&] {
    while (old.next_file(stays)) {
      if (restored_.contains(old.totals().files)) return true;
    }
    return false;
  };
  bool more = next_restored();
  const auto write_until = [&](const String *path) {
    for (; more && (path == nullptr || path_before(stays.path, *path)) && !interrupted();
         more = next_restored()) {
      settle(stays);
      write_blocks(stays, old, interrupted);
    }
  };
  while (fresh.next_file(file) && !interrupted()) {
    write_until(&file.path);
    if (!dropped_.contains(fresh.totals().files)) write_blocks(file, fresh, interrupted);
  }
  write_until(nullptr);
}

// Of a copy of the recorded tree, a record that stays gets the inode and the time of change in the
// copy: the next run shall know that the file was not written since.
void Recording::settle(FileRecord &record) const {
  struct stat status {};
  if (!foreign_ || !tree_.status(record.path, status) || !S_ISREG(status.st_mode)) return;
  const Attributes now = attributes_of(status);
  if (now.size != record.size || !same_time(now.written, record.written)) return;
  record.inode = now.inode;
  record.changed = now.changed;
}

// Writes a record with the blocks that the manifest has. Returns whether it has all of them.
bool Recording::write_blocks(const FileRecord &file, ManifestReader &manifest, const Stop &stop) {
  writer_->begin_file(file);
  Checksums block;
  std::uint64_t blocks = 0;
  for (; !stop() && manifest.next_block(block); ++blocks)
    writer_->add_block(block);
  return blocks == block_count(file.size);
}

// After an interrupt of create --resume: copies the records that the run has not come to, so that
// the next run does not read these files again. The run must end within a second; what cannot be
// copied in this time is read again.
void Recording::copy_rest() {
  const std::uint64_t end = vorn_time_getmillisec() + kCopyTime;
  const auto is_late = [end] { return vorn_time_getmillisec() >= end; };
  while (!is_late() && old_->again.next_file(record_now_)) {
    if (!write_blocks(record_now_, old_->again, is_late)) return writer_->drop_file();
  }
}

} // namespace scrub
