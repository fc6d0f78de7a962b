// Reads and writes the configuration store, by one request to the kernel module for each call.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cst.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "base/unique_fd.hpp"

namespace vorn::cst {
namespace {

constexpr char kControlFile[] = "/proc/nyx/syscall";

constexpr int kGetItem = 256;
constexpr int kSetItem = 257;
constexpr int kReloadConfig = 258;

// The three structures are the kernel module's.
struct [[gnu::packed]] Item {
  char section[VORN_CST_SECTION_SIZE];
  char name[VORN_CST_ITEM_SIZE];
  char value[VORN_CST_VALUE_SIZE];
};
static_assert(offsetof(Item, section) == 0);
static_assert(offsetof(Item, name) == 35);
static_assert(offsetof(Item, value) == 68);
static_assert(sizeof(Item) == 325);

struct [[gnu::packed]] Reply {
  char name[VORN_CST_ITEM_SIZE];
  char value[VORN_CST_VALUE_SIZE];
};
static_assert(offsetof(Reply, name) == 0);
static_assert(offsetof(Reply, value) == 33);
static_assert(sizeof(Reply) == 290);

struct Block {
  std::uint32_t input_length;
  std::uint32_t output_length;
  std::uint64_t reserved;
  const Item *input;
  Reply *output;
};
static_assert(offsetof(Block, input_length) == 0);
static_assert(offsetof(Block, output_length) == 4);
static_assert(offsetof(Block, reserved) == 8);
static_assert(offsetof(Block, input) == 16);
static_assert(offsetof(Block, output) == 24);
static_assert(sizeof(Block) == 32);

int vorn_cst_syscall(int request, Block *block) {
  const UniqueFd file = sys::open(kControlFile, O_RDWR);
  if (!file) return VORN_FAIL(-1, "Open file failed, errno %d", errno);
  const int result = sys::ioctl(file.get(), static_cast<unsigned long>(request), block);
  if (result < 0 && errno != EPERM) VORN_LOG(kError, "Ioctl failed, errno %d", errno);
  return result;
}

bool set_names(const char *function, Item &item, const char *section, const char *name) {
  if (strcpy_s(item.section, sizeof item.section, section) != 0)
    return VORN_FAIL_AS(function, false, "Copy section name fail, %s", section);
  if (strcpy_s(item.name, sizeof item.name, name) != 0)
    return VORN_FAIL_AS(function, false, "Copy item name fail, %s", name);
  return true;
}

// The kernel module may have filled the field without a NUL. size may exceed the field's size.
int copy_value(Reply &reply, char *out, std::size_t size) {
  reply.value[sizeof reply.value - 1] = '\0';
  return strcpy_s(out, std::min(size, sizeof reply.value), reply.value) == 0 ? 0 : -1;
}

const void *address(const char *text) { return text; }

} // namespace
} // namespace vorn::cst

using namespace vorn::cst;

int vorn_cst_getItem(const char *section, const char *item_name, char *out, uint32_t out_size) {
  if (section == nullptr || item_name == nullptr || out == nullptr) {
    return VORN_FAIL(-1, "Null pointer found, section = %p, itemname = %p, item = %p.",
                     address(section), address(item_name), address(out));
  }
  Item item{};
  if (!set_names(__func__, item, section, item_name)) return -1;
  Reply reply{};
  Block block{sizeof item, sizeof reply, 0, &item, &reply};
  if (vorn_cst_syscall(kGetItem, &block) != 0) {
    return VORN_FAIL(-1, "Get item failed, section(%s) item name(%s), cmd(%d).", section, item_name,
                     kGetItem);
  }
  return copy_value(reply, out, out_size);
}

int vorn_cst_setItem(const char *section, const char *item_name, const char *value) {
  if (section == nullptr || item_name == nullptr || value == nullptr) {
    return VORN_FAIL(-1, "Null pointer found, section = %p, item name = %p, value = %p.",
                     address(section), address(item_name), address(value));
  }
  Item item{};
  if (!set_names(__func__, item, section, item_name)) return -1;
  if (vorn::strcpy_s(item.value, sizeof item.value, value) != 0)
    return VORN_FAIL(-1, "Copy item value fail, %s", value);
  Block block{sizeof item, 0, 0, &item, nullptr};
  if (vorn_cst_syscall(kSetItem, &block) != 0) {
    return VORN_FAIL(-1, "Set item failed, section(%s) itemName(%s) itemValue(%s)", section,
                     item_name, value);
  }
  return 0;
}

int vorn_cst_reloadConfig() {
  if (vorn_cst_syscall(kReloadConfig, nullptr) != 0) return VORN_FAIL(-1, "Reload config fail");
  return 0;
}
