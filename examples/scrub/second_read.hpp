// Reads wrong blocks again, a second later. A block that is right then had a passing fault of the
// device, the path to it or memory. A block that is wrong again is damaged.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SECOND_READ_HPP
#define SCRUB_SECOND_READ_HPP

#include <cstdint>
#include <string>

#include "checksums.hpp"
#include "memory.hpp"
#include "vorn_timer.h"
#include "work.hpp"

namespace scrub {

struct Suspect {
  std::uint64_t block;
  std::size_t length; // bytes
  Checksums expected;
  Checksums found;      // at the first read
  bool passing = false; // right at the second read
};

// A timer adds the read as scheduled work, because a timer's function must not wait for a device.
class SecondRead {
public:
  // The suspects are blocks of the file at path. Throws std::runtime_error if no timer can be
  // armed.
  SecondRead(std::string path, Vector<Suspect> suspects);
  SecondRead(const SecondRead &) = delete;
  SecondRead &operator=(const SecondRead &) = delete;
  ~SecondRead(); // disarms the timer

  bool done() const { return work_.done(); }
  const Vector<Suspect> &suspects() const { return suspects_; }

private:
  static void expired(std::uint64_t self);
  void read();

  const std::string path_;
  Vector<Suspect> suspects_; // the work owns them until it is done
  Work work_;
  vorn_timer_s timer_{};
};

} // namespace scrub

#endif
