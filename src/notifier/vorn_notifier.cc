// Implements chains of callbacks by priority, each with its own spin lock.
//
// A call does not write to the chain. It reads a block's `next` before the callback runs, so a
// callback that runs without the chain's lock may unregister and free its block.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_notifier.h"

#include "base/log.hpp"
#include "lock/spin_guard.hpp"

static_assert(offsetof(vorn_notifier_block_s, next) == 8);
static_assert(offsetof(vorn_notifier_block_s, priority) == 16);
static_assert(offsetof(vorn_notifier_chain_s, lock) == 8);
static_assert(offsetof(vorn_notifier_chain_s, head) == 32);

namespace vorn::notifier {
namespace {

constexpr int kNotFound = -2;

using Link = vorn_notifier_block_s *;

void insert(Link *link, vorn_notifier_block_s *block) {
  while (*link != nullptr && (*link)->priority >= block->priority)
    link = &(*link)->next;
  block->next = *link;
  *link = block;
}

int remove(Link *link, const vorn_notifier_block_s *block) {
  while (*link != nullptr && *link != block)
    link = &(*link)->next;
  if (*link == nullptr) return kNotFound;
  *link = block->next;
  return 0;
}

int call(vorn_notifier_block_s *block, const vorn_notifier_block_s *next, unsigned long action,
         void *data) {
  // A copy: the block may be gone after the call.
  void *const shown = block;
  VORN_LOG_AS("VornNotifierCallChain", kInfo,
              "Exception chain node %p called start: function:%p, action=%d, data=%p, pri=%u, "
              "next=%p.",
              shown, reinterpret_cast<void *>(block->notifier_call), static_cast<int>(action), data,
              block->priority, static_cast<const void *>(next));
  const int result = block->notifier_call(block, action, data);
  VORN_LOG_AS("VornNotifierCallChain", kInfo,
              "Exception chain node %p called end: action=%d, data=%p, ret=0x%02X.", shown,
              static_cast<int>(action), data, static_cast<unsigned int>(result));
  return result;
}

} // namespace
} // namespace vorn::notifier

using namespace vorn::notifier;

using vorn::kInfo;
using vorn::lock::GatedSpinGuard;

int vorn_atomic_notifier_chain_register__(vorn_notifier_chain_s *chain,
                                          vorn_notifier_block_s *block, const char *file,
                                          int line) {
  if (chain == nullptr || block == nullptr) return 0;
  {
    const GatedSpinGuard hold{chain->lock};
    insert(&chain->head, block);
  }
  VORN_LOG(kInfo, "Notifier chain %s register (%s:%d, %p, %p, %u), ret=%d", chain->name, file, line,
           static_cast<void *>(block), reinterpret_cast<void *>(block->notifier_call),
           block->priority, 0);
  return 0;
}

int vorn_atomic_notifier_chain_unregister__(vorn_notifier_chain_s *chain,
                                            vorn_notifier_block_s *block, const char *file,
                                            int line) {
  if (chain == nullptr || block == nullptr) return 0;
  int result = 0;
  {
    const GatedSpinGuard hold{chain->lock};
    result = remove(&chain->head, block);
  }
  VORN_LOG(kInfo, "Notifier chain %s unregister (%s:%d, 0x%p), ret=%d", chain->name, file, line,
           reinterpret_cast<void *>(block->notifier_call), result);
  return result;
}

int vorn_atomic_notifier_call_chain__(vorn_notifier_chain_s *chain, unsigned long action,
                                      void *data, int nrToCall, int *nrCalls) {
  if (chain == nullptr) return 0;
  VORN_LOG(kInfo, "Chain name %s call chain start: action=%d, data=%p, nrToCall=%d, nrCalls=%p.",
           chain->name, static_cast<int>(action), data, nrToCall, static_cast<void *>(nrCalls));
  const GatedSpinGuard hold{chain->lock};
  return VornNotifierCallChain(chain, action, data, nrToCall, nrCalls);
}

int VornNotifierCallChain(vorn_notifier_chain_s *chain, unsigned long action, void *data,
                          int nrToCall, int *nrCalls) {
  if (chain == nullptr) return 0;
  int result = 0;
  vorn_notifier_block_s *block = chain->head;
  while (block != nullptr && nrToCall != 0) {
    vorn_notifier_block_s *const next = block->next;
    result = call(block, next, action, data);
    if (nrCalls != nullptr) ++*nrCalls;
    if ((result & VORN_NOTIFIER_STOP) != 0) break;
    if (nrToCall > 0) --nrToCall;
    block = next;
  }
  return result;
}
