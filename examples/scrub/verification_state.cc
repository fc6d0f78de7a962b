// Chooses what a run reads, and leaves what the next run needs.
// SPDX-License-Identifier: Apache-2.0
#include "verification.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "interrupt.hpp"
#include "text.hpp"

namespace scrub {

namespace {

constexpr std::uint64_t kCheckpointInterval = 10'000'000'000; // nanoseconds

} // namespace

// A mistyped --only would be clean.
void Verification::check_only() const {
  for (const std::string &path : options_.scope.only) {
    struct stat status {};
    if (tree_.status(path, status)) continue;
    Scope scope = options_.scope;
    scope.only = {path};
    Window all;
    checked_.pass(ScopeFilter(scope, checked_.tree), all);
    if (all.weight() == 0 && !interrupted())
      throw std::runtime_error("--only " + path + ": neither in the tree nor recorded");
  }
}

void Verification::choose_window() {
  check_only();
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

void Verification::resume() {
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
  const std::string path(escape(checkpoint->position.path));
  report_.note("Going on at " + path + ", block " + grouped(checkpoint->position.block));
  for (std::size_t i = 0; i < static_cast<std::size_t>(Count::kCounts); ++i)
    count(static_cast<Count>(i)) += checkpoint->counts[i];
  // What the run meets again.
  for (const Verdict verdict :
       {Verdict::kMissing, Verdict::kNew, Verdict::kMoved, Verdict::kSkipped})
    count_of(verdict) = 0;
  last_ = checkpoint->position;
}

// What a checkpoint passes over was told, and is on the list if it is damaged.
void Verification::poll() {
  second_->poll();
  const std::uint64_t now = vorn_time_getnanosec();
  if (now - last_checkpoint_ <= kCheckpointInterval) return;
  last_checkpoint_ = now;
  ranges_.flush();
  save_damaged();
  checkpoint_file_.write_soon(checkpoint());
}

// A checkpoint of a copy says nothing about another copy.
std::string Verification::scope() const {
  const TreeRecord tree = tree_.identity();
  return scope_text(options_, part_) + " tree " + std::to_string(tree.inode) + " " +
         std::to_string(tree.file_system != 0 ? tree.file_system : tree.device);
}

// Everything before it was read, and its suspects were judged.
Checkpoint Verification::checkpoint() const {
  Checkpoint checkpoint{.manifest = checked_.code, .scope = scope()};
  const Suspects *first = second_->first();
  checkpoint.position =
      first != nullptr ? Position{first->file.path, first->blocks.front().block} : last_;
  for (std::size_t i = 0; i < static_cast<std::size_t>(Count::kCounts); ++i)
    checkpoint.counts[i] = count(static_cast<Count>(i));
  return checkpoint;
}

bool Verification::narrowed() const {
  return !options_.scope.only.empty() || !options_.scope.excludes.empty() ||
         options_.scope.one_file_system;
}

void Verification::finish() {
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
    tell(checkpoint_file_.remove(checkpoint()), "the checkpoint cannot be removed");
    if (part_.of != 0 && !narrowed()) save_part();
  }
  const bool whole = !over() && !narrowed() && part_.of == 0;
  if (damaged_.holds_all() && whole && report_.status() == kClean) damaged_.clear();
  save_damaged();
  report_.finish(summary);
}

// A run that was interrupted before it began to read leaves the checkpoint before it in place.
void Verification::leave_checkpoint() {
  if (!prepared_) return;
  const Checkpoint checkpoint = this->checkpoint();
  if (const int error = checkpoint_file_.write(checkpoint); error != 0)
    return tell(error, "no checkpoint can be written");
  report_.note("--resume goes on from " + checkpoint_file_.path());
}

void Verification::tell(int error, const char *what) {
  if (error != 0) report_.note(std::string(what) + ": " + std::strerror(error));
}

// A run that cannot remember its part would verify the same part each time.
void Verification::save_part() {
  if (const int error = part_state_.save(part_); error != 0 && options_.part.number == 0)
    report_.finding({.verdict = Verdict::kSkipped,
                     .path = String(job_.paths.part_name()),
                     .why = String("the part cannot be remembered: ") + std::strerror(error)});
}

} // namespace scrub
