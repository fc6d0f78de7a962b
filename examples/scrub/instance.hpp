// Runs a directory as a light-weight instance of the library, in a thread with the directory's
// name. Each instance has its own value of each count. A fault report of the library names the
// instances for which a thread worked.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_INSTANCE_HPP
#define SCRUB_INSTANCE_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "verdict.hpp"
#include "vorn_sem_enhance.h"

namespace scrub {

// The counts of a run. Each is a variable of the instances.
enum class Count : std::size_t {
  kFiles, // that were read
  kBytes,
  kDamaged, // files of each verdict, in the order of Verdict
  kPassing,
  kModified,
  kGrown,
  kShrunk,
  kMissing,
  kNew,
  kMoved,
  kUnreadable,
  kChanged,
  kSkipped,
  kDamagedBlocks,
  kPassingBlocks,
  kAccepted, // damaged files that --accept names, which do not count as damaged
  kCounts
};

constexpr Count count_for(Verdict verdict) {
  return static_cast<Count>(static_cast<std::size_t>(Count::kDamaged) +
                            static_cast<std::size_t>(verdict));
}
static_assert(count_for(Verdict::kSkipped) == Count::kSkipped);

// Reserves the instances and registers the counts. Throws std::runtime_error. Called once, after
// the start of the library.
void prepare_instances(std::size_t instances);

// The value of the instance that the calling thread works for. Only one thread of an instance at a
// time may use it.
std::uint64_t &count(Count which);
inline std::uint64_t &count_of(Verdict verdict) { return count(count_for(verdict)); }

// The values of all counts at one time.
class Tally {
public:
  std::uint64_t &operator[](Count which) { return values_[static_cast<std::size_t>(which)]; }
  std::uint64_t operator[](Count which) const { return values_[static_cast<std::size_t>(which)]; }

private:
  std::array<std::uint64_t, static_cast<std::size_t>(Count::kCounts)> values_{};
};

// Reads the counts of the calling thread's instance.
Tally tally();

class Instance {
public:
  // Runs body in a thread of the instance. body must not throw. Throws std::runtime_error if no
  // instance is free or no thread can be started.
  Instance(const std::string &name, std::function<void()> body);
  Instance(const Instance &) = delete;
  Instance &operator=(const Instance &) = delete;
  ~Instance(); // waits until body has returned

  // Waits until body has returned. Called once.
  void wait();

private:
  static void *run(void *self);

  const std::function<void()> body_;
  vorn_sem_enhance_s ended_;
  std::uint64_t id_;
};

// Makes the calling thread work for the instance during the lifetime of this object. The id may be
// all ones, which is no instance.
class WorkingFor {
public:
  explicit WorkingFor(std::uint64_t instance);
  WorkingFor(const WorkingFor &) = delete;
  WorkingFor &operator=(const WorkingFor &) = delete;
  ~WorkingFor();

private:
  std::uint64_t before_;
};

} // namespace scrub

#endif
