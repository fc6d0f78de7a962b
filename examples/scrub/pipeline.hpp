// Reads files and computes checksums in threads of the library, and handles the results in the
// caller's thread. Batches of blocks pass between the threads by rings of the library:
//
//      reader  --filled-->  checker  --checked-->  caller
//        ^     --filled-->  checker  --checked-->     |
//        |                    ...                     |
//        +-------------------- empty -----------------+
//
// 1. The reader takes an empty batch, fills it and gives it to the next checker in turn.
// 2. The checker computes the checksums of the batch.
// 3. The caller takes batches from the checkers in the same turn, so they stay in order, runs their
//    tasks and returns the batch to the reader.
//
// Each end of a ring has one thread. There are as many batches as a ring holds: no ring overflows,
// a thread that is faster than the others waits for a batch, and memory is bounded for files of any
// size. A batch holds the blocks of several small files.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PIPELINE_HPP
#define SCRUB_PIPELINE_HPP

#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <span>

#include "checksums.hpp"
#include "fine_sleep.hpp"
#include "handover.hpp"
#include "memory.hpp"
#include "rate_limit.hpp"
#include "settings.hpp"

namespace scrub {

using Task = std::function<void()>;

// Consecutive blocks of a file. The last one may be short.
struct Blocks {
  std::span<const Checksums> checksums; // computed before the task runs
  std::size_t bytes;
};

class Pipeline {
public:
  static constexpr unsigned int kBatches = 31; // one less than a power of two

  // If crash is set, the first checker faults at its first batch.
  explicit Pipeline(const Settings &settings, bool crash = false);

  // Runs read in its own thread, and the tasks that read adds, in order, in the calling thread. An
  // exception of a task ends the reading and is thrown. An exception of read is thrown after the
  // last task. The threads have ended when this returns or throws. Called once.
  void run(const Task &read);

  // Counts bytes that are read elsewhere for the rate limit. Any thread may call this.
  void charge(std::uint64_t bytes) { charged_ += bytes; }

  // Only read may call the following.

  // Waits for room, and returns room for one or more whole blocks, up to the read size limit.
  std::span<std::byte> room();

  // Takes the first bytes of that room as blocks, and waits as the rate limit demands. A checker
  // computes their checksums. Only tasks that are added before any other call may use the result.
  Blocks add_blocks(std::size_t bytes);

  // Adds a task, which runs when the checksums of all earlier blocks are computed.
  void then(Task task);

private:
  // Blocks, each at its position in the buffer, and the tasks that follow them.
  struct Batch {
    explicit Batch(std::size_t blocks)
        : buffer(blocks * kBlockSize), lengths(blocks), checksums(blocks) {}

    bool full() const { return count == lengths.size(); }
    void check();
    void clear();

    Vector<std::byte> buffer;
    std::size_t count = 0; // of blocks
    Vector<std::size_t> lengths;
    Vector<Checksums> checksums;
    Vector<Task> tasks;
    bool last = false;
  };

  // The rings to and from a checker.
  struct Lane {
    void run_checker(bool crash);

    Handover<Batch> filled{kBatches};
    Handover<Batch> checked{kBatches};
  };

  // Returns the checkers in turn. The reader and the caller have one each.
  class Turn {
  public:
    explicit Turn(Vector<Lane> &lanes) : lanes_(lanes) {}
    Lane &next() { return lanes_[passed_++ % lanes_.size()]; }

  private:
    Vector<Lane> &lanes_;
    std::size_t passed_ = 0;
  };

  // Ends the threads.
  class Stop {
  public:
    explicit Stop(Pipeline &pipeline) : pipeline_(pipeline) {}
    Stop(const Stop &) = delete;
    Stop &operator=(const Stop &) = delete;
    ~Stop();

  private:
    Pipeline &pipeline_;
  };

  void next_batch();
  void keep_rate();
  void run_reader(const Task &read);
  void run_tasks();

  Vector<Batch> batches_;
  Vector<Lane> lanes_;
  Handover<Batch> empty_{kBatches};
  std::atomic<bool> stopped_ = false;
  std::atomic<std::uint64_t> charged_ = 0;

  // Only the reader's thread uses the following:
  Turn turn_{lanes_};
  RateLimit rate_;
  FineSleep sleep_;
  Batch *batch_ = nullptr; // the batch that it fills

  const bool crash_;
  std::exception_ptr failure_; // of the reader, which sets it before it passes the last batch on
};

} // namespace scrub

#endif
