// Reads the bay configuration: runs the node's script and parses the file that it prints to.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_socket_add.c"
#include "vorn_bay.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "base/bounded.hpp"
#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "base/unique_fd.hpp"
#include "vorn_cmd.h"
#include "vorn_fileops.h"

namespace vorn::bay {
namespace {

constexpr char kScript[] = "/WRK/script/os_get_bay_config_segment.sh";
constexpr char kConfiguration[] = "/WRK/conf/bay_config.ini";

constexpr int kTextSize = 256;
using Text = char[kTextSize];

bool format_text(Text &text, const char *format, ...) VORN_PRINTF(2, 3);

bool format_text(Text &text, const char *format, ...) {
  std::va_list args;
  va_start(args, format);
  const int length = vsnprintf_s(text, kTextSize, kTextSize - 1, format, args);
  va_end(args);
  if (length >= 0) return true;
  return VORN_FAIL_AS("vorn_get_bay_config_keyvalue", false,
                      "snprintf_s secure function failed, destMax<%d>, count<%d>.", kTextSize,
                      kTextSize - 1);
}

struct Plan {
  Text file;
  Text command;
  Text cleanup;
};

// A cut text is not used: the command would run without its redirection, or with another file.
bool make_plan(Plan &plan, const char *key_segment) {
  return format_text(plan.file, "/tmp/bay_cfg_segment_%d.conf", getpid()) &&
         format_text(plan.command, "%s %s >%s 2>/dev/null", kScript, key_segment, plan.file) &&
         format_text(plan.cleanup, "rm -rf %s", plan.file);
}

// Any user can guess the file's name and create a link or a file there first. So this removes what
// is there and creates the file without following a link; it fails if it cannot remove another
// user's file. The shell's ">" then opens this file: /tmp is sticky, so only this user and root can
// replace it, and fs.protected_regular lets users open their own files.
bool create_file(const char *path) {
  unlink(path);
  return static_cast<bool>(sys::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
}

// Reads the first line without its line feed. Returns false if there is none, or no room for it.
bool read_value(int fd, char *out, uint32_t size) {
  if (vorn_readline(fd, out, static_cast<int>(std::min<uint32_t>(size, INT_MAX))) == nullptr)
    return false;
  const std::size_t length = std::strlen(out);
  if (length != 0 && out[length - 1] == '\n') out[length - 1] = '\0';
  return true;
}

} // namespace
} // namespace vorn::bay

using namespace vorn::bay;

int get_bay_config_keyvalue_param_check(const char *key_segment, const char *out) {
  if (key_segment == nullptr || out == nullptr) {
    return VORN_FAIL(-EINVAL, "Param error: null pointer, keySegment(%p), prefix_addr(%p) .",
                     static_cast<const void *>(key_segment), static_cast<const void *>(out));
  }
  if (key_segment[0] == '\0') return VORN_FAIL(-1, "Para1 is \\0.");
  if (isDangerousCmd(key_segment, nullptr) != 0)
    return VORN_FAIL(-EINVAL, "Param error: keySegment(%s) is dangerous.", key_segment);
  return 0;
}

int vorn_get_bay_config_keyvalue(const char *key_segment, char *out, uint32_t size) {
  const vorn::CancellationGuard off; // a cancelled thread would leave the temporary file
  const int refusal = get_bay_config_keyvalue_param_check(key_segment, out);
  if (refusal != 0) return refusal;
  Plan plan;
  if (!make_plan(plan, key_segment)) return -1;
  if (!create_file(plan.file) || vorn_system_s(plan.command, ">") != 0)
    return VORN_FAIL(-1, "Can not get the file(%s).", kConfiguration);

  vorn::UniqueFd file =
      vorn::sys::above_standard(vorn_open(plan.file, O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0));
  if (!file) return VORN_FAIL(-1, "Can not open the file %s(%d).", plan.file, file.get());
  const bool found = read_value(file.get(), out, size);
  if (!found) {
    VORN_LOG(vorn::kError, "Can not get the value of %s, value is %s.", key_segment,
             size == 0 ? "" : out);
  }
  file = vorn::UniqueFd();
  vorn_system_s(plan.cleanup, nullptr);
  return found ? 0 : -1;
}
