// Runs a directory as a light-weight instance of the library, in a thread with the directory's
// name. Each instance has its own value of each count. A fault report of the library names the
// instances for which a thread worked.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_INSTANCE_HPP
#define SCRUB_INSTANCE_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "vorn_sem_enhance.h"

namespace scrub {

// The counts of a run. Each is a variable of the instances.
enum class Count : std::size_t {
  kFiles,
  kBytes,
  kDamagedFiles,
  kDamagedBlocks,
  kPassingFiles,
  kPassingBlocks, // wrong at the first read, right at the second
  kMissing,       // in the manifest, but not in the tree
  kUnreadable,    // in both, but could not be read to the end
  kNew,           // in the tree, but not in the manifest
  kSkipped,       // not in the manifest, and could not be read
  kCounts
};

// Reserves the instances and registers the counts. Throws std::runtime_error. Called once, after
// the start of the library.
void prepare_instances(std::size_t instances);

// The value of the instance that the calling thread works for. Only one thread of an instance at a
// time may use it.
std::uint64_t &count(Count which);

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

  // Called after wait().
  std::uint64_t count(Count which) const;

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
