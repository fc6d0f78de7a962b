#include "pipeline.hpp"

#include <algorithm>
#include <thread>
#include <utility>

#include "interrupt.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

// So many tasks go with a batch at most, so that a run of them without blocks is passed on, too.
constexpr std::size_t kMostTasks = 128;

// Whoever waits for longer looks in between whether to go on at all.
constexpr std::uint64_t kLongestSleep = 10'000; // microseconds

// Ends the reading when nobody wants its batches any more.
struct Stopped {};

} // namespace

void Pipeline::Batch::check() {
  for (std::size_t i = 0; i < count; ++i)
    checksums[i] = checksums_of(Bytes(buffer).subspan(i * kBlockSize, lengths[i]));
}

void Pipeline::Batch::clear() {
  count = 0;
  tasks.clear();
}

void Pipeline::Lane::run_checker(const std::stop_token &stop) {
  while (Batch *batch = filled.take(stop)) {
    batch->check();
    checked.put(*batch);
  }
}

Pipeline::Pipeline(const Settings &settings)
    : batches_(kBatches, Batch(settings.read_size_limit / kBlockSize)), lanes_(settings.threads),
      rate_(settings.rate_limit * 1'000'000, vorn_time_getnanosec()) {
  for (Batch &batch : batches_)
    empty_.put(batch);
}

void Pipeline::run(const Task &read) {
  Vector<std::jthread> checkers;
  for (Lane &lane : lanes_)
    checkers.emplace_back([&lane](const std::stop_token &stop) { lane.run_checker(stop); });
  const std::jthread reader([&](const std::stop_token &stop) { run_reader(read, stop); });
  run_tasks();
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
  rate_.add(bytes, vorn_time_getnanosec());
  keep_rate();
  return {std::span(batch_->checksums).subspan(first, block_count(bytes)), bytes};
}

void Pipeline::then(Task task) {
  if (batch_ == nullptr) next_batch();
  batch_->tasks.push_back(std::move(task));
  if (batch_->tasks.size() == kMostTasks) next_batch();
}

// Passes on the batch, if there is one, and waits for an empty one.
void Pipeline::next_batch() {
  if (batch_ != nullptr) turn_.next().filled.put(*std::exchange(batch_, nullptr));
  batch_ = empty_.take(stop_);
  if (batch_ == nullptr) throw Stopped();
}

void Pipeline::keep_rate() {
  while (const std::uint64_t delay = rate_.delay(vorn_time_getnanosec())) {
    check_interrupt();
    if (stop_.stop_requested()) throw Stopped();
    vorn_usleep(static_cast<unsigned int>(std::min(delay / 1000 + 1, kLongestSleep)));
  }
}

void Pipeline::run_reader(const Task &read, const std::stop_token &stop) {
  stop_ = stop;
  try {
    read();
  } catch (const Stopped &) {
    return;
  } catch (...) {
    failure_ = std::current_exception();
  }
  if (batch_ == nullptr) batch_ = empty_.take(stop);
  if (batch_ == nullptr) return;
  batch_->last = true;
  turn_.next().filled.put(*batch_);
}

void Pipeline::run_tasks() {
  Turn turn(lanes_);
  for (bool last = false; !last;) {
    Batch *batch = turn.next().checked.take({});
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
