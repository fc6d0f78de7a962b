// Answers requests that end the node, which it only prints, and the request for the reboot count.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdint>

#include "answers.hpp"
#include "console.hpp"
#include "vorn_syscall.h"

namespace vornsim {
namespace {

constinit std::atomic<unsigned int> reboot_count{0};

} // namespace

long reset_board(const Arguments &) {
  print("vornsim: asked to reset the local board; nothing is reset\n");
  return 0;
}

long reboot(const Arguments &arguments) {
  const unsigned long first = arguments[2];
  if (first == VORN_SYSCALL_UNUSED) {
    print("vornsim: asked to reboot, reason %lu, mid %d; nothing is rebooted\n", arguments[0],
          static_cast<int>(arguments[1]));
    return 0;
  }
  print("vornsim: asked to reboot, reason %lu, mid %d, text begins with byte 0x%02lx; nothing is "
        "rebooted\n",
        arguments[0], static_cast<int>(arguments[1]), first);
  return 0;
}

long read_reboot_count(const Arguments &arguments) {
  auto *count = pointer<std::uint32_t>(arguments[2]);
  if (count == nullptr) return refuse(EFAULT);
  *count = reboot_count.load();
  print("vornsim: asked for the reboot count, answered %u\n", *count);
  return 0;
}

void set_reboot_count(unsigned int count) { reboot_count = count; }

long panic(const Arguments &arguments) {
  const auto *text = pointer<const char>(arguments[0]);
  if (text == nullptr) return refuse(EFAULT);
  print("vornsim: asked to panic: %.256s; nothing is stopped\n", text);
  return 0;
}

} // namespace vornsim
