// Defines what a run tells the report at its end.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SUMMARY_HPP
#define SCRUB_SUMMARY_HPP

#include <cstdint>
#include <string>

#include "manifest.hpp"
#include "scrub.hpp"
#include "walk.hpp"

namespace scrub {

// How the data were read: files by each way.
struct Medium {
  std::uint64_t direct = 0;
  std::uint64_t dropped = 0; // from the page cache before and after
  std::uint64_t cached = 0;  // read through the page cache
};

struct Summary {
  Totals read{};     // files, blocks and bytes that were read
  Totals recorded{}; // in the manifest (create, update: in the new one)
  Medium medium{};
  Walk::Counts left_out{};
  Part part{};              // 0 of 0: everything
  bool resumed = false;     // --resume went on where a run had ended
  bool interrupted = false; // by a signal
  bool limited = false;     // by --max-errors
  bool committed = false;   // create, update: the manifest was written
  std::string note{};       // what narrows the run, for people: "part 3 of 30"; empty: nothing
};

} // namespace scrub

#endif
