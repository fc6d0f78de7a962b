#include "vornsim.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "vorn_syscall.h"

namespace vornsim {
namespace {

using Arguments = unsigned long[4];

// What is known of an operation. The fields are written one by one: a reader that meets a call may
// see the arguments of two.
struct Operation {
  unsigned int code;
  long (*answer)(const Arguments &arguments);
  const char *request = nullptr; // what is asked for, where all of the answer is to print it
  std::atomic<unsigned long> count{0};
  std::atomic<unsigned long> arguments[4] = {};
  std::atomic<int> error{0};
};

alignas(64) constinit std::atomic<uint64_t> mem_table[VORN_MODULE_ID_COUNT] = {};
constinit std::atomic<uint32_t> reboot_count{0};

void print(const char *format, ...) VORN_PRINTF(1, 2);

// One bounded text, one write: a fault handler may ask for a panic.
void print(const char *format, ...) {
  char text[512];
  std::va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (length < 0) return;
  const std::size_t size = static_cast<std::size_t>(length) < sizeof text
                               ? static_cast<std::size_t>(length)
                               : sizeof text - 1;
  if (write(STDERR_FILENO, text, size) < 0) return; // nobody is left to be told
}

template <class T> T *pointer(unsigned long word) { return reinterpret_cast<T *>(word); }

long fault() {
  errno = EFAULT;
  return -1;
}

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
  auto *count = pointer<uint32_t>(arguments[2]);
  if (count == nullptr) return fault();
  *count = reboot_count.load();
  print("vornsim: asked for the reboot count, answered %u\n", *count);
  return 0;
}

long panic(const Arguments &arguments) {
  const auto *text = pointer<const char>(arguments[0]);
  if (text == nullptr) return fault();
  print("vornsim: asked to panic: %.256s; nothing is stopped\n", text);
  return 0;
}

long free_mem(const Arguments &arguments) {
  auto *kilobytes = pointer<unsigned long>(arguments[0]);
  if (kilobytes == nullptr) return fault();
  struct sysinfo info {};
  if (sysinfo(&info) != 0) return -1;
  *kilobytes = info.freeram * info.mem_unit / 1024;
  return 0;
}

long mem_stat(const Arguments &arguments) {
  auto *address = pointer<uint64_t>(arguments[0]);
  if (address == nullptr) return fault();
  *address = reinterpret_cast<uint64_t>(&mem_table);
  return 0;
}

long mem_stat_dump(const Arguments &) {
  for (unsigned int id = 0; id < VORN_MODULE_ID_COUNT; ++id) {
    const uint64_t used = mem_table[id].load(std::memory_order_relaxed);
    if (used != 0) print("vornsim: module %u uses %lld bytes\n", id, static_cast<long long>(used));
  }
  return 0;
}

// So the library takes the system's clock and zone, which are as good as any.
long no_call(const Arguments &) {
  errno = ENOSYS;
  return -1;
}

constinit Operation operations[] = {
    {VORN_SYSCALL_RESET_LOCAL_BOARD, reset_board},
    {VORN_SYSCALL_REBOOT, reboot},
    {VORN_SYSCALL_REBOOT_COUNT, read_reboot_count},
    {VORN_SYSCALL_PANIC, panic},
    {VORN_SYSCALL_LOCAL_TIME, no_call},
    {VORN_SYSCALL_LOCAL_TIME_FROM_UTC, no_call},
    {VORN_SYSCALL_TIME, no_call},
    {VORN_SYSCALL_DST_FROM_UTC, no_call},
    {VORN_SYSCALL_DST_TIME, no_call},
    {VORN_SYSCALL_START_AGETTY_QUERY, nullptr, "start the login query on the console"},
    {VORN_SYSCALL_STOP_AGETTY_QUERY, nullptr, "stop the login query on the console"},
    {VORN_SYSCALL_TTY_PRINT_ON, nullptr, "turn printing on the console on"},
    {VORN_SYSCALL_TTY_PRINT_OFF, nullptr, "turn printing on the console off"},
    {VORN_SYSCALL_FREE_MEM, free_mem},
    {VORN_SYSCALL_MEM_STAT, mem_stat},
    {VORN_SYSCALL_MEM_STAT_DUMP, mem_stat_dump},
    {VORN_SYSCALL_DUMP_THREAD_STACK, nullptr, "dump a thread's stack"},
    {VORN_SYSCALL_DUMP_CPU_STACK_KERNEL, nullptr, "dump a CPU's kernel stack"},
    {VORN_SYSCALL_DUMP_CPU_STACK, nullptr, "dump a CPU's stack"},
    {VORN_SYSCALL_DUMP_STACK_IF_NOT_RUNNING, nullptr, "dump a thread's stack unless it runs"},
};

Operation *find(unsigned long code) {
  for (Operation &operation : operations) {
    if (operation.code == code) return &operation;
  }
  return nullptr;
}

Operation *find_command(unsigned long command) {
  return command >> 32 == VORN_MODULE_ID ? find(command & 0xFFFFFFFF) : nullptr;
}

void record(Operation &operation, const Arguments &arguments) {
  for (std::size_t i = 0; i < std::size(arguments); ++i)
    operation.arguments[i] = arguments[i];
  ++operation.count;
}

long answer(const Operation &operation, const Arguments &arguments) {
  if (operation.request == nullptr) return operation.answer(arguments);
  print("vornsim: asked to %s (0x%lx, 0x%lx); nothing is done\n", operation.request, arguments[0],
        arguments[1]);
  return 0;
}

} // namespace
} // namespace vornsim

VORN_API long vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long a2,
                                   unsigned long a3, unsigned long a4) {
  vornsim::Operation *operation = vornsim::find_command(command);
  if (operation == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  const vornsim::Arguments arguments = {a1, a2, a3, a4};
  vornsim::record(*operation, arguments);
  const int error = operation->error;
  if (error == 0) return vornsim::answer(*operation, arguments);
  errno = error;
  return -1;
}

unsigned long vornsim_count(unsigned int operation) {
  const vornsim::Operation *known = vornsim::find(operation);
  return known == nullptr ? 0 : known->count.load();
}

int vornsim_last_call(unsigned int operation, vornsim_call_s *call) {
  const vornsim::Operation *known = vornsim::find(operation);
  if (known == nullptr || call == nullptr || known->count == 0) return -1;
  for (std::size_t i = 0; i < std::size(call->arguments); ++i)
    call->arguments[i] = known->arguments[i];
  return 0;
}

int vornsim_fail(unsigned int operation, int error) {
  vornsim::Operation *known = vornsim::find(operation);
  if (known == nullptr) return -1;
  known->error = error;
  return 0;
}

void vornsim_set_reboot_count(uint32_t count) { vornsim::reboot_count = count; }
