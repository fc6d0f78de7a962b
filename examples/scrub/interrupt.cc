#include "interrupt.hpp"

#include <csignal>
#include <stdexcept>

namespace scrub {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void note_interrupt(int) { interrupted = 1; }

} // namespace

void catch_signals() {
  struct sigaction action {};
  action.sa_handler = note_interrupt;
  for (int number : {SIGINT, SIGTERM, SIGHUP})
    sigaction(number, &action, nullptr);
  action.sa_handler = SIG_IGN;
  for (int number : {SIGPIPE, SIGXFSZ})
    sigaction(number, &action, nullptr);
}

void check_interrupt() {
  if (interrupted != 0) throw std::runtime_error("interrupted");
}

} // namespace scrub
