// Sets how many idle threads the library's work pool keeps.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_POOL_SETTING_HPP
#define SCRUB_POOL_SETTING_HPP

#include <string>

#include "fd.hpp"

namespace scrub {

// The library reads the setting at its start from the INI files that are registered then. The text
// is in memory: a run needs no file for it. Without it the pool keeps four idle threads, and its
// end waits 10 ms for each of them. A run seldom has work for more than one.
class PoolSetting {
public:
  PoolSetting();
  PoolSetting(const PoolSetting &) = delete;
  PoolSetting &operator=(const PoolSetting &) = delete;
  ~PoolSetting();

private:
  Fd file_;
  std::string path_; // empty if the setting could not be made
};

} // namespace scrub

#endif
