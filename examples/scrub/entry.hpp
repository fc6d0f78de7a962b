// Defines an entry: a path of the manifest, of the tree or of both, and what a thread has read of
// its file.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_ENTRY_HPP
#define SCRUB_ENTRY_HPP

#include <cstddef>
#include <cstdint>

#include "attributes.hpp"
#include "data_file.hpp"
#include "manifest.hpp"
#include "walk.hpp"

namespace scrub {

// What a thread does with the file of an entry.
enum class Action {
  kNothing,
  kStatus,    // asks for the attributes
  kIfWritten, // reads the file if its attributes are not as recorded
  kRead,
};

// What came of it.
enum class Outcome {
  kNotAsked,
  kStatus, // the attributes are known, the file was not read
  kRead,   // the checksums of all blocks are in the batch
  kLarge,  // the file is to be read by Engine::read()
  kFailed, // error says why
};

struct Entry {
  bool recorded = false; // in the manifest
  bool found = false;    // in the tree, as a regular file, or as a name that cannot be read
  bool outside = false;  // recorded, but the run was told to leave it out
  bool dropped = false;  // outside, because a pattern excludes it
  FileRecord record{};   // if it is recorded
  Found file{};          // if it is found

  // The recorded blocks that the run reads; all of them if whole is set. in is set if the record is
  // in the run's part, even if there is no block to read.
  bool in = true;
  bool whole = true;
  std::uint64_t first_block = 0;
  std::uint64_t end_block = 0;

  Action action = Action::kNothing;
  Outcome outcome = Outcome::kNotAsked;
  int error = 0;
  Attributes now{};
  bool has_changed = false; // while it was read
  Way way = Way::kCached;
  std::size_t first = 0; // of its checksums in the batch
  std::size_t count = 0;

  const String &path() const { return found ? file.path : record.path; }
};

} // namespace scrub

#endif
