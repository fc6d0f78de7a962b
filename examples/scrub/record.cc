// Records a tree: all of it (create), or what was written since (update).
// SPDX-License-Identifier: Apache-2.0
#include "scrub.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <set>
#include <stdexcept>
#include <sys/stat.h>

#include "comparison.hpp"
#include "damaged_list.hpp"
#include "digest.hpp"
#include "engine.hpp"
#include "instance.hpp"
#include "interrupt.hpp"
#include "manifest_writer.hpp"
#include "moves.hpp"
#include "opening.hpp"
#include "planner.hpp"
#include "report.hpp"
#include "supervision.hpp"
#include "text.hpp"

namespace scrub {
namespace {

using Paths = std::set<String, std::less<>>;

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

// The manifest whose records stay, if their files were not written since.
struct Old {
  Old(Fd opened, const std::string &path, ManifestReader::Kind kind)
      : name(path), fd(std::move(opened)), planned_fd(open_again(fd, path)),
        planned(planned_fd.get(), path, kind), again_fd(open_again(fd, path)),
        again(again_fd.get(), path, kind) {}

  const std::string name;
  const Fd fd;
  const Fd planned_fd;
  ManifestReader planned; // read by the planner
  const Fd again_fd;
  ManifestReader again; // read by the collector
};

class Recording {
public:
  // old is NULL for a manifest that begins anew. update tells what has changed.
  Recording(const Job &job, Report &report, std::unique_ptr<Old> old, bool update)
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

