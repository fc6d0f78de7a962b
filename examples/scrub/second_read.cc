// Reads wrong blocks a second time.
// SPDX-License-Identifier: Apache-2.0
#include "second_read.hpp"

#include <array>
#include <stdexcept>
#include <utility>

#include "data_file.hpp"

#include <fcntl.h>

namespace scrub {
namespace {

constexpr std::uint64_t kDelay = 1000; // milliseconds

} // namespace

SecondRead::SecondRead(std::string path, Vector<Suspect> suspects)
    : path_(std::move(path)), suspects_(std::move(suspects)), work_([this] { read(); }) {
  vorn_timer_set(&timer_, kDelay, reinterpret_cast<std::uint64_t>(this), expired);
  if (vorn_timer_add(&timer_) != 0)
    throw std::runtime_error("no timer can be armed, the log says why");
}

SecondRead::~SecondRead() { vorn_timer_delete_sync(&timer_); }

void SecondRead::expired(std::uint64_t self) {
  reinterpret_cast<SecondRead *>(self)->work_.start();
}

// A block that cannot be read again stays damaged.
void SecondRead::read() {
  DataFile file;
  if (!file.open(AT_FDCWD, path_.c_str())) return;
  for (Suspect &suspect : suspects_) {
    std::array<std::byte, kBlockSize> buffer;
    const std::span<std::byte> block = std::span(buffer).first(suspect.length);
    suspect.passing = file.read_again(suspect.block * kBlockSize, block) &&
                      checksums_of(block) == suspect.expected;
  }
}

} // namespace scrub
