// Remembers the last part that was verified to its end, for --part next/N.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PART_STATE_HPP
#define SCRUB_PART_STATE_HPP

#include "own_files.hpp"
#include "scrub.hpp"
#include "state_file.hpp"

namespace scrub {

class PartState {
public:
  explicit PartState(const OwnPaths &paths)
      : file_(paths.manifest_directory + "/" + paths.part_name()) {}

  // Replaces a wanted part number of 0 with the one after the last. Begins again after the last
  // part, or if the parts are others than before. Throws std::runtime_error if the file is damaged.
  Part choose(Part wanted) const;

  // Returns 0 or an errno.
  int save(const Part &completed) const;

private:
  StateFile file_;
};

} // namespace scrub

#endif