  void run() {
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

  bool stop() { return engine_->stop(interrupted() ? kPatience : -1); }

private:
  TreeRecord old_tree() const { return old_ ? old_->again.tree() : TreeRecord(); }

  void accept(const std::string &path) {
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
  bool must_read(const String &path) const {
    return known_.contains(path) || accepted_.contains(path);
  }

  // The bytes to read, for the progress bar.
  std::uint64_t count_bytes() {
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

  void take(Batch &batch, Entry &entry) {
    if (!entry.recorded) return take_added(batch, entry);
    while (old_->again.next_file(record_now_) && record_now_.path != entry.record.path) {
    }
    if (entry.outside) {
      if (!entry.dropped) copy(entry.record);
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
  bool copy(const FileRecord &file) {
    writer_->begin_file(file);
    Checksums block;
    std::uint64_t blocks = 0;
    while (old_->again.next_block(block) && !interrupted()) {
      writer_->add_block(block);
      ++blocks;
    }
    if (blocks == block_count(file.size)) return true;
    writer_->drop_file();
    return false;
  }

  void leave(const FileRecord &file, int error) {
    if (error == EINTR) return;
    if (!update_) return skip(file.path, error);
    copy(file);
    tell_left(file, is_gone(error) ? Verdict::kChanged : Verdict::kUnreadable, reason(error));
  }

  void tell_left(const FileRecord &file, Verdict verdict, const char *why) {
    report_.finding(
        {.verdict = verdict, .path = file.path, .recorded_size = file.size, .why = why});
  }

  void skip(const String &path, int error) {
    if (error == EINTR) return;
    report_.finding({.verdict = Verdict::kSkipped, .path = path, .why = reason(error)});
  }

  void take_lost(const Entry &entry) {
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
    moves_.missing(entry.record, digest.value());
  }

  void take_added(Batch &batch, Entry &entry) {
    if (entry.file.error != 0 || entry.outcome == Outcome::kFailed) return take_unreadable(entry);
    read_anew(batch, entry);
  }

  // Files below a directory that cannot be read may be recorded under another path.
  void take_unreadable(const Entry &entry) {
    if (entry.file.is_directory && entry.error != ENOENT) hidden_ = true;
    struct stat status {};
    const bool known = !entry.file.is_directory && update_ && !is_gone(entry.error) &&
                       tree_.status(entry.path(), status);
    if (!known) return skip(entry.path(), entry.error);
    moves_.added(entry.path(), attributes_of(status), {}, entry.error);
  }

  // Records a file that has no record, or none that can be used.
  void read_anew(Batch &batch, Entry &entry) {
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
    if (update_) moves_.added(entry.path(), now, digest.value(), 0);
  }

  static constexpr int kChanged = ESTALE;

  void skip_changed(const String &path, int error) {
    if (error != kChanged) return skip(path, error);
    report_.finding({.verdict = Verdict::kChanged,
                     .path = path,
                     .why = "written or replaced while the run read it"});
  }

  void write(const Engine::Blocks &blocks, Digest *digest) {
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

  void drop() {
    writer_->drop_file();
    writing_ = false;
  }

  // Calls begin, then add for the blocks of the file of an entry, which a thread has read or which
  // is read now. Returns 0 or an errno, after begin if writing_ is set.
  template <class Begin, class Add>
  int read(Batch &batch, const Entry &entry, Begin begin, Add add) {
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

  int done(Way way, bool has_changed) {
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
  void take_written(Batch &batch, Entry &entry) {
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
      restore(entry.record.path);
      const bool changed = is_gone(error);
      return tell_left(entry.record, changed ? Verdict::kChanged : Verdict::kUnreadable,
                       changed ? "written or replaced while the run read it"
                               : std::strerror(error));
    }
    judge(entry.record, now, *comparison);
    writing_ = false;
  }

  void restore(const String &path) {
    if (writing_) drop();
    restored_.push_back(path);
  }

  void judge(const FileRecord &file, const Attributes &now, Comparison &comparison) {
    const bool wrong = comparison.is_unwritten() && comparison.differing() != 0;
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
    if (wrong && !accepted) restore(file.path);
    report_.finding(finding);
  }

  void resolve_moves() {
    MoveActions actions;
    actions.read = [](const String &, int &) { return std::nullopt; };
    actions.moved = [this](const String &path, const String &from) {
      report_.finding({.verdict = Verdict::kMoved, .path = path, .from = from});
    };
    actions.damaged = [this](const String &path, const String &from) {
      const bool accepted = accepted_.contains(path);
      if (!accepted) {
        dropped_.insert(path);
        restored_.push_back(from);
      }
      report_.finding({.verdict = Verdict::kDamaged,
                       .path = path,
                       .from = from,
                       .whole_file = true,
                       .begins_file = true,
                       .accepted = accepted});
    };
    actions.unreadable = [this](const String &path, const String &from, int error) {
      restored_.push_back(from);
      report_.finding(
          {.verdict = Verdict::kUnreadable, .path = path, .from = from, .why = reason(error)});
    };
    actions.missing = [this](const String &path, std::uint64_t size) {
      Finding finding{.verdict = Verdict::kMissing, .path = path, .recorded_size = size};
      if (hidden_) {
        restored_.push_back(path);
        finding.verdict = Verdict::kUnreadable;
        finding.why = "missing, or below a directory that cannot be read";
      }
      report_.finding(finding);
    };
    actions.added = [this](const String &path, std::uint64_t size, int error) {
      if (error != 0) return skip(path, error);
      report_.finding({.verdict = Verdict::kNew, .path = path, .size = size});
    };
    moves_.resolve(actions);
  }

  void finish() {
    Summary summary;
    summary.interrupted = interrupted();
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

  // What create records is right by definition.
  void save_damaged() {
    if (!update_) damaged_.clear();
    if (const int error = damaged_.save(); error != 0)
      report_.note(std::string("The list of damaged files cannot be written: ") +
                   std::strerror(error));
  }

  // Writes the manifest once more, with old records in place of new ones.
  void write_restored() {
    std::ranges::sort(restored_, path_before);
    const Fd fresh_fd = writer_->detach();
    ManifestReader fresh(fresh_fd.get(), job_.paths.manifest());
    const Fd old_fd = open_again(old_->fd, old_->name);
    ManifestReader old(old_fd.get(), old_->name);
    writer_.emplace(job_.paths, record_);

    FileRecord file;
    FileRecord recorded;
    auto restored = restored_.begin();
    const auto write_until = [&](const String *path) {
      for (; restored != restored_.end() && (path == nullptr || path_before(*restored, *path));
           ++restored) {
        while (old.next_file(recorded) && recorded.path != *restored) {
        }
        write_blocks(recorded, old);
      }
    };
    while (fresh.next_file(file) && !interrupted()) {
      write_until(&file.path);
      if (!dropped_.contains(file.path)) write_blocks(file, fresh);
    }
    if (!interrupted()) write_until(nullptr);
  }

  void write_blocks(const FileRecord &file, ManifestReader &manifest) {
    writer_->begin_file(file);
    Checksums block;
    while (manifest.next_block(block) && !interrupted())
      writer_->add_block(block);
  }

  const Job &job_;
  const Options &options_;
  Report &report_;
  const bool update_;
  const Tree tree_;
  const OwnFiles own_;
  const std::unique_ptr<Old> old_;
  const TreeRecord record_;
  const ScopeFilter filter_;
  Walk walk_;
  const DamagedList known_; // before the run
  DamagedList damaged_;
  Paths accepted_;
  Moves moves_;
  std::optional<ManifestWriter> writer_;

  FileRecord record_now_{};
  bool writing_ = false; // a file that may be dropped
  bool foreign_ = false; // the old manifest is of another tree
  bool hidden_ = false;  // a directory could not be read that is not recorded
  Vector<String> restored_;
  Paths dropped_;
  Totals read_{};
  Medium medium_{};

  std::optional<Planner> planner_;
  std::optional<Engine> engine_;
};

void run(const Job &job, Report &report, std::unique_ptr<Old> old, bool update) {
  auto recording = std::make_unique<Recording>(job, report, std::move(old), update);
  recording->run();
  if (recording->stop()) return;
  recording.release(); // NOLINT: the hanging thread uses it
  note_hanging_thread();
}

// Opens what an interrupted create has left; NULL if there is nothing.
std::unique_ptr<Old> unfinished(const Job &job, Report &report) {
  const std::string name = job.paths.manifest_directory + "/" + job.paths.unfinished_name();
  Fd fd(open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    report.note("There is no unfinished manifest: the run begins at the start");
    return nullptr;
  }
  // The writer refuses to replace the file if another run holds it.
  auto old = std::make_unique<Old>(std::move(fd), name, ManifestReader::Kind::kPartial);
  report.note("Going on with " + name);
  return old;
}

} // namespace

void create(const Job &job, Report &report) {
  report.begin("Recording " + job.root + " in " + job.paths.manifest());
  run(job, report, job.options.resume ? unfinished(job, report) : nullptr, false);
}

void update(const Job &job, Report &report) {
  report.begin("Updating " + job.paths.manifest() + " from " + job.root);
  const std::string name = job.paths.manifest();
  {
    const Fd fd = open_manifest(name);
    ManifestReader manifest(fd.get(), name); // a bad manifest is refused before the run begins
    FileRecord file;
    Checksums block;
    while (manifest.next_file(file) && !interrupted()) {
      while (manifest.next_block(block) && !interrupted()) {
      }
    }
  }
  run(job, report, std::make_unique<Old>(open_manifest(name), name, ManifestReader::Kind::kWhole),
      true);
}

} // namespace scrub
