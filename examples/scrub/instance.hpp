// A directory's run as a light-weight instance of the library: a thread under the directory's name,
// and the instance's own value of each count. A fault report of the library names the instances
// that the thread has worked for.
#ifndef SCRUB_INSTANCE_HPP
#define SCRUB_INSTANCE_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "vorn_sem_enhance.h"

namespace scrub {

// What a run counts: a variable of the instances each.
enum class Count : std::size_t {
  kFiles,
  kBytes,
  kDamagedFiles,
  kDamagedBlocks,
  kPassingFiles,
  kPassingBlocks, // wrong at the first read, right at the second
  kMissing,       // recorded, not there
  kUnreadable,    // recorded, there, could not be read to the end
  kNew,           // there, not recorded
  kSkipped,       // not recorded and not looked at: could not be read
  kCounts
};

// Makes room for so many instances, and registers the counts. Throws std::runtime_error. To be
// called once, after the library has started.
void prepare_instances(std::size_t instances);

// The value of the instance that the calling thread works for. One thread of an instance at a time
// may use it.
std::uint64_t &count(Count which);

class Instance {
public:
  // Runs body in a thread of the instance. body must not throw. Throws std::runtime_error when
  // there is no instance left or no thread can be started.
  Instance(const std::string &name, std::function<void()> body);
  Instance(const Instance &) = delete;
  Instance &operator=(const Instance &) = delete;
  ~Instance(); // waits until body has returned

  // Waits until body has returned. To be called once.
  void wait();

  // To be called after wait().
  std::uint64_t count(Count which) const;

private:
  static void *run(void *self);

  const std::function<void()> body_;
  vorn_sem_enhance_s ended_;
  std::uint64_t id_;
};

// While this lives, the calling thread works for the instance. Instances that are none, all ones,
// are taken too.
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
