// Runs the threads that plan and read, and keeps their results in order.
// SPDX-License-Identifier: Apache-2.0
#include "engine.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <utility>

#include "vorn_time.h"

namespace scrub {
namespace {

constexpr std::size_t kBatchesOfThread = 4;
constexpr std::size_t kPiecesOfThread = 2;

// The most bytes of a piece, unless one read may be longer: passing a piece on costs more than a
// read from the page cache.
constexpr std::uint64_t kMostPiece = 4 << 20;

// The least pieces of a file for each thread, so that all threads have work to its end.
constexpr std::uint64_t kLeastPieces = 4;

// The most bytes of a read from the page cache: they are still in the processor's cache when their
// checksums are computed.
constexpr std::uint64_t kCachedRead = 128 << 10;

// The most bytes of a hole that are taken at once: an interrupt ends the run between pieces.
// All its blocks may be wrong and wait for a second read.
constexpr std::uint64_t kMostHole = 1 << 25;

[[gnu::noinline]] void fault_on_purpose() {
  static volatile std::uintptr_t never_mapped = 8;
  *reinterpret_cast<volatile int *>(never_mapped) = 1;
}

std::uint64_t round_up(std::uint64_t offset) {
  return (offset + kBlockSize - 1) / kBlockSize * kBlockSize;
}

void add_checksums(std::span<const std::byte> bytes, Vector<Checksums> &checksums) {
  for (std::size_t at = 0; at < bytes.size(); at += kBlockSize)
    checksums.push_back(checksums_of(bytes.subspan(at, std::min(kBlockSize, bytes.size() - at))));
}

} // namespace

Engine::Engine(const Options &options, Series &series, Plan plan)
    : options_(options), series_(series), plan_(std::move(plan)),
      pace_(options.settings.rate_limit * 1'000'000),
      batches_(kBatchesOfThread * options.settings.threads),
      empty_(static_cast<unsigned int>(batches_.size())),
      ordered_(static_cast<unsigned int>(batches_.size())),
      work_(
          static_cast<unsigned int>(batches_.size() + kPiecesOfThread * options.settings.threads)) {
  for (std::size_t i = 0; i < kPiecesOfThread * options.settings.threads; ++i)
    pieces_.emplace_back(std::max(kMostPiece, options.settings.read_size_limit) / kBlockSize);
  for (Batch &batch : batches_)
    empty_.put(batch);
  set_strategy(options.settings);
  try {
    for (std::size_t i = 0; i < options.settings.threads; ++i) {
      ReadingTools &tools = tools_.emplace_back(options.settings.read_size_limit);
      threads_.emplace_back("scrub_read" + std::to_string(i),
                            [this, &tools] { run_reader(tools); });
    }
    threads_.emplace_back("scrub_plan", [this] { run_planner(); });
  } catch (...) {
    stop(-1);
    throw;
  }
}

Engine::~Engine() { stop(-1); }

bool Engine::stop(int milliseconds) {
  if (!stopped_.exchange(true)) {
    empty_.close();
    for (std::size_t i = 0; i < options_.settings.threads; ++i)
      work_.close();
  }
  return std::ranges::all_of(threads_, [&](Thread &thread) { return thread.wait(milliseconds); });
}

Batch *Engine::next() {
  if (current_ != nullptr) empty_.put(*std::exchange(current_, nullptr));
  Batch *batch = ordered_.take_unless_interrupted();
  if (batch == nullptr) {
    if (!interrupted() && failure_) std::rethrow_exception(failure_);
    return nullptr;
  }
  if (!batch->done_.down_unless_interrupted()) return nullptr;
  return current_ = batch;
}

void Engine::run_planner() {
  try {
    while (Batch *batch = empty_.take()) {
      if (stopped_) return;
      batch->count_ = plan_(batch->entries_);
      if (batch->count_ == 0) break;
      ordered_.put(*batch);
      work_.put(*batch);
    }
  } catch (...) {
    failure_ = std::current_exception();
  }
  ordered_.close();
}

// A thread that finds the run over takes its jobs without reading.
void Engine::run_reader(ReadingTools &tools) {
  while (ReadingJob *job = work_.take()) {
    if (options_.crash) fault_on_purpose();
    job->run(*this, tools);
    job->done_.up();
  }
}

void Batch::run(Engine &engine, ReadingTools &tools) {
  checksums_.clear();
  for (Entry &entry : entries())
    engine.read_entry(*this, entry, tools);
}

void Engine::read_entry(Batch &batch, Entry &entry, ReadingTools &tools) {
  entry.outcome = Outcome::kNotAsked;
  entry.count = 0;
  entry.has_changed = false;
  if (entry.action == Action::kNothing || stopped_) return;
  const int directory = entry.file.directory->get();
  const char *name = entry.file.name.c_str();
  const auto fail_with = [&](int error) {
    entry.error = error;
    entry.outcome = Outcome::kFailed;
  };

  if (entry.action != Action::kRead) {
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return fail_with(errno);
    if (!S_ISREG(status.st_mode)) return fail_with(ESTALE);
    entry.now = attributes_of(status);
    entry.outcome = Outcome::kStatus;
    if (entry.action == Action::kStatus || unwritten(entry.record, entry.now)) return;
  }

  DataFile file;
  if (const int error = file.open(directory, name, options_.cached); error != 0)
    return fail_with(error);
  entry.now = file.attributes();
  const std::uint64_t blocks = block_count(entry.now.size);
  const bool fits = batch.checksums_.size() + blocks <= Batch::kMostBlocks;
  if (blocks > Batch::kSmallFile || !fits || !entry.whole) {
    entry.outcome = Outcome::kLarge;
    return;
  }
  read_small(batch, entry, file, tools);
}

void Engine::read_small(Batch &batch, Entry &entry, DataFile &file, ReadingTools &tools) {
  entry.first = batch.checksums_.size();
  const Done done = read_range(file, 0, entry.now.size, tools, batch.checksums_);
  if (done.error != 0) {
    entry.error = done.error;
    entry.outcome = Outcome::kFailed;
    batch.checksums_.resize(entry.first);
    return;
  }
  entry.count = batch.checksums_.size() - entry.first;
  entry.has_changed = done.bytes < entry.now.size || file.has_changed();
  entry.way = file.way();
  entry.outcome = Outcome::kRead;
}

// Reads bytes at an offset, in reads of at most the read size limit, and adds the checksums of
// their blocks. Stops early at the end of the file and at an error.
Done Engine::read_range(DataFile &file, std::uint64_t offset, std::uint64_t bytes,
                        ReadingTools &tools, Vector<Checksums> &checksums) {
  const std::uint64_t limit = options_.settings.read_size_limit;
  std::uint64_t done = 0;
  while (done < bytes) {
    const std::uint64_t most = file.way() == Way::kCached ? std::min(limit, kCachedRead) : limit;
    const std::uint64_t wanted = std::min(bytes - done, most);
    const ssize_t got = read_blocks(file, offset + done, wanted, tools, checksums);
    if (got < 0) return {done, errno};
    done += static_cast<std::uint64_t>(got);
    if (static_cast<std::uint64_t>(got) < wanted) break;
  }
  return {done, 0};
}

// Reads bytes, at most the read size limit, at an offset. Returns the number that it read, or -1
// with errno, and adds the checksums of their blocks.
ssize_t Engine::read_blocks(DataFile &file, std::uint64_t offset, std::uint64_t bytes,
                            ReadingTools &tools, Vector<Checksums> &checksums) {
  pace_.wait(bytes, tools.sleep, stopped_);
  if (stopped_ || interrupted()) {
    errno = EINTR;
    return -1;
  }
  const std::span<std::byte> room =
      tools.buffer.room().first(static_cast<std::size_t>(round_up(bytes)));
  const std::uint64_t before = vorn_time_getnanosec();
  ssize_t got = file.read(offset, room);
  if (got < 0) return -1;
  got = static_cast<ssize_t>(std::min(static_cast<std::uint64_t>(got), bytes));
  const auto read = static_cast<std::size_t>(got);
  series_.add_read(read, vorn_time_getnanosec() - before);
  // What follows the size that the file had is not looked at.
  add_checksums(room.first(read), checksums);
  return got;
}

void Piece::run(Engine &engine, ReadingTools &tools) {
  if (hole_) return;
  read_ = engine.read_range(*file_, offset_, bytes_, tools, checksums_);
}

int Engine::read(const std::shared_ptr<DataFile> &file, std::uint64_t first, std::uint64_t end,
                 const Take &take) {
  const std::uint64_t size = file->attributes().size;
  std::uint64_t at = first * kBlockSize;
  const std::uint64_t stop_at = std::min(size, end > size / kBlockSize ? size : end * kBlockSize);
  data_end_ = 0;
  int error = 0;
  bool ended = false;
  while (error == 0 && (at < stop_at || under_way_ != 0)) {
    while (!ended && at < stop_at && under_way_ < pieces_.size())
      at = add_piece(file, at, stop_at);
    if (interrupted()) return EINTR;
    Piece *piece = oldest_piece();
    if (piece == nullptr) return EINTR;
    if (piece->read_.error != 0) {
      error = piece->read_.error;
      failed_block_ = (piece->offset_ + piece->read_.bytes) / kBlockSize;
      if (!ended) take({.checksums = piece->checksums_, .zeros = 0, .bytes = piece->read_.bytes});
    } else if (piece->hole_) {
      take({.checksums = {}, .zeros = piece->bytes_ / kBlockSize, .bytes = piece->bytes_});
    } else if (!ended) {
      const std::uint64_t got = piece->read_.bytes;
      ended = got < piece->bytes_;
      const std::size_t whole = ended ? got / kBlockSize : piece->checksums_.size();
      take({.checksums = std::span(piece->checksums_).first(whole),
            .zeros = 0,
            .bytes = ended ? whole * kBlockSize : got});
    }
    if (ended) at = stop_at;
  }
  while (under_way_ != 0) {
    if (oldest_piece() == nullptr) return EINTR;
  }
  return error;
}

// Under a rate limit a piece is one read, which keeps progress and checkpoints frequent.
std::uint64_t Engine::piece_size(const DataFile &file) const {
  const std::uint64_t read = options_.settings.read_size_limit;
  if (options_.settings.rate_limit != 0) return read;
  const std::uint64_t pieces = kLeastPieces * options_.settings.threads;
  return std::clamp(round_up(file.attributes().size / pieces), read, std::max(kMostPiece, read));
}

// Passes the piece at an offset on. Returns the offset after it. Blocks of a hole are zeros and
// need no read; the last block of a file may be short and is read.
std::uint64_t Engine::add_piece(const std::shared_ptr<DataFile> &file, std::uint64_t at,
                                std::uint64_t end) {
  Piece &piece = pieces_[(oldest_ + under_way_) % pieces_.size()];
  std::uint64_t hole = 0;
  if (file->is_sparse() && at >= data_end_) {
    const std::uint64_t data = std::min({file->next_data(at), end, at + kMostHole});
    hole = (data - at) / kBlockSize * kBlockSize;
    if (hole == 0) data_end_ = std::max(round_up(file->next_hole(data)), at + kBlockSize);
  }
  const std::uint64_t data_end = file->is_sparse() ? std::min(end, data_end_) : end;
  piece.file_ = file;
  piece.offset_ = at;
  piece.hole_ = hole != 0;
  piece.bytes_ = hole != 0 ? hole : std::min(data_end - at, piece_size(*file));
  piece.read_ = {};
  piece.checksums_.clear();
  ++under_way_;
  work_.put(piece);
  return at + piece.bytes_;
}

// Waits for the oldest piece that is under way. Returns NULL if the run is interrupted.
Piece *Engine::oldest_piece() {
  Piece &piece = pieces_[oldest_];
  if (!piece.done_.down_unless_interrupted()) return nullptr;
  oldest_ = (oldest_ + 1) % pieces_.size();
  --under_way_;
  return &piece;
}

} // namespace scrub
