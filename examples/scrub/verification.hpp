// Declares the comparison of a tree with its manifest. The methods are in three sources: what is
// read and compared, what is told, and what is left for the next run.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_VERIFICATION_HPP
#define SCRUB_VERIFICATION_HPP

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "checked_manifest.hpp"
#include "checkpoint.hpp"
#include "comparison.hpp"
#include "damaged_list.hpp"
#include "engine.hpp"
#include "moves.hpp"
#include "opening.hpp"
#include "part_state.hpp"
#include "planner.hpp"
#include "ranges.hpp"
#include "report.hpp"
#include "scrub.hpp"
#include "second_reads.hpp"
#include "vorn_time.h"

namespace scrub {

// Used by the collector, the thread of the instance.
class Verification {
public:
  // Throws an exception if the manifest is refused or does not belong to the tree.
  Verification(const Job &job, Report &report);
  void run();

  // Returns false if a thread hangs; then this object must not be destroyed.
  bool stop();

private:
  bool over() const { return interrupted() || limited_; }

  void check_only() const;
  void choose_window();
  void resume();
  void compare();
  void poll();
  std::string scope() const;
  void take(Batch &batch, Entry &entry);
  void take_added(const Entry &entry);
  void skip(const String &path, int error);
  void take_lost(const Entry &entry);
  static std::uint64_t bytes_of(const Entry &entry);
  void unreadable(const FileRecord &record, const String &why);
  void changed(const FileRecord &record, const char *why);
  void forget_changed();
  void fail(const Entry &entry, int error);
  void compare_small(Batch &batch, const Entry &entry);
  void compare_large(const Entry &entry);
  bool is_known(const Entry &entry) const { return damaged_.contains(entry.record.path); }

  void count_read(std::uint64_t blocks, std::uint64_t bytes);
  void end(const Entry &entry, Comparison &comparison, const Attributes &now, bool has_changed);
  void judge(const Suspects &suspects);
  void resolve_moves();
  std::optional<std::uint64_t> digest_of(const String &path, int &error);
  Checkpoint checkpoint() const;
  bool narrowed() const;
  void finish();
  void save_damaged() { tell(damaged_.save(), "The list of damaged files cannot be written"); }

  void leave_checkpoint();
  void tell(int error, const char *what);
  void save_part();

  const Job &job_;
  const Options &options_;
  Report &report_;
  const std::string name_;
  const Fd fd_;
  const CheckedManifest checked_;
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
  bool foreign_ = false;                 // the manifest is of another tree
  std::set<String, PathBefore> changed_; // files told as changed that may be judged again

  std::optional<Planner> planner_;
  std::optional<Engine> engine_;
  std::optional<SecondReads> second_;
};

} // namespace scrub

#endif
