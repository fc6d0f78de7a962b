// Reads wrong blocks again, a second later. A block that is right then had a passing fault of the
// device, the path to it or memory. A block that is wrong again is damaged.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SECOND_READS_HPP
#define SCRUB_SECOND_READS_HPP

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

#include "checksums.hpp"
#include "engine.hpp"
#include "manifest.hpp"
#include "tree.hpp"
#include "vorn_timer.h"
#include "work.hpp"

namespace scrub {

enum class Again { kUnread, kRight, kWrong, kWritten };

struct Suspect {
  std::uint64_t block;
  Checksums expected;
  Checksums found;              // at the first read
  Again again = Again::kUnread; // at the second
};

// Wrong blocks of a file that no attribute says was written.
struct Suspects {
  FileRecord file;
  Attributes now; // at the first read
  Vector<Suspect> blocks;
};

// Used by the collector.
class SecondReads {
public:
  // take receives the suspects in the order of add(), after their second read.
  SecondReads(const Tree &tree, Engine &engine, std::function<void(const Suspects &)> take);
  SecondReads(const SecondReads &) = delete;
  SecondReads &operator=(const SecondReads &) = delete;
  ~SecondReads(); // waits for a read that is under way

  // Waits while too many suspects wait for their second read.
  void add(Suspects suspects);

  // Passes the suspects on whose second read is done.
  void poll();

  // Waits for all second reads, or until the run is interrupted.
  void finish();

  // After an interrupt: returns false if a second read hangs for longer than the milliseconds; then
  // this object must not be destroyed.
  bool stop(int milliseconds);

  // The first suspects that were not passed on; NULL if there are none.
  const Suspects *first() const;

private:
  // The suspects that are read together, as one item of scheduled work after a delay.
  class Pass;

  void start_pass();
  bool wait_for_pass();

  const Tree &tree_;
  Engine &engine_;
  const std::function<void(const Suspects &)> take_;
  std::unique_ptr<Pass> pass_;
  std::deque<Suspects> waiting_; // for the next pass
  std::size_t waiting_bytes_ = 0;
};

} // namespace scrub

#endif
