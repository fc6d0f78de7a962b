// Compares a tree with its manifest.
// SPDX-License-Identifier: Apache-2.0
#include "scrub.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>

#include "checkpoint.hpp"
#include "comparison.hpp"
#include "damaged_list.hpp"
#include "digest.hpp"
#include "engine.hpp"
#include "interrupt.hpp"
#include "moves.hpp"
#include "opening.hpp"
#include "part_state.hpp"
#include "planner.hpp"
#include "ranges.hpp"
#include "report.hpp"
#include "second_reads.hpp"
#include "supervision.hpp"
#include "text.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

constexpr std::uint64_t kCheckpointInterval = 10'000'000'000; // nanoseconds

// Reads the whole manifest, so that a bad one is refused before the comparison begins.
class Checked {
public:
  Checked(const Fd &fd, const std::string &name) : fd_(fd), name_(name) {
    ManifestReader manifest(fd.get(), name);
    tree = manifest.tree();
    FileRecord file;
    Checksums block;
    while (manifest.next_file(file) && !interrupted()) {
      while (manifest.next_block(block) && !interrupted()) {
      }
    }
    recorded = manifest.totals();
    code = manifest.code();
  }

  // Passes the records that the run covers through the window. Returns the bytes in it.
  std::uint64_t pass(const ScopeFilter &filter, Window &window) const {
    const Fd fd = open_again(fd_, name_);
    ManifestReader manifest(fd.get(), name_);
    FileRecord file;
    std::uint64_t bytes = 0;
    while (manifest.next_file(file) && !interrupted()) {
      if (!filter.covers(file.path)) continue;
      const Window::Selection selection = window.select(file);
      bytes += std::min(file.size, selection.end * kBlockSize) -
               std::min(file.size, selection.first * kBlockSize);
    }
    return bytes;
  }

  TreeRecord tree{};
  Totals recorded{};
  std::uint32_t code = 0;

private:
  const Fd &fd_;
  const std::string &name_;
};

class Verification {
public:
  Verification(const Job &job, Report &report)
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

  void run() {
    choose_window();
    report_.progress().expect_bytes(bytes_);
    Supervision supervision(report_.progress(), report_.cpus(), options_.stall);
    planner_.emplace(&planned_, walk_, filter_, window_,
                     Wanted{Action::kRead, Action::kStatus, foreign_});
    engine_.emplace(options_, report_.series(),
                    [this](std::span<Entry> entries) { return planner_->fill(entries); });
    second_.emplace(tree_, *engine_, [this](const Suspects &suspects) { judge(suspects); });
    compare();
    if (!over()) second_->finish();
    if (!over()) resolve_moves();
    ranges_.flush();
    report_.end_file();
    if (!over()) supervision.finish();
    finish();
  }

  // Returns false if a thread hangs; then this object must not be destroyed.
  bool stop() {
    if (!interrupted()) return engine_->stop(-1);
    return engine_->stop(kPatience) && second_->stop(kPatience);
  }

private:
  bool over() const { return interrupted() || limited_; }

  void choose_window() {
    std::uint64_t weight = 0;
    if (part_.of != 0) {
      Window all;
      checked_.pass(filter_, all);
      weight = all.weight();
      window_ = Window(part_, weight);
    }
    if (options_.resume) resume();
    Window window = window_;
    bytes_ = checked_.pass(filter_, window);
    prepared_ = !interrupted();
  }

  void resume() {
    const std::optional<Checkpoint> checkpoint = checkpoint_file_.read();
    if (!checkpoint) return report_.note("There is no checkpoint: the run begins at the start");
    if (checkpoint->manifest != checked_.code)
      return report_.note("The checkpoint is of an older manifest: the run begins at the start");
    if (checkpoint->scope != scope())
      throw std::runtime_error(checkpoint_file_.path() +
                               " is of a run with another part or other paths; give the same, or "
                               "leave --resume out");
    window_.resume_at(checkpoint->position);
    resumed_at_ = checkpoint->position;
    resumed_ = true;
    report_.note(std::string("Going on after ") + escape(checkpoint->position.path).c_str());
    for (std::size_t i = 0; i < static_cast<std::size_t>(Count::kCounts); ++i)
      count(static_cast<Count>(i)) += checkpoint->counts[i];
    // What the run meets again.
    for (const Verdict verdict :
         {Verdict::kMissing, Verdict::kNew, Verdict::kMoved, Verdict::kSkipped})
      count_of(verdict) = 0;
    last_ = checkpoint->position;
  }

  void compare() {
    while (Batch *batch = engine_->next()) {
      for (Entry &entry : batch->entries()) {
        take(*batch, entry);
        if (over()) return;
      }
      poll();
    }
  }

