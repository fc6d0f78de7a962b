// Compares the data read with the manifest, and delays the verdict on a wrong block.
// SPDX-License-Identifier: Apache-2.0
#include "comparison.hpp"

#include <utility>

#include "interrupt.hpp"
#include "vorn_sched.h"

namespace scrub {
namespace {

// The most blocks that wait for their second read: this bounds the memory if every block is wrong.
constexpr std::size_t kMostWaiting = 16384;

} // namespace

void Comparison::begin(const FileRecord &recorded) {
  recorded_ = recorded;
  before_ = read_;
  blocks_ = 0;
  suspect_ = false;
}

void Comparison::compare(std::span<const Checksums> expected, const Blocks &found) {
  Vector<Suspect> suspects;
  for (std::size_t i = 0; i < expected.size(); ++i, ++blocks_) {
    if (found.checksums[i] == expected[i]) continue;
    suspects.push_back(
        {blocks_, block_length(recorded_.size, blocks_), expected[i], found.checksums[i]});
  }
  read_.blocks += expected.size();
  read_.bytes += found.bytes;
  report_.progress().add_bytes(found.bytes);
  if (!suspects.empty()) read_again(std::move(suspects));
  report_ready();
}

void Comparison::end(const Ending &found) {
  // The reader skips the rest of the file.
  report_.progress().drop_bytes(recorded_.size - (read_.bytes - before_.bytes));
  if (found.problem.empty()) {
    ++read_.files;
    report_.progress().add_file();
  } else {
    read_ = before_;
  }
  if (!suspect_) return report_ending(recorded_, found, {});
  waiting_.push_back({recorded_, nullptr, found});
  report_ready();
}

void Comparison::missing(const FileRecord &recorded) {
  report_.missing(recorded);
  report_.progress().drop_bytes(recorded.size);
}

void Comparison::unreadable(const FileRecord &recorded, const String &why) {
  report_.unreadable(recorded, why.c_str());
  report_.progress().drop_bytes(recorded.size);
}

void Comparison::finish() {
  while (!waiting_.empty())
    report_first();
}

// The second read counts for the rate limit too.
void Comparison::read_again(Vector<Suspect> suspects) {
  suspect_ = true;
  waiting_blocks_ += suspects.size();
  pipeline_.charge(suspects.size() * kBlockSize);
  std::string path = root_ + "/" + recorded_.path.c_str();
  waiting_.push_back(
      {recorded_, std::make_unique<SecondRead>(std::move(path), std::move(suspects))});
  while (waiting_blocks_ > kMostWaiting)
    report_first();
}

void Comparison::report_ready() {
  while (!waiting_.empty() && waiting_.front().ready())
    report_first();
}

// Waits until the second read is done.
void Comparison::report_first() {
  while (!waiting_.front().ready()) {
    check_interrupt();
    vorn_10msleep(1);
  }
  const Waiting first = std::move(waiting_.front());
  waiting_.pop_front();
  if (first.second != nullptr) return report_blocks(first.file, first.second->suspects());
  report_ending(first.file, first.ending, std::exchange(verdicts_, {}));
}

void Comparison::report_blocks(const FileRecord &file, const Vector<Suspect> &suspects) {
  for (const Suspect &suspect : suspects) {
    if (suspect.passing) {
      report_.passing_block(file, suspect.block, suspect.expected, suspect.found);
      ++verdicts_.passing;
    } else {
      report_.damaged_block(file, suspect.block, suspect.expected, suspect.found);
      ++verdicts_.lasting;
    }
  }
  waiting_blocks_ -= suspects.size();
}

void Comparison::report_ending(const FileRecord &file, const Ending &found,
                               const Verdicts &blocks) {
  if (!found.problem.empty()) {
    if (found.changed) return report_.skipped(file.path, found.problem.c_str());
    return report_.unreadable(file, found.problem.c_str());
  }
  const bool resized = found.size != file.size;
  if (resized) report_.size_change(file, found.size);
  if (resized || blocks.lasting != 0)
    report_.damaged_file(found.written.tv_sec != file.written.tv_sec ||
                         found.written.tv_nsec != file.written.tv_nsec);
  if (blocks.passing != 0) report_.passing_file();
}

} // namespace scrub
