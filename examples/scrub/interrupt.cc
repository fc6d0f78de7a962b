// Catches the signals that end a run or ask for its progress.
// SPDX-License-Identifier: Apache-2.0
#include "interrupt.hpp"

#include <atomic>
#include <csignal>
#include <stdexcept>

namespace scrub {
namespace {

std::atomic<bool> noted = false;
std::atomic<bool> asked = false;
bool hangup_ignored = false; // before the threads start
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

void note_interrupt(int) { noted.store(true, std::memory_order_relaxed); }
void note_question(int) { asked.store(true, std::memory_order_relaxed); }

} // namespace

void note_ignored_signals() {
  struct sigaction action {};
  hangup_ignored = sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void catch_signals() {
  struct sigaction action {};
  action.sa_handler = note_interrupt;
  for (int number : {SIGINT, SIGTERM})
    sigaction(number, &action, nullptr);
  if (hangup_ignored) action.sa_handler = SIG_IGN;
  sigaction(SIGHUP, &action, nullptr);
  action.sa_handler = note_question;
  action.sa_flags = SA_RESTART; // the question disturbs no read
  sigaction(SIGUSR1, &action, nullptr);
  action.sa_handler = SIG_IGN;
  for (int number : {SIGPIPE, SIGXFSZ})
    sigaction(number, &action, nullptr);
}

bool interrupted() { return noted.load(std::memory_order_relaxed); }

bool progress_wanted() {
  // The plain load keeps the usual look, with no question, from writing to the cache line.
  return asked.load(std::memory_order_relaxed) && asked.exchange(false, std::memory_order_relaxed);
}

} // namespace scrub
