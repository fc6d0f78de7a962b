// Reads and computes checksums in threads of the library, and works on the result in the caller's.
// Batches of blocks go round between them, each handover by a ring of the library:
//
//      reader  --filled-->  checker  --checked-->  caller
//        ^     --filled-->  checker  --checked-->     |
//        |                    ...                     |
//        +-------------------- empty -----------------+
//
// There is one thread at each end of a ring. The reader gives batches to the checkers in turn and
// the caller takes them in the same turn, so batches stay in order. There are as many batches as a
// ring holds: a ring never overflows, who is faster than the others waits for a batch, and memory
// is bounded whatever the size of the files. A batch holds blocks of several files where they are
// small.
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

// What was read of a file at once: blocks that follow each other, the last one may be a short one.
struct Blocks {
  std::span<const Checksums> checksums; // there when the task runs
  std::size_t bytes;
};

class Pipeline {
public:
  static constexpr unsigned int kBatches = 31; // one less than a power of two

  // With crash, the first checker faults at its first batch.
  explicit Pipeline(const Settings &settings, bool crash = false);

  // Runs read in a thread of its own and, in the calling one, all the tasks that read adds, in
  // their order. What a task throws ends the reading, and is thrown. What read throws is thrown
  // behind the last task. In any case the threads have ended. To be called once.
  void run(const Task &read);

  // So many bytes are read elsewhere, which counts for the rate limit: for any thread.
  void charge(std::uint64_t bytes) { charged_ += bytes; }

  // The following are for read.

  // Room for at least one block, and for whole ones, of the read size limit at most. Waits until
  // there is some.
  std::span<std::byte> room();

  // Takes the first bytes of that room, to compute the checksums of the blocks that they are, and
  // waits for as long as the rate limit says that reading them takes. For tasks that are added
  // before anything else is done here.
  Blocks add_blocks(std::size_t bytes);

  // Adds a task, which is run when the checksums of all blocks before it are there.
  void then(Task task);

private:
  // Blocks that are read, each at its place in the buffer, and the tasks behind them.
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

  // The way through a checker.
  struct Lane {
    void run_checker(bool crash);

    Handover<Batch> filled{kBatches};
    Handover<Batch> checked{kBatches};
  };

  // Takes turns, in the same order for whoever has one.
  class Turn {
  public:
    explicit Turn(Vector<Lane> &lanes) : lanes_(lanes) {}
    Lane &next() { return lanes_[passed_++ % lanes_.size()]; }

  private:
    Vector<Lane> &lanes_;
    std::size_t passed_ = 0;
  };

  // Has the threads end.
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

  // Of the reader's thread:
  Turn turn_{lanes_};
  RateLimit rate_;
  FineSleep sleep_;
  Batch *batch_ = nullptr; // the one that it fills

  const bool crash_;
  std::exception_ptr failure_; // the reader's, there before the last batch is
};

} // namespace scrub

#endif
