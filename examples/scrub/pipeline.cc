// Moves batches of blocks between the reader, the checkers and the caller.
// SPDX-License-Identifier: Apache-2.0
#include "pipeline.hpp"

#include <algorithm>
#include <string>
#include <utility>

#include "interrupt.hpp"
#include "thread.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

// The most tasks of a batch. A long run of tasks without blocks also needs several batches.
constexpr std::size_t kMostTasks = 128;

// A thread that waits for the rate limit checks this often whether the run is over.
constexpr std::uint64_t kLongestSleep = 10'000'000; // nanoseconds

// Ends the reading when no thread takes batches any more.
struct Stopped {};

[[gnu::noinline]] void fault_on_purpose() {
  static volatile std::uintptr_t never_mapped = 8;
  *reinterpret_cast<volatile int *>(never_mapped) = 1;
}

} // namespace

void Pipeline::Batch::check() {
  for (std::size_t i = 0; i < count; ++i)
    checksums[i] = checksums_of(Bytes(buffer).subspan(i * kBlockSize, lengths[i]));
}

void Pipeline::Batch::clear() {
  count = 0;
  tasks.clear();
}

void Pipeline::Lane::run_checker(bool crash) {
  while (Batch *batch = filled.take()) {
    if (crash) fault_on_purpose();
    batch->check();
    checked.put(*batch);
  }
}

Pipeline::Pipeline(const Settings &settings, bool crash)
    : batches_(kBatches, Batch(settings.read_size_limit / kBlockSize)), lanes_(settings.threads),
      rate_(settings.rate_limit * 1'000'000, vorn_time_getnanosec()), crash_(crash) {
  set_strategy(settings);
  for (Batch &batch : batches_)
    empty_.put(batch);
}

void Pipeline::run(const Task &read) {
  {
    Vector<Thread> threads;
    const Stop stop(*this); // on every way out, before the threads are joined
    for (Lane &lane : lanes_)
      threads.emplace_back("scrub_check" + std::to_string(threads.size()),
                           [&, crash = crash_ && threads.empty()] { lane.run_checker(crash); });
    threads.emplace_back("scrub_read", [&] { run_reader(read); });
    run_tasks();
  }
  if (failure_) std::rethrow_exception(failure_);
}

std::span<std::byte> Pipeline::room() {
  if (batch_ == nullptr || batch_->full()) next_batch();
  return std::span(batch_->buffer).subspan(batch_->count * kBlockSize);
}

Blocks Pipeline::add_blocks(std::size_t bytes) {
  const std::size_t first = batch_->count;
  batch_->count += block_count(bytes);
  for (std::size_t i = first; i < batch_->count; ++i)
    batch_->lengths[i] = block_length(bytes, i - first);
  rate_.add(bytes + charged_.exchange(0), vorn_time_getnanosec());
  keep_rate();
  return {std::span(batch_->checksums).subspan(first, block_count(bytes)), bytes};
}

void Pipeline::then(Task task) {
  if (batch_ == nullptr) next_batch();
  batch_->tasks.push_back(std::move(task));
  if (batch_->tasks.size() == kMostTasks) next_batch();
}

// Passes the current batch on, if there is one, and waits for an empty batch.
void Pipeline::next_batch() {
  if (batch_ != nullptr) turn_.next().filled.put(*std::exchange(batch_, nullptr));
  batch_ = empty_.take();
  if (batch_ == nullptr) throw Stopped();
}

void Pipeline::keep_rate() {
  while (const std::uint64_t delay = rate_.delay(vorn_time_getnanosec())) {
    check_interrupt();
    if (stopped_) throw Stopped();
    sleep_.sleep(std::min(delay, kLongestSleep));
  }
}

Pipeline::Stop::~Stop() {
  pipeline_.stopped_ = true;
  pipeline_.empty_.close();
  for (Lane &lane : pipeline_.lanes_)
    lane.filled.close();
}

void Pipeline::run_reader(const Task &read) {
  try {
    read();
  } catch (const Stopped &) {
    return;
  } catch (...) {
    failure_ = std::current_exception();
  }
  if (batch_ == nullptr) batch_ = empty_.take();
  if (batch_ == nullptr) return;
  batch_->last = true;
  turn_.next().filled.put(*batch_);
}

void Pipeline::run_tasks() {
  Turn turn(lanes_);
  for (bool last = false; !last;) {
    Batch *batch = turn.next().checked.take();
    for (const Task &task : batch->tasks) {
      check_interrupt();
      task();
    }
    last = batch->last;
    batch->clear();
    empty_.put(*batch);
  }
}

} // namespace scrub
