// Compares what was read of a file with its record, and gives the verdict.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_COMPARISON_HPP
#define SCRUB_COMPARISON_HPP

#include <cstdint>

#include "engine.hpp"
#include "manifest_reader.hpp"
#include "second_reads.hpp"
#include "verdict.hpp"

namespace scrub {

// One file: its blocks come in order, each with the next block of the manifest.
class Comparison {
public:
  // Skips to the first block in the manifest. If known is set, the file was found damaged before:
  // a new time of change alone does not mean that it was written.
  Comparison(ManifestReader &manifest, const FileRecord &record, const Attributes &now, bool known,
             std::uint64_t first_block = 0);

  void add(const Engine::Blocks &blocks);

  bool is_unwritten() const { return unwritten_; }
  std::uint64_t differing() const { return differing_; }
  // Whether the end of what is left was too short for a checksum of a sector: it may differ.
  bool has_rest() const { return has_rest_; }
  // The wrong blocks so far of a file that no attribute says was written.
  Suspects take_suspects();
  bool has_suspects() const { return !suspects_.empty(); }
  std::uint64_t block() const { return block_; } // the next

  // Returns the verdict on a file that was written and read to its end; kVerdicts if its content is
  // as recorded.
  Verdict verdict() const;

private:
  void compare(const Checksums &found);

  ManifestReader &manifest_;
  const FileRecord &record_;
  const Attributes now_;
  const bool unwritten_;
  std::uint64_t block_;
  std::uint64_t differing_ = 0;
  bool has_rest_ = false;
  Vector<Suspect> suspects_;
};

} // namespace scrub

#endif