  // What a checkpoint passes over was told, and is on the list if it is damaged.
  void poll() {
    second_->poll();
    const std::uint64_t now = vorn_time_getnanosec();
    if (now - last_checkpoint_ <= kCheckpointInterval) return;
    last_checkpoint_ = now;
    ranges_.flush();
    save_damaged();
    checkpoint_file_.write_soon(checkpoint());
  }

  // A checkpoint of a copy says nothing about another copy.
  std::string scope() const {
    const TreeRecord tree = tree_.identity();
    return scope_text(options_, part_) + " tree " + std::to_string(tree.inode) + " " +
           std::to_string(tree.file_system != 0 ? tree.file_system : tree.device);
  }

  void take(Batch &batch, Entry &entry) {
    if (!entry.recorded) return take_added(entry);
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

  void take_added(const Entry &entry) {
    if (entry.error != 0) return skip(entry.path(), entry.error);
    moves_.added(entry.path(), entry.now, {}, 0);
  }

  void skip(const String &path, int error) {
    report_.finding({.verdict = Verdict::kSkipped, .path = path, .why = reason(error)});
  }

  void take_lost(const Entry &entry) {
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
  static std::uint64_t bytes_of(const Entry &entry) {
    return std::min(entry.record.size, entry.end_block * kBlockSize) -
           std::min(entry.record.size, entry.first_block * kBlockSize);
  }

  void unreadable(const FileRecord &record, const String &why) {
    report_.finding({.verdict = Verdict::kUnreadable,
                     .path = record.path,
                     .recorded_size = record.size,
                     .why = why});
  }

  void changed(const FileRecord &record, const char *why) {
    if (!changed_.insert(record.path).second) return;
    report_.finding({.verdict = Verdict::kChanged,
                     .path = record.path,
                     .recorded_size = record.size,
                     .why = why});
  }

  void fail(const Entry &entry, int error) {
    if (error == EINTR && interrupted()) return;
    report_.progress().drop_bytes(bytes_of(entry));
    if (is_gone(error)) return changed(entry.record, reason(error));
    unreadable(entry.record, reason(error));
  }

  void compare_small(Batch &batch, const Entry &entry) {
    add_way(medium_, entry.way);
    Comparison comparison(manifest_, entry.record, entry.now, is_known(entry));
    const std::span<const Checksums> blocks = batch.checksums(entry);
    comparison.add({.checksums = blocks, .zeros = 0, .bytes = entry.now.size});
    count_read(blocks.size(), entry.now.size);
    end(entry, comparison, entry.now, entry.has_changed);
  }

  void compare_large(const Entry &entry) {
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

  bool is_known(const Entry &entry) const { return damaged_.contains(entry.record.path); }

  void count_read(std::uint64_t blocks, std::uint64_t bytes) {
    read_.blocks += blocks;
    read_.bytes += bytes;
    count(Count::kBytes) += bytes;
    report_.progress().add_bytes(bytes);
  }

  void end(const Entry &entry, Comparison &comparison, const Attributes &now, bool has_changed) {
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

  // The verdict on blocks that were read twice.
  void judge(const Suspects &suspects) {
    for (const Suspect &block : suspects.blocks) {
      switch (block.again) {
      case Again::kUnread:
        return;
      case Again::kWritten:
        return changed(suspects.file, "written after the run had read it");
      case Again::kRight:
        ranges_.add(Verdict::kPassing, suspects.file, block);
        break;
      case Again::kWrong:
        ranges_.add(Verdict::kDamaged, suspects.file, block);
        damaged_.add(suspects.file.path);
      }
    }
    const std::uint64_t most = options_.max_errors;
    if (most != 0 && report_.damaged_files() + ranges_.begins_damage() >= most) limited_ = true;
  }

  void resolve_moves() {
    MoveActions actions;
    actions.read = [this](const String &path, int &error) { return digest_of(path, error); };
    actions.moved = [this](const String &path, const String &from) {
      report_.finding({.verdict = Verdict::kMoved, .path = path, .from = from});
    };
    actions.damaged = [this](const String &path, const String &from) {
      report_.finding({.verdict = Verdict::kDamaged,
                       .path = path,
                       .from = from,
                       .whole_file = true,
                       .begins_file = true});
    };
    actions.unreadable = [this](const String &path, const String &from, int error) {
      report_.finding(
          {.verdict = Verdict::kUnreadable, .path = path, .from = from, .why = reason(error)});
    };
    actions.missing = [this](const String &path, std::uint64_t size) {
      report_.finding({.verdict = Verdict::kMissing, .path = path, .recorded_size = size});
    };
    actions.added = [this](const String &path, std::uint64_t size, int error) {
      if (error != 0 && error != EINTR) return skip(path, error);
      report_.finding({.verdict = Verdict::kNew, .path = path, .size = size});
    };
    moves_.resolve(actions);
  }

  std::optional<std::uint64_t> digest_of(const String &path, int &error) {
    const auto file = std::make_shared<DataFile>();
    Fd fd = tree_.open(path, O_RDONLY);
    error = fd ? file->adopt(std::move(fd), options_.cached) : errno;
    if (error != 0) return {};
    Digest digest;
    std::uint64_t bytes = 0;
    error = engine_->read(file, 0, block_count(file->attributes().size),
                          [&](const Engine::Blocks &blocks) {
                            for (const Checksums &block : blocks.checksums)
                              digest.add(block);
                            for (std::uint64_t i = 0; i < blocks.zeros; ++i)
                              digest.add(zero_block());
                            bytes += blocks.bytes;
                          });
    if (error == 0 && (bytes < file->attributes().size || file->has_changed())) error = ESTALE;
    if (error != 0) return {};
    return digest.value();
  }

  // Everything before it was read, and its suspects were judged.
  Checkpoint checkpoint() const {
    Checkpoint checkpoint{.manifest = checked_.code, .scope = scope()};
    const Suspects *first = second_->first();
    checkpoint.position =
        first != nullptr ? Position{first->file.path, first->blocks.front().block} : last_;
    for (std::size_t i = 0; i < static_cast<std::size_t>(Count::kCounts); ++i)
      checkpoint.counts[i] = count(static_cast<Count>(i));
    return checkpoint;
  }

  bool narrowed() const {
    return !options_.scope.only.empty() || !options_.scope.excludes.empty() ||
           options_.scope.one_file_system;
  }

  void finish() {
    Summary summary;
    summary.read = read_;
    summary.recorded = checked_.recorded;
    summary.medium = medium_;
    report_.observe();
    // The planner uses the walk until it has ended.
    if (stop()) summary.left_out = walk_.counts();
    summary.interrupted = interrupted();
    summary.limited = limited_;
    summary.part = part_;
    summary.resumed = resumed_;
    if (part_.of != 0)
      summary.note = "part " + std::to_string(part_.number) + " of " + std::to_string(part_.of);
    if (over()) {
      leave_checkpoint();
    } else {
      tell(checkpoint_file_.remove(), "the checkpoint cannot be removed");
      if (part_.of != 0 && !narrowed()) save_part();
    }
    save_damaged();
    report_.finish(summary);
  }

  void save_damaged() { tell(damaged_.save(), "The list of damaged files cannot be written"); }

  // A run that was interrupted before it began to read leaves the checkpoint before it in place.
  void leave_checkpoint() {
    if (!prepared_) return;
    const Checkpoint checkpoint = this->checkpoint();
    if (const int error = checkpoint_file_.write(checkpoint); error != 0)
      return tell(error, "no checkpoint can be written");
    report_.note("--resume goes on from " + checkpoint_file_.path());
  }

  void tell(int error, const char *what) {
    if (error != 0) report_.note(std::string(what) + ": " + std::strerror(error));
  }

  // A run that cannot remember its part would verify the same part each time.
  void save_part() {
    if (const int error = part_state_.save(part_); error != 0 && options_.part.number == 0)
      report_.finding({.verdict = Verdict::kSkipped,
                       .path = String(job_.paths.part_name()),
                       .why = String("the part cannot be remembered: ") + std::strerror(error)});
  }

  const Job &job_;
  const Options &options_;
  Report &report_;
  const std::string name_;
  const Fd fd_;
  const Checked checked_;
  const Tree tree_;
  const OwnFiles own_;
  const ScopeFilter filter_;
  Walk walk_;
  const Fd planned_fd_;
  ManifestReader planned_; // read by the planner
  const Fd manifest_fd_;
  ManifestReader manifest_; // read by the collector, file by file after the planner
  DamagedList damaged_;
  CheckpointFile checkpoint_file_;
  const PartState part_state_;
  const Part part_;
  Window window_;
  std::uint64_t bytes_ = 0; // to read
  Ranges ranges_;
  Moves moves_;

  FileRecord record_{};
  Position last_{};
  Totals read_{};
  Medium medium_{};
  bool limited_ = false;
  bool prepared_ = false; // the manifest was read to its end
  bool resumed_ = false;
  Position resumed_at_{};
  std::uint64_t last_checkpoint_ = vorn_time_getnanosec();
  bool foreign_ = false;                  // the manifest is of another tree
  std::set<String, std::less<>> changed_; // the files told as changed

  std::optional<Planner> planner_;
  std::optional<Engine> engine_;
  std::optional<SecondReads> second_;
};

} // namespace

void verify(const Job &job, Report &report) {
  report.begin("Verifying " + job.root + " against " + job.paths.manifest());
  auto verification = std::make_unique<Verification>(job, report);
  verification->run();
  if (verification->stop()) return;
  verification.release(); // NOLINT: the hanging thread uses it
  note_hanging_thread();
}

} // namespace scrub
