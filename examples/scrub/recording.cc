// Reads what was written, and writes the records.
// SPDX-License-Identifier: Apache-2.0
#include "recording.hpp"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>

#include "instance.hpp"
#include "interrupt.hpp"
#include "supervision.hpp"

namespace scrub {

namespace {

// The tree as the new manifest names it.
TreeRecord new_tree(const Tree &tree, const Scope &scope, const TreeRecord &old) {
  TreeRecord record = tree.identity();
  record.known = true;
  record.one_file_system = scope.one_file_system || old.one_file_system;
  record.pseudo = scope.pseudo || old.pseudo;
  record.excludes = old.excludes;
  for (const std::string &pattern : scope.excludes) {
    if (std::ranges::find(record.excludes, pattern) == record.excludes.end())
      record.excludes.push_back(pattern);
  }
  return record;
}

} // namespace

// old is NULL for a manifest that begins anew. update tells what has changed.
Recording::Recording(const Job &job, Report &report, std::unique_ptr<OldManifest> old, bool update)
    : job_(job), options_(job.options), report_(report), update_(update), tree_(job.root),
      own_(job.paths), old_(std::move(old)), record_(new_tree(tree_, options_.scope, old_tree())),
      filter_(options_.scope, record_), walk_(tree_, own_, options_.scope, record_),
      known_(job.paths), damaged_(job.paths), moves_(job.paths.manifest_directory) {
  check_readable(tree_, job);
  foreign_ = old_ != nullptr && is_foreign(old_->again.tree(), tree_, job);
  for (const std::string &path : options_.accepted)
    accept(path);
  writer_.emplace(job.paths, record_);
}

void Recording::run() {
  if (!update_ && !known_.empty())
    report_.note("Files are known to be damaged: create records them as they are now");
  if (!update_ && report_.progress().shows_bar()) report_.progress().expect_bytes(count_bytes());
  Supervision supervision(report_.progress(), report_.cpus(), options_.stall);
  Wanted wanted{Action::kIfWritten, Action::kRead, foreign_};
  if (update_) wanted.always = [this](const String &path) { return must_read(path); };
  planner_.emplace(old_ ? &old_->planned : nullptr, walk_, filter_, Window(), wanted);
  engine_.emplace(options_, report_.series(),
                  [this](std::span<Entry> entries) { return planner_->fill(entries); });
  while (Batch *batch = engine_->next()) {
    for (Entry &entry : batch->entries()) {
      if (interrupted()) break;
      take(*batch, entry);
    }
  }
  if (update_ && !interrupted()) resolve_moves();
  if (!interrupted()) supervision.finish();
  finish();
}

void Recording::accept(const std::string &path) {
  struct stat status {};
  if (!tree_.status(path, status))
    throw std::runtime_error("--accept " + path + ": " + std::strerror(errno));
  if (!S_ISREG(status.st_mode))
    throw std::runtime_error("--accept " + path + ": this is no regular file");
  if (!filter_.covers(String(path)))
    throw std::runtime_error("--accept " + path + ": the run leaves this file out");
  accepted_.insert(String(path));
}

// The planner's thread calls this; neither list changes while it runs.
bool Recording::must_read(const String &path) const {
  return known_.contains(path) || accepted_.contains(path);
}

// The bytes to read, for the progress bar.
std::uint64_t Recording::count_bytes() {
  std::uint64_t bytes = 0;
  Walk walk(tree_, own_, options_.scope, record_);
  Found found;
  while (walk.next(found) && !interrupted()) {
    struct stat status {};
    if (found.error == 0 &&
        fstatat(found.directory->get(), found.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
      bytes += static_cast<std::uint64_t>(status.st_size);
  }
  return bytes;
}

void Recording::take(Batch &batch, Entry &entry) {
  if (!entry.recorded) return take_added(batch, entry);
  while (old_->again.next_file(record_now_) && record_now_.path != entry.record.path) {
  }
  if (entry.outside) {
    if (entry.dropped) {
      damaged_.remove(entry.record.path);
    } else {
      copy(entry.record);
    }
    return;
  }
  if (!entry.found) return take_lost(entry);
  switch (entry.outcome) {
  case Outcome::kNotAsked:
    return;
  case Outcome::kStatus:
    if (!copy(record_of(entry.record.path, entry.now))) read_anew(batch, entry);
    return;
  case Outcome::kFailed:
    return leave(entry.record, entry.error);
  case Outcome::kRead:
  case Outcome::kLarge:
    return take_written(batch, entry);
  }
}

// Writes a record with the old blocks. Returns false, and writes nothing, if the old manifest is
// cut within them.
bool Recording::copy(const FileRecord &file) {
  if (write_blocks(file, old_->again, interrupted)) return true;
  writer_->drop_file();
  return false;
}

void Recording::take_lost(const Entry &entry) {
  if (!update_) return;
  if (const int error = why_not_found(tree_, filter_, entry.record.path); error != 0) {
    if (error != EXDEV) return leave(entry.record, error);
    copy(entry.record);
    return;
  }
  Digest digest;
  Checksums block;
  while (old_->again.next_block(block) && !interrupted())
    digest.add(block);
  moves_.missing(entry.record, digest.value(), old_->again.totals().files);
}

void Recording::take_added(Batch &batch, Entry &entry) {
  if (entry.file.error != 0 || entry.outcome == Outcome::kFailed) return take_unreadable(entry);
  read_anew(batch, entry);
}

// Files below a directory that cannot be read may be recorded under another path.
void Recording::take_unreadable(const Entry &entry) {
  if (entry.file.is_directory && entry.error != ENOENT) hidden_ = true;
  struct stat status {};
  const bool known = !entry.file.is_directory && update_ && !is_gone(entry.error) &&
                     tree_.status(entry.path(), status);
  if (!known) return skip(entry.path(), entry.error);
  moves_.added(entry.path(), attributes_of(status), {}, entry.error);
}

// Records a file that has no record, or none that can be used.
void Recording::read_anew(Batch &batch, Entry &entry) {
  Digest digest;
  Attributes now;
  const auto add = [&](const Engine::Blocks &blocks) { write(blocks, &digest); };
  const auto begin = [&](const Attributes &attributes) {
    now = attributes;
    writer_->begin_file(record_of(entry.path(), now));
  };
  const int error = read(batch, entry, begin, add);
  if (error != 0) {
    if (writing_) drop();
    return skip_changed(entry.path(), error);
  }
  writing_ = false;
  if (update_) moves_.added(entry.path(), now, digest.value(), 0, writer_->totals().files);
}

void Recording::write(const Engine::Blocks &blocks, Digest *digest) {
  for (const Checksums &block : blocks.checksums) {
    writer_->add_block(block);
    if (digest != nullptr) digest->add(block);
  }
  if (blocks.zeros != 0) writer_->add_zero_blocks(blocks.zeros);
  for (std::uint64_t i = 0; digest != nullptr && i < blocks.zeros; ++i)
    digest->add(zero_block());
  read_.blocks += blocks.checksums.size() + blocks.zeros;
  read_.bytes += blocks.bytes;
  count(Count::kBytes) += blocks.bytes;
  report_.progress().add_bytes(blocks.bytes);
}

void Recording::drop() {
  writer_->drop_file();
  writing_ = false;
}

// Calls begin, then add for the blocks of the file of an entry, which a thread has read or which
// is read now. Returns 0 or an errno, after begin if writing_ is set.
int Recording::read(Batch &batch, const Entry &entry,
                    const std::function<void(const Attributes &)> &begin, const Engine::Take &add) {
  if (entry.outcome == Outcome::kRead) {
    begin(entry.now);
    writing_ = true;
    add({.checksums = batch.checksums(entry), .zeros = 0, .bytes = entry.now.size});
    return done(entry.way, entry.has_changed);
  }
  const Opened opened = open_file(entry, options_.cached);
  if (opened.error != 0) return opened.error;
  const Attributes &now = opened.file->attributes();
  begin(now);
  writing_ = true;
  std::uint64_t bytes = 0;
  const int error =
      engine_->read(opened.file, 0, block_count(now.size), [&](const Engine::Blocks &blocks) {
        add(blocks);
        bytes += blocks.bytes;
      });
  if (error != 0) return error;
  return done(opened.file->way(), bytes < now.size || opened.file->has_changed());
}

int Recording::done(Way way, bool has_changed) {
  add_way(medium_, way);
  if (has_changed) return kChanged;
  ++read_.files;
  ++count(Count::kFiles);
  report_.progress().add_file();
  return 0;
}

// A file whose attributes have changed, or that is read to look for known damage. Its old record
// is compared while the new one is written; if the new one must not stay, the old one is restored
// at the end.
void Recording::take_written(Batch &batch, Entry &entry) {
  if (!update_) return read_anew(batch, entry);
  std::optional<Comparison> comparison;
  Attributes now;
  const auto begin = [&](const Attributes &attributes) {
    now = attributes;
    comparison.emplace(old_->again, entry.record, now, known_.contains(entry.record.path));
    writer_->begin_file(record_of(entry.path(), now));
  };
  const int error = read(batch, entry, begin, [&](const Engine::Blocks &blocks) {
    write(blocks, nullptr);
    comparison->add(blocks);
  });
  if (error == EINTR) return;
  if (error != 0) {
    restore();
    const bool changed = is_gone(error);
    return tell_left(entry.record, changed ? Verdict::kChanged : Verdict::kUnreadable,
                     changed ? "written or replaced while the run read it" : std::strerror(error));
  }
  judge(entry.record, now, *comparison);
  writing_ = false;
}

// The old record of the current file stays.
void Recording::restore() {
  if (writing_) drop();
  restored_.add(old_->again.totals().files);
}

} // namespace scrub
