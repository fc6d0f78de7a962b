// Reads files and computes checksums in several threads of the library, and hands the results over
// in order. The work passes between the threads by rings of the library:
//
//      planner --batches of entries--> [work] --> reading threads
//         |                              ^
//         +---the same, in order-----> collector --pieces of large files--+
//
// 1. The planner fills an empty batch with entries, and puts it into the work and, for the order,
//    into the queue of the collector.
// 2. A reading thread takes the batch from the work, reads the small files and computes the
//    checksums of their blocks, while other threads read other batches.
// 3. The collector takes the batches in order and waits for each. It has a large file read in
//    pieces, several at a time, by the same threads, and then returns the batch to the planner.
//
// There are as many batches and pieces as the queues have room for: no queue overflows, a thread
// that is faster than the others waits, and memory is bounded for trees and files of any size. A
// thread reads into a buffer that it keeps: only checksums pass between the threads.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_ENGINE_HPP
#define SCRUB_ENGINE_HPP

#include <atomic>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <span>

#include "checksums.hpp"
#include "entry.hpp"
#include "memory.hpp"
#include "pace.hpp"
#include "queue.hpp"
#include "scrub.hpp"
#include "series.hpp"
#include "thread.hpp"

namespace scrub {

class Engine;

// What a reading thread keeps: room for a read, and a timer for the rate limit.
struct ReadingTools {
  explicit ReadingTools(std::size_t bytes) : buffer(bytes) {}

  Buffer buffer;
  FineSleep sleep;
};

class ReadingJob {
public:
  ReadingJob() = default;
  ReadingJob(const ReadingJob &) = delete;
  ReadingJob &operator=(const ReadingJob &) = delete;
  virtual ~ReadingJob() = default;

private:
  friend class Engine;
  virtual void run(Engine &engine, ReadingTools &tools) = 0; // in a reading thread
  Semaphore done_;
};

// Entries, in path order.
class Batch final : public ReadingJob {
public:
  static constexpr std::size_t kMostEntries = 32;
  // The most blocks of a small file, and of all small files of a batch.
  static constexpr std::uint64_t kSmallFile = 256;
  static constexpr std::uint64_t kMostBlocks = 1024;

  Batch() : entries_(kMostEntries) { checksums_.reserve(kMostBlocks); }

  std::span<Entry> entries() { return std::span(entries_).first(count_); }
  std::span<const Checksums> checksums(const Entry &entry) const {
    return std::span(checksums_).subspan(entry.first, entry.count);
  }

private:
  friend class Engine;
  void run(Engine &engine, ReadingTools &tools) override;

  std::vector<Entry> entries_;
  std::size_t count_ = 0;
  Vector<Checksums> checksums_;
};

// What became of a read of consecutive blocks.
struct Done {
  std::uint64_t bytes = 0; // before the error, or the end of the file
  int error = 0;
};

// Consecutive blocks of a large file, which one thread reads or which are in a hole.
class Piece final : public ReadingJob {
public:
  explicit Piece(std::size_t blocks) { checksums_.reserve(blocks); }

private:
  friend class Engine;
  void run(Engine &engine, ReadingTools &tools) override;

  std::shared_ptr<DataFile> file_;
  std::uint64_t offset_ = 0;
  std::uint64_t bytes_ = 0;
  bool hole_ = false;
  Done read_;
  Vector<Checksums> checksums_;
};

class Engine {
public:
  // Fills entries, and returns the number of them; 0 after the last one. May throw.
  using Plan = std::function<std::size_t(std::span<Entry> entries)>;

  // Consecutive blocks of a file: checksums, or whole blocks of zeros without checksums.
  struct Blocks {
    std::span<const Checksums> checksums{};
    std::uint64_t zeros = 0;
    std::uint64_t bytes = 0;
  };
  using Take = std::function<void(const Blocks &)>;

  // Starts the threads. plan runs in one of them.
  Engine(const Options &options, Series &series, Plan plan);
  Engine(const Engine &) = delete;
  Engine &operator=(const Engine &) = delete;
  ~Engine(); // stops the threads and waits for them

  // Only the collector, which is the thread that called the constructor, may call the following.

  // Returns the next batch, after its small files were read; NULL after the last one, or if the run
  // is interrupted. Takes back the batch before. Throws what plan threw.
  Batch *next();

  // Reads the blocks of a large file from first to before end, and calls take for them in order.
  // Takes fewer blocks if the file ends before. Returns 0; the errno of a failed read, with
  // failed_block(); or EINTR if the run is interrupted.
  int read(const std::shared_ptr<DataFile> &file, std::uint64_t first, std::uint64_t end,
           const Take &take);
  std::uint64_t failed_block() const { return failed_block_; }

  // Tells the threads to end. Returns false if one of them hangs in a read for longer than the
  // milliseconds; then this object must not be destroyed.
  bool stop(int milliseconds);

  // Counts bytes that are read elsewhere for the rate limit. Any thread may call this.
  void charge(std::uint64_t bytes) { pace_.add(bytes); }

private:
  friend class Batch;
  friend class Piece;

  void run_planner();
  void run_reader(ReadingTools &tools);
  void read_entry(Batch &batch, Entry &entry, ReadingTools &tools);
  void read_small(Batch &batch, Entry &entry, DataFile &file, ReadingTools &tools);
  Done read_range(DataFile &file, std::uint64_t offset, std::uint64_t bytes, ReadingTools &tools,
                  Vector<Checksums> &checksums);
  ssize_t read_blocks(DataFile &file, std::uint64_t offset, std::uint64_t bytes,
                      ReadingTools &tools, Vector<Checksums> &checksums);

  std::uint64_t piece_size(const DataFile &file) const;
  std::uint64_t add_piece(const std::shared_ptr<DataFile> &file, std::uint64_t at,
                          std::uint64_t end);
  Piece *oldest_piece();

  const Options &options_;
  Series &series_;
  const Plan plan_;
  Pace pace_;
  std::atomic<bool> stopped_ = false;

  std::deque<Batch> batches_;
  std::deque<Piece> pieces_;
  std::deque<ReadingTools> tools_; // one for each reading thread, which must not throw
  Queue<Batch> empty_;
  Queue<Batch> ordered_;
  Queue<ReadingJob> work_;
  std::exception_ptr failure_; // of plan; the planner sets it before it closes the ordered batches

  // Only the collector uses the following:
  Batch *current_ = nullptr;
  std::size_t oldest_ = 0; // of the pieces under way
  std::size_t under_way_ = 0;
  std::uint64_t data_end_ = 0; // the end of the data after the last hole of a sparse file
  std::uint64_t failed_block_ = 0;

  std::deque<Thread> threads_; // after everything that they use
};

} // namespace scrub

#endif
