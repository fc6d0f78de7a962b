// Implements the functions that edit a file on disk through a temporary file.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include <cerrno>
#include <fcntl.h>

#include "base/log.hpp"
#include "cfg/vorn_cfg_io.hpp"
#include "vorn_cfg.h"

namespace vorn::cfg {
namespace {

constexpr int kNotOpened = -1;
constexpr int kNotEdited = 1;

// Returns 0, or kNotEdited if the edit failed. If the file cannot be opened, logs an error in the
// name of function, with verb at its beginning, and returns kNotOpened.
int edit(const char *function, const char *verb, vorn_cfg_oper_param_s param,
         vorn_cfg_edit_f procedure) {
  const UniqueFd fd = open_file(param.path, O_RDWR);
  if (!fd) {
    return VORN_FAIL_AS(function, kNotOpened, "%s file<%s> failed, errno<%d>", verb, param.path,
                        errno);
  }
  return vorn_cfg_file_writeOperate(fd.get(), &param, procedure) == 0 ? 0 : kNotEdited;
}

} // namespace
} // namespace vorn::cfg

using namespace vorn::cfg;

int vorn_cfg_file_addItem(const char *path, const char *section, const char *item,
                          const char *value) {
  if (path == nullptr || section == nullptr || item == nullptr || value == nullptr)
    return VORN_FAIL(-1, "Param is null.");
  const int result = edit(__func__, "Open", {path, section, item, value}, vorn_cfg_add_item_func);
  return result == kNotEdited ? VORN_FAIL(-1, "Exec write operate failed.") : result;
}

int vorn_cfg_file_delItem(const char *path, const char *section, const char *item) {
  if (path == nullptr || section == nullptr || item == nullptr)
    return VORN_FAIL(-1, "Param is null.");
  const int result = edit(__func__, "Open", {path, section, item, nullptr}, vorn_cfg_del_item_func);
  return result == kNotEdited ? VORN_FAIL(-1, "Exec write operate to del item failed.") : result;
}

int vorn_cfg_file_delSection(const char *path, const char *section) {
  if (path == nullptr || section == nullptr) return VORN_FAIL(-1, "Param is null.");
  const int result =
      edit(__func__, "Open", {path, section, nullptr, nullptr}, vorn_cfg_del_section_func);
  if (result != kNotEdited) return result;
  return VORN_FAIL(-1, "Exec write operate to del section<%s> failed.", section);
}

int vorn_cfg_file_setItemValue(const char *path, const char *section, const char *item,
                               const char *value) {
  if (path == nullptr || section == nullptr || item == nullptr || value == nullptr)
    return VORN_FAIL(-1, "param is null.");
  const int result = edit(__func__, "open", {path, section, item, value}, vorn_cfg_set_item_func);
  return result == kNotEdited ? VORN_FAIL(-1, "exec write operate to set item value failed.")
                              : result;
}
