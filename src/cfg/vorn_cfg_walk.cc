// Passes the lines of a registered file to a function of the caller.
//
// The registry keeps neither comments nor line numbers, so this reads the file again, with the
// lines and the parser of a registration. It holds no lock meanwhile: the caller's function may
// edit the file.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include <cerrno>

#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "base/unique_fd.hpp"
#include "cfg/vorn_cfg_parse.hpp"
#include "cfg/vorn_cfg_registry.hpp"

using namespace vorn::cfg;

int vorn_cfg_walk(const char *path, vorn_cfg_walk_f visit, void *context) {
  if (path == nullptr || visit == nullptr) return VORN_FAIL(-1, "Param is null.");
  const vorn::CancellationGuard off; // visit may be a cancellation point
  if (!is_registered(path)) return VORN_FAIL(-1, "Can not find file %s.", path);
  const vorn::UniqueFd fd = open_to_read(path);
  if (!fd) return VORN_FAIL(-1, "Open file (%s) failed, errno %d", path, errno);
  return walk_lines(fd.get(), visit, context);
}
