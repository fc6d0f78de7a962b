// Holds how far an interrupted verify came, so that --resume goes on from there.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_CHECKPOINT_HPP
#define SCRUB_CHECKPOINT_HPP

#include <cstdint>
#include <optional>
#include <string>

#include "instance.hpp"
#include "scrub.hpp"
#include "state_file.hpp"
#include "window.hpp"
#include "work.hpp"

namespace scrub {

struct Checkpoint {
  std::uint32_t manifest = 0; // its code
  std::string scope;          // of the run; another run cannot go on
  Position position{};
  std::uint64_t counts[static_cast<std::size_t>(Count::kCounts)] = {};
};

// Names what a run covers, for Checkpoint::scope.
std::string scope_text(const Options &options, const Part &part);

// The file of the checkpoint.
class CheckpointFile {
public:
  explicit CheckpointFile(const OwnPaths &paths);

  // Returns nothing if there is no checkpoint. Throws std::runtime_error if it is damaged.
  std::optional<Checkpoint> read() const;

  // Writes as scheduled work, unless a write is still under way.
  void write_soon(const Checkpoint &checkpoint);
  // These return 0 or an errno.
  int write(const Checkpoint &checkpoint);
  // Removes the checkpoint, unless it is of another scope of the same manifest.
  int remove(const Checkpoint &ended);

  const std::string &path() const { return file_.path(); }

private:
  StateFile file_;
  std::optional<Work> work_;
};

} // namespace scrub

#endif
