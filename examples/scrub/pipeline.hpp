// Reads, computes checksums and works on the result in three threads at once. Batches of blocks go
// round between them, each handover by a ring of the library:
//
//      reader  --filled-->  checker  --checked-->  caller
//        ^                                            |
//        +-------------------- empty -----------------+
//
// There is one thread at each end of a ring, so batches stay in order. There are as many batches as
// a ring holds: a ring never overflows, who is faster than the others waits for a batch, and memory
// is bounded whatever the size of the files. A batch holds blocks of several files where they are
// small.
#ifndef SCRUB_PIPELINE_HPP
#define SCRUB_PIPELINE_HPP

#include <array>
#include <cstddef>
#include <exception>
#include <functional>
#include <span>
#include <stop_token>

#include "checksums.hpp"
#include "handover.hpp"
#include "memory.hpp"

namespace scrub {

using Task = std::function<void()>;

// What was read of a file at once: blocks that follow each other, the last one may be a short one.
struct Blocks {
  std::span<const Checksums> checksums; // there when the task runs
  std::size_t bytes;
};

class Pipeline {
public:
  static constexpr std::size_t kBlocksPerBatch = 32;
  static constexpr unsigned int kBatches = 31; // one less than a power of two

  Pipeline();

  // Runs read in a thread of its own and, in the calling one, all the tasks that read adds, in
  // their order. What a task throws ends the reading, and is thrown. What read throws is thrown
  // behind the last task. In any case the threads have ended. To be called once.
  void run(const Task &read);

  // The following are for read.

  // Room for at least one block, and for whole ones. Waits until there is some.
  std::span<std::byte> room();

  // Takes the first bytes of that room, to compute the checksums of the blocks that they are. For
  // tasks that are added before anything else is done here.
  Blocks add_blocks(std::size_t bytes);

  // Adds a task, which is run when the checksums of all blocks before it are there.
  void then(Task task);

private:
  // Blocks that are read, each at its place in the buffer, and the tasks behind them.
  struct Batch {
    void check();
    void clear();

    Vector<std::byte> buffer = Vector<std::byte>(kBlocksPerBatch * kBlockSize);
    std::size_t count = 0; // of blocks
    std::array<std::size_t, kBlocksPerBatch> lengths;
    std::array<Checksums, kBlocksPerBatch> checksums;
    Vector<Task> tasks;
    bool last = false;
  };

  void next_batch();
  void run_reader(const Task &read, const std::stop_token &stop);
  void run_checker(const std::stop_token &stop);
  void run_tasks();

  Vector<Batch> batches_;
  Handover<Batch> empty_{kBatches};
  Handover<Batch> filled_{kBatches};
  Handover<Batch> checked_{kBatches};

  // Of the reader's thread:
  Batch *batch_ = nullptr; // the one that it fills
  std::stop_token stop_;

  std::exception_ptr failure_; // the reader's, there before the last batch is
};

} // namespace scrub

#endif
