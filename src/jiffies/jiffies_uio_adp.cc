// Maps the counter that the jiffies driver offers.
// SPDX-License-Identifier: Apache-2.0
#include "jiffies/jiffies_uio_adp.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "vorn_jiffies.h"

namespace vorn::jiffies {
namespace {

constexpr char kFunction[] = "jiffies_uio_adp_open";
constexpr char kDriverDir[] = "/sys/devices/platform/jiffies_uio/uio/";
constexpr std::size_t kNameSize = 127;
constexpr std::size_t kPathSize = 128;
constexpr std::size_t kAttributeSize = 32;

constinit vorn_jiffies_uio_s g_jiffies_uio{};

// Finds the first entry of the driver's directory that is a UIO device. Logs a name that is too
// long and leaves an empty name. Returns false with errno if there is none.
bool vorn_get_child_dir(char (&name)[kNameSize]) {
  const Directory directory = sys::open_directory(kDriverDir);
  if (directory == nullptr) return false;
  while (const dirent *entry = sys::read_entry(directory)) {
    if (std::strncmp(entry->d_name, "uio", 3) != 0) continue;
    if (strcpy_s(name, kNameSize, entry->d_name) != 0) VORN_LOG(kError, "strcpy_s failed.");
    return true;
  }
  errno = ENOENT;
  return false;
}

UniqueFd open_joined(const char *directory, const char *name, const char *file) {
  char path[kPathSize];
  if (snprintf_s(path, sizeof path, sizeof path - 1, "%s%s%s", directory, name, file) < 0) {
    VORN_LOG_AS(kFunction, kError, "snprintf_s secure function failed, destMax<%lu>, count<%lu>.",
                sizeof path, sizeof path - 1);
    errno = ENAMETOOLONG;
    return UniqueFd();
  }
  return sys::open(path, O_RDONLY);
}

struct AttributeText {
  char text[kAttributeSize + 1];
};

// An attribute that cannot be read is empty, and so is parsed as 0.
AttributeText read_attribute(const UniqueFd &fd) {
  AttributeText attribute{};
  const ssize_t length = sys::read(fd.get(), attribute.text, kAttributeSize);
  if (length < 0) attribute.text[0] = '\0';
  return attribute;
}

// A mapping has whole pages, so the counter may be beyond the size that the driver states.
bool counter_fits(long size, long offset) {
  constexpr long kCounterSize = sizeof(std::uint64_t);
  if (size <= 0 || offset < 0 || offset % kCounterSize != 0) return false;
  const long page = sysconf(_SC_PAGESIZE);
  const long pages = size / page + (size % page != 0);
  return offset / page < pages;
}

const volatile std::uint64_t *map_counter(int device, long size, long offset) {
  if (!counter_fits(size, offset)) {
    errno = EINVAL;
    return nullptr;
  }
  void *start = mmap(nullptr, static_cast<std::size_t>(size), PROT_READ, MAP_PRIVATE, device, 0);
  if (start == MAP_FAILED) return nullptr;
  return reinterpret_cast<const volatile std::uint64_t *>(static_cast<const char *>(start) +
                                                          offset);
}

void set_counter(const volatile std::uint64_t *counter) {
  atomic_word(g_jiffies_uio.jiffies).store(counter, std::memory_order_release);
}

// Other threads may read the counter meanwhile: they see only the pointer change.
void set_record(int dev_fd, int addr_fd, int size_fd, int offset_fd, std::uint64_t addr,
                long size) {
  g_jiffies_uio.dev_fd = dev_fd;
  g_jiffies_uio.addr_fd = addr_fd;
  g_jiffies_uio.size_fd = size_fd;
  g_jiffies_uio.offset_fd = offset_fd;
  g_jiffies_uio.addr = addr;
  g_jiffies_uio.size = size;
}

// Logs a failed step of the opening with its errno.
int fail(const char *step) {
  return VORN_FAIL_AS(kFunction, -1, "Vorn jiffies %s, errno=%d.", step, errno);
}

} // namespace

int open_map() {
  set_record(0, 0, 0, 0, 0, 0);
  set_counter(nullptr);

  char name[kNameSize] = "";
  if (!vorn_get_child_dir(name)) {
    return VORN_FAIL_AS(kFunction, -1, "Vorn jiffies get child dir (%s) failed, errno=%d.", name,
                        errno);
  }

  const UniqueFd device = open_joined("/dev/", name, "");
  if (!device) return fail("open dev failed");
  const UniqueFd addr = open_joined(kDriverDir, name, "/maps/map0/addr");
  if (!addr) return fail("open addr_fd map failed");
  const UniqueFd size = open_joined(kDriverDir, name, "/maps/map0/size");
  if (!size) return fail("open size_fd map failed");
  const UniqueFd offset = open_joined(kDriverDir, name, "/maps/map0/offset");
  if (!offset) return fail("open map failed");

  const std::uint64_t map_addr = std::strtoul(read_attribute(addr).text, nullptr, 0);
  const long map_size = std::strtol(read_attribute(size).text, nullptr, 0);
  const long map_offset = std::strtol(read_attribute(offset).text, nullptr, 0);

  const volatile std::uint64_t *counter = map_counter(device.get(), map_size, map_offset);
  if (counter == nullptr) return fail("mmap2");
  set_record(device.get(), addr.get(), size.get(), offset.get(), map_addr, map_size);
  set_counter(counter);
  return 0;
}

const volatile std::uint64_t *mapped_counter() {
  return atomic_word(g_jiffies_uio.jiffies).load(std::memory_order_acquire);
}

} // namespace vorn::jiffies

using namespace vorn::jiffies;

vorn_jiffies_uio_s *jiffies_uio_get() { return &g_jiffies_uio; }

// The opening has closed the device again. So there is none to close, and this returns what
// close(-1) does.
int jiffies_uio_adp_close() {
  errno = EBADF;
  return -1;
}
