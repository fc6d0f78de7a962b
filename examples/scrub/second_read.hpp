// Reads blocks that were wrong once more, a second later: what is right then was a passing fault,
// of the device, of the way to it or of memory; what is wrong again is lasting damage.
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
  bool passing = false; // right at the second
};

// A timer of the wheel adds the read as scheduled work: a timer's function must not wait for a
// device.
class SecondRead {
public:
  // Of blocks of the file of this path. Throws std::runtime_error when no timer can be armed.
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
  Vector<Suspect> suspects_; // the work's until it is done
  Work work_;
  vorn_timer_s timer_{};
};

} // namespace scrub

#endif
