// Defines what a run finds, and the exit status that follows from it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_VERDICT_HPP
#define SCRUB_VERDICT_HPP

#include <cstddef>
#include <cstdint>

#include "checksums.hpp"
#include "memory.hpp"

namespace scrub {

enum ExitStatus {
  kClean = 0,
  kDamage = 1,      // silent damage
  kCouldNotRun = 2, // an error ended the run, or it did not start
  kIncomplete = 3, // unreadable, skipped, vanished or interrupted; or a block was right only at the
                   // second read
  kDifferent = 4,  // only differences that a program made on purpose
};

// Returns the status that counts for both: 2 before 1 before 3 before 4 before 0.
constexpr ExitStatus worse(ExitStatus one, ExitStatus other) {
  constexpr int kWeights[] = {0, 3, 4, 2, 1};
  return kWeights[one] < kWeights[other] ? other : one;
}

enum class Verdict : std::size_t {
  kDamaged,    // the content differs, and no attribute says that the file was written
  kPassing,    // a block was wrong at the first read and right at the second
  kModified,   // the content differs, and the attributes say that the file was written
  kGrown,      // longer, with the recorded content at its beginning
  kShrunk,     // shorter, and what is left is as recorded
  kMissing,    // recorded, not in the tree
  kNew,        // in the tree, not recorded
  kMoved,      // recorded under another path that is not in the tree any more
  kUnreadable, // recorded, cannot be read to its end
  kChanged,    // written, cut or replaced while the run read it
  kSkipped,    // not recorded, cannot be read; or a directory that cannot be read
  kVerdicts
};

// A line of the report. Fields that a verdict does not use are empty or 0.
struct Finding {
  Verdict verdict = Verdict::kDamaged;
  String path{};
  String from{};                   // kMoved, or a moved file that is damaged: the recorded path
  std::uint64_t recorded_size = 0; // bytes
  std::uint64_t size = 0;          // bytes, now
  // kDamaged and kPassing: a range of consecutive blocks. Others: the number of blocks that differ.
  std::uint64_t first_block = 0;
  std::uint64_t blocks = 0;
  bool whole_file = false;  // kDamaged: files were compared as a whole, there is no range
  bool begins_file = false; // the first range of its file
  Checksums expected{};     // of the first block of the range
  Checksums found{};
  String why{};          // kUnreadable, kChanged, kSkipped
  bool accepted = false; // by --accept: update records the file as it is
};

} // namespace scrub

#endif
