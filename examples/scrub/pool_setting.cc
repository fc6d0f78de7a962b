// Registers an INI text with the setting of the work pool.
// SPDX-License-Identifier: Apache-2.0
#include "pool_setting.hpp"

#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include "vorn_cfg.h"

namespace scrub {
namespace {

constexpr std::string_view kText = "[VORN]\n"
                                   "SCHED_THREAD_FREE_NUM_MIN=1\n"
                                   "SCHED_THREAD_FREE_NUM_MAX=1\n";

} // namespace

// A run without the setting is as good, and ends a little later.
PoolSetting::PoolSetting() : file_(memfd_create("vorn-scrub", MFD_CLOEXEC)) {
  if (!file_) return;
  if (write(file_.get(), kText.data(), kText.size()) != static_cast<ssize_t>(kText.size())) return;
  const std::string path = "/proc/self/fd/" + std::to_string(file_.get());
  if (vorn_cfg_init(path.c_str()) == 0) path_ = path;
}

PoolSetting::~PoolSetting() {
  if (!path_.empty()) vorn_cfg_destroy_ex(path_.c_str());
}

} // namespace scrub
