// Runs a directory in an instance of the library, and counts in its variables.
// SPDX-License-Identifier: Apache-2.0
#include "instance.hpp"

#include <array>
#include <stdexcept>
#include <utility>

#include "vorn_lwp.h"

namespace scrub {
namespace {

constexpr auto kCounts = static_cast<std::size_t>(Count::kCounts);
constexpr std::uint64_t kNone = ~std::uint64_t{0};

// The names of the counts in the library's tables, for an operator.
constexpr std::array<const char *, kCounts> kNames = {"files read",
                                                      "bytes read",
                                                      "damaged files",
                                                      "files with passing faults",
                                                      "modified files",
                                                      "grown files",
                                                      "shrunk files",
                                                      "missing files",
                                                      "new files",
                                                      "moved files",
                                                      "unreadable files",
                                                      "files changed while read",
                                                      "skipped files",
                                                      "damaged blocks",
                                                      "blocks with passing faults",
                                                      "accepted files"};

std::array<std::uint64_t, kCounts> variables; // their ids, set by prepare_instances()

std::uint64_t &value(std::uint64_t instance, Count which) {
  void *raw = LwpVarRaw(instance, variables[static_cast<std::size_t>(which)]);
  if (raw == nullptr) throw std::logic_error("the thread works for no instance");
  return *static_cast<std::uint64_t *>(raw);
}

} // namespace

void prepare_instances(std::size_t instances) {
  LwpCfgSetCtxTraceState(1);
  if (LwpCfgSetMaxInstNum(static_cast<unsigned int>(instances)) != 0 || LwpModuleInit() != 0)
    throw std::runtime_error("cannot make room for an instance of each directory");
  constexpr std::uint64_t kZero = 0;
  for (std::size_t i = 0; i < kCounts; ++i) {
    if (LwpVarRegister(kNames[i], &kZero, sizeof kZero, nullptr, &variables[i]) == kNone)
      throw std::runtime_error("cannot register the counts, the log says why");
  }
}

std::uint64_t &count(Count which) { return value(0, which); }

Tally tally() {
  Tally tally;
  for (std::size_t i = 0; i < kCounts; ++i)
    tally[static_cast<Count>(i)] = count(static_cast<Count>(i));
  return tally;
}

Instance::Instance(const std::string &name, std::function<void()> body) : body_(std::move(body)) {
  vorn_sem_enhance_init(&ended_, 0);
  id_ = LwpInstNew(name.c_str(), nullptr, run, this);
  if (id_ == kNone) throw std::runtime_error("no instance can be started, the log says why");
}

Instance::~Instance() { LwpInstDelete(id_, -1); }

void Instance::wait() { vorn_sem_enhance_down(&ended_); }

void *Instance::run(void *self) {
  auto &instance = *static_cast<Instance *>(self);
  instance.body_();
  vorn_sem_enhance_up(&instance.ended_);
  return nullptr;
}

WorkingFor::WorkingFor(std::uint64_t instance) { LwpCtxAttach(instance, &before_); }

WorkingFor::~WorkingFor() { LwpCtxAttach(before_, nullptr); }

} // namespace scrub
