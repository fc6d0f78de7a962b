// Keeps lists in temporary files, so that their length does not bound what a run can do, nor the
// run's memory.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SPILL_HPP
#define SCRUB_SPILL_HPP

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "attributes.hpp"
#include "fd.hpp"
#include "memory.hpp"

namespace scrub {

// Bytes that are added at the end, and read and changed anywhere.
class TemporaryFile {
public:
  // The file has no name; it is in the directory if that can be written to, or else in /tmp.
  explicit TemporaryFile(std::string directory) : directory_(std::move(directory)) {}

  // Throw std::system_error, as for a full disk. What was added before stays.
  std::uint64_t add(std::span<const std::byte> bytes); // returns their offset
  void read(std::uint64_t offset, std::span<std::byte> bytes);
  // Bytes that were added at once.
  void write(std::uint64_t offset, std::span<const std::byte> bytes);

private:
  void flush();
  void write_out(std::uint64_t offset, std::span<const std::byte> bytes);
  void open();

  const std::string directory_;
  Fd fd_;
  Vector<std::byte> buffer_; // not yet written; a short list never is
  std::uint64_t written_ = 0;
};

// A file that is missing, or one that is new.
struct Candidate {
  enum class State : std::uint32_t { kOpen, kMoved, kDamaged, kUnreadable };

  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  timespec written{};
  std::uint64_t record = 0; // the number of the file's record in its manifest
  std::uint64_t digest = 0;
  bool has_digest = false;
  int error = 0; // why it cannot be read
  State state = State::kOpen;
  std::uint64_t partner = 0; // the index of the other file
  std::uint64_t path_at = 0;
  std::uint64_t path_size = 0;
};

class SpillList {
public:
  explicit SpillList(const std::string &directory) : records_(directory), paths_(directory) {}

  void add(Candidate candidate, std::string_view path);
  std::uint64_t size() const { return size_; }
  Candidate get(std::uint64_t index);
  void put(std::uint64_t index, const Candidate &candidate);
  String path(const Candidate &candidate);

private:
  TemporaryFile records_;
  TemporaryFile paths_;
  std::uint64_t size_ = 0;
};

} // namespace scrub

#endif
