// Joins wrong blocks to ranges before they are reported.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_RANGES_HPP
#define SCRUB_RANGES_HPP

#include "report.hpp"
#include "second_reads.hpp"
#include "verdict.hpp"

namespace scrub {

class Ranges {
public:
  explicit Ranges(Report &report) : report_(report) {}

  void add(Verdict verdict, const FileRecord &file, const Suspect &block) {
    if (open_ && range_.verdict == verdict && range_.path == file.path &&
        range_.first_block + range_.blocks == block.block) {
      ++range_.blocks;
      return;
    }
    flush();
    String &last = verdict == Verdict::kDamaged ? last_damaged_ : last_passing_;
    const bool begins = file.path != last;
    range_ = {.verdict = verdict,
              .path = file.path,
              .recorded_size = file.size,
              .size = file.size,
              .first_block = block.block,
              .blocks = 1,
              .begins_file = begins,
              .expected = block.expected,
              .found = block.found};
    open_ = true;
    last = file.path;
  }

  void flush() {
    if (open_) report_.finding(range_);
    open_ = false;
  }

  // Returns whether a damaged file has begun that is not yet reported.
  bool begins_damage() const {
    return open_ && range_.verdict == Verdict::kDamaged && range_.begins_file;
  }

private:
  Report &report_;
  Finding range_{};
  bool open_ = false;
  String last_damaged_{};
  String last_passing_{};
};

} // namespace scrub

#endif
