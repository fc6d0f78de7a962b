// Reads wrong blocks a second time, as scheduled work.
// SPDX-License-Identifier: Apache-2.0
#include "second_reads.hpp"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <utility>

#include "interrupt.hpp"
#include "opening.hpp"
#include "timer_table.hpp"
#include "vorn_sched.h"

namespace scrub {
namespace {

constexpr std::uint64_t kDelay = 1000; // milliseconds

// The most bytes of suspects that wait for a pass: this bounds the memory if every block is wrong.
constexpr std::size_t kMostWaiting = 1 << 20;

// With what the allocator adds.
std::size_t bytes_of(const Suspects &suspects) {
  constexpr std::size_t kAllocations = 64;
  return sizeof suspects + suspects.file.path.capacity() +
         suspects.blocks.capacity() * sizeof suspects.blocks[0] + kAllocations;
}

// Enough for as many reads of a slow disk.
constexpr unsigned int kTimeLimit = 300; // seconds

} // namespace

// A timer starts the work, because a timer's function must not wait for a device. The work owns the
// suspects until it is done. The collector allocates the buffer: a pool thread that allocates would
// get memory that no other thread uses again.
class SecondReads::Pass {
public:
  Pass(const Tree &tree, Engine &engine, std::deque<Suspects> suspects)
      : tree_(tree), engine_(engine), suspects_(std::move(suspects)),
        work_([this] { read(); }, kTimeLimit) {
    vorn_timer_set(&timer_, kDelay, reinterpret_cast<std::uint64_t>(this), expired);
    if (vorn_timer_add(&timer_) != 0)
      throw std::runtime_error("no timer can be armed, the log says why");
  }
  Pass(const Pass &) = delete;
  Pass &operator=(const Pass &) = delete;
  ~Pass() { vorn_timer_delete_sync(&timer_); }

  // A pass that an interrupt cut short is never done: its suspects stay in first(), so that the
  // checkpoint does not pass over them.
  bool done() const { return work_.done() && whole_; }
  bool reads() const { return work_.started() && !work_.done(); }
  const std::deque<Suspects> &suspects() const { return suspects_; }

private:
  static void expired(std::uint64_t self) {
    Pass &pass = *reinterpret_cast<Pass *>(self);
    timer_table().note("second reads", pass.timer_);
    pass.work_.start();
  }

  void read() {
    for (Suspects &file : suspects_) {
      read(file);
      if (interrupted()) return;
    }
    whole_ = true;
  }

  // A block that cannot be read again stays wrong. A file that was written, replaced or removed
  // since the first read proves nothing.
  void read(Suspects &suspects) {
    DataFile file;
    Fd fd = tree_.open(suspects.file.path, O_RDONLY);
    const int error = fd ? file.adopt(std::move(fd), false) : errno;
    if (error != 0) return set(suspects, is_gone(error) ? Again::kWritten : Again::kWrong);
    if (!same_state(suspects.now, file.attributes())) return set(suspects, Again::kWritten);
    for (Suspect &suspect : suspects.blocks) {
      if (interrupted()) return;
      suspect.again = read(file, suspects.file.size, suspect);
    }
    if (file.has_changed()) set(suspects, Again::kWritten);
  }

  static void set(Suspects &suspects, Again again) {
    for (Suspect &suspect : suspects.blocks)
      suspect.again = again;
  }

  Again read(DataFile &file, std::uint64_t size, const Suspect &suspect) {
    const std::size_t length = block_length(size, suspect.block);
    const std::span<std::byte> room = buffer_.room();
    const ssize_t got = file.read(suspect.block * kBlockSize, room);
    engine_.charge(length);
    if (got < static_cast<ssize_t>(length)) return Again::kWrong;
    return checksums_of(room.first(length)) == suspect.expected ? Again::kRight : Again::kWrong;
  }

  const Tree &tree_;
  Engine &engine_;
  std::deque<Suspects> suspects_;
  Buffer buffer_{kBlockSize};
  bool whole_ = false; // set before the work is done
  Work work_;
  vorn_timer_s timer_{};
};

SecondReads::SecondReads(const Tree &tree, Engine &engine,
                         std::function<void(const Suspects &)> take)
    : tree_(tree), engine_(engine), take_(std::move(take)) {}

SecondReads::~SecondReads() = default;

void SecondReads::add(Suspects suspects) {
  while (waiting_bytes_ >= kMostWaiting && wait_for_pass()) {
  }
  suspects.blocks.shrink_to_fit();
  waiting_bytes_ += bytes_of(suspects);
  waiting_.push_back(std::move(suspects));
  start_pass();
}

void SecondReads::poll() {
  if (pass_ == nullptr || !pass_->done()) return;
  const std::unique_ptr<Pass> done = std::move(pass_);
  start_pass();
  for (const Suspects &suspects : done->suspects())
    take_(suspects);
}

void SecondReads::finish() {
  while (wait_for_pass()) {
  }
}

bool SecondReads::stop(int milliseconds) {
  for (int waited = 0; pass_ != nullptr && pass_->reads(); waited += 10) {
    if (waited >= milliseconds) return false;
    vorn_10msleep(1);
  }
  return true;
}

const Suspects *SecondReads::first() const {
  if (pass_ != nullptr) return &pass_->suspects().front();
  return waiting_.empty() ? nullptr : &waiting_.front();
}

void SecondReads::start_pass() {
  if (pass_ != nullptr || waiting_.empty()) return;
  pass_ = std::make_unique<Pass>(tree_, engine_, std::exchange(waiting_, {}));
  waiting_bytes_ = 0;
}

// Returns false if there is no pass, or if the run is interrupted.
bool SecondReads::wait_for_pass() {
  if (pass_ == nullptr) return false;
  while (!pass_->done()) {
    if (interrupted()) return false;
    vorn_10msleep(1);
  }
  poll();
  return true;
}

} // namespace scrub
