// Caches the kernel's id of each thread.
// SPDX-License-Identifier: Apache-2.0
#include "base/thread_id.hpp"

#include <unistd.h>

#include "base/fork_gate.hpp"

namespace vorn {
namespace {

// The forking thread has another id in the child.
const ForkChild forget{[] { t_thread_id = 0; }};

} // namespace

thread_local constinit std::uint32_t t_thread_id = 0;

std::uint32_t fetch_thread_id() {
  t_thread_id = static_cast<std::uint32_t>(gettid());
  return t_thread_id;
}

} // namespace vorn
