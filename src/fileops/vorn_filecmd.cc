// Runs shell commands on files and directories.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_fileops.c"

#include "vorn_filecmd.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <sys/stat.h>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/ratelimit.hpp"
#include "base/system.hpp"
#include "mem/owned.hpp"
#include "vorn_cmd.h"

namespace vorn::fileops {
namespace {

constexpr std::size_t kPathSize = 1024;
constexpr unsigned int kCommandSize = 4096;

// The milliseconds to wait for a mkdir that the shell has left in the background.
constexpr int kFolderPatience = 250;

bool is_too_long(const char *path) { return strnlen(path, kPathSize) == kPathSize; }

// Formats a command and runs it. Log messages name function.
int run_command(const char *function, const char *whitelist, const char *format, ...)
    VORN_PRINTF(3, 4);

int run_command(const char *function, const char *whitelist, const char *format, ...) {
  const mem::Block command = mem::allocate_block(kCommandSize);
  if (command == nullptr) return VORN_FAIL_AS(function, -ENOMEM, "AllocCmd is NULL");
  std::va_list args;
  va_start(args, format);
  const int length = vsnprintf_s(command.get(), kCommandSize, kCommandSize - 1, format, args);
  va_end(args);
  if (length < 0) {
    VORN_LOG_RATELIMITED_AS(function, kError, kInfo,
                            "sprintf_s secure function failed, destMax<%lu>.",
                            static_cast<unsigned long>(kCommandSize));
    return -EINVAL;
  }
  const int result = vorn_system_s(command.get(), whitelist);
  if (result == 0) return 0;
  return VORN_FAIL_AS(function, result, "Execute cmd(%s) Fail(%d)", command.get(), result);
}

bool is_folder(const char *path) {
  struct stat file;
  return stat(path, &file) == 0 && S_ISDIR(file.st_mode);
}

bool folder_appears(const char *path) {
  for (int waited = 0; waited < kFolderPatience; ++waited) {
    if (is_folder(path)) return true;
    sys::sleep({0, 1000000});
  }
  return false;
}

// An error before the last step shows in the last step.
bool make_folder(const char *path) {
  char above[kPathSize];
  if (strcpy_s(above, sizeof above, path) != 0) return false;
  for (char *at = std::strchr(above, '/'); at != nullptr; at = std::strchr(at + 1, '/')) {
    *at = '\0';
    mkdir(above, 0777);
    *at = '/';
  }
  mkdir(above, 0777);
  return is_folder(path);
}

} // namespace
} // namespace vorn::fileops

using namespace vorn::fileops;

int vorn_cmd_cp(const char *src, const char *dest) {
  if (src == nullptr || dest == nullptr) {
    return VORN_FAIL(-EINVAL, "SrcFile or DestFile is NULL.");
  }
  if (is_too_long(src) || is_too_long(dest)) {
    return VORN_FAIL(-ENAMETOOLONG, "File Path is too Long, pSrcFile: (%s), pDestFile: (%s)", src,
                     dest);
  }
  return run_command(__func__, nullptr, "cp -af %s %s", src, dest);
}

int vorn_cmd_rm(const char *path) {
  if (path == nullptr) return VORN_FAIL(-EINVAL, "Param is NULL.");
  if (is_too_long(path)) {
    return VORN_FAIL(-ENAMETOOLONG, "File path too long pSrcFile = %s", path);
  }
  return run_command(__func__, nullptr, "rm -rf %s", path);
}

int vorn_cmd_tar(const char *archive, const char *dir, int extract) {
  if (archive == nullptr || dir == nullptr) return VORN_FAIL(-EINVAL, "Param is NULL.");
  if (is_too_long(archive) || is_too_long(dir)) {
    return VORN_FAIL(-ENAMETOOLONG, "File path too long pSrcFile = %s,pDir = %s", archive, dir);
  }
  if (extract != 0) {
    return run_command(__func__, nullptr, "tar -xzf %s -C %s", archive, dir);
  }
  return run_command(__func__, nullptr, "tar -czf %s %s", archive, dir);
}

int vorn_cmd_touch(const char *path) {
  if (path == nullptr) return VORN_FAIL(-EINVAL, "File is NULL.");
  if (is_too_long(path)) {
    return VORN_FAIL(-ENAMETOOLONG, "File path:(%s) is too long.", path);
  }
  return run_command(__func__, nullptr, "touch %s", path);
}

int vorn_cmd_mv(const char *src, const char *dest) {
  if (src == nullptr || dest == nullptr) return VORN_FAIL(-EINVAL, "Param is NULL.");
  if (is_too_long(src) || is_too_long(dest)) {
    return VORN_FAIL(-ENAMETOOLONG, "File path too long pSrcFile = %s, pDestFile = %s", src, dest);
  }
  return run_command(__func__, nullptr, "mv %s %s", src, dest);
}

int vorn_cmd_mkdir(const char *path) {
  if (path == nullptr) return VORN_FAIL(-EINVAL, "Param is NULL.");
  if (isDangerousCmd(path, nullptr) != 0) {
    return VORN_FAIL(-EINVAL, "Param error: pFile(%s) is dangerous.", path);
  }
  if (is_too_long(path)) {
    return VORN_FAIL(-ENAMETOOLONG, "File path too long pFile = %s", path);
  }
  const int result = run_command(__func__, "&>", "mkdir -p %s &>/dev/null", path);
  if (result != 0) return result;
  // A plain POSIX shell reads "&>" as the end of a background command and exits with 0 at once.
  // Wait for its mkdir, so that it does not run after a later removal of the directory. If the
  // directory does not appear, make_folder tells whether it can be created.
  if (folder_appears(path) || make_folder(path)) return 0;
  return VORN_FAIL(-1, "Execute cmd(mkdir -p %s &>/dev/null) Fail(%d)", path, -1);
}
