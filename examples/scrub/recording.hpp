// Declares the recording of a tree: all of it (create), or what was written since (update). The
// methods are in two sources: what is read and written, and what is told and completed.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_RECORDING_HPP
#define SCRUB_RECORDING_HPP

#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "comparison.hpp"
#include "damaged_list.hpp"
#include "digest.hpp"
#include "engine.hpp"
#include "manifest_writer.hpp"
#include "moves.hpp"
#include "opening.hpp"
#include "planner.hpp"
#include "record_set.hpp"
#include "report.hpp"
#include "scrub.hpp"

namespace scrub {

// The manifest whose records stay, if their files were not written since.
struct OldManifest {
  OldManifest(Fd opened, const std::string &path, ManifestReader::Kind kind)
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

// Used by the collector, the thread of the instance.
class Recording {
public:
  Recording(const Job &job, Report &report, std::unique_ptr<OldManifest> old, bool update);
  void run();

  // Returns false if a thread hangs; then this object must not be destroyed.
  bool stop() { return engine_->stop(interrupted() ? kPatience : -1); }

private:
  using Paths = std::set<String, std::less<>>;
  using Stop = std::function<bool()>;

  TreeRecord old_tree() const { return old_ ? old_->again.tree() : TreeRecord(); }

  void accept(const std::string &path);
  bool must_read(const String &path) const;
  std::uint64_t count_bytes();
  void take(Batch &batch, Entry &entry);
  bool copy(const FileRecord &file);
  void leave(const FileRecord &file, int error);
  void tell_left(const FileRecord &file, Verdict verdict, const char *why);
  void skip(const String &path, int error);
  void take_lost(const Entry &entry);
  void take_added(Batch &batch, Entry &entry);
  void take_unreadable(const Entry &entry);
  void read_anew(Batch &batch, Entry &entry);

  static constexpr int kChanged = ESTALE;

  void skip_changed(const String &path, int error);
  void write(const Engine::Blocks &blocks, Digest *digest);
  void drop();
  int read(Batch &batch, const Entry &entry, const std::function<void(const Attributes &)> &begin,
           const Engine::Take &add);
  int done(Way way, bool has_changed);
  void take_written(Batch &batch, Entry &entry);
  void restore();
  void judge(const FileRecord &file, const Attributes &now, Comparison &comparison);
  void resolve_moves();
  void finish();
  void save_damaged();
  void write_restored();
  void settle(FileRecord &record) const;
  bool write_blocks(const FileRecord &file, ManifestReader &manifest, const Stop &stop);
  void copy_rest();

  const Job &job_;
  const Options &options_;
  Report &report_;
  const bool update_;
  const Tree tree_;
  const OwnFiles own_;
  const std::unique_ptr<OldManifest> old_;
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
  RecordSet restored_;   // old records that stay
  RecordSet dropped_;    // new records that do not
  Totals read_{};
  Medium medium_{};

  std::optional<Planner> planner_;
  std::optional<Engine> engine_;
};

} // namespace scrub

#endif
