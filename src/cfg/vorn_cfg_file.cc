// The temporary-file editors.
#define VORN_FILE "vorn_cfg.c"
#include <cerrno>
#include <fcntl.h>

#include "base/log.hpp"
#include "base/unique_fd.hpp"
#include "vorn_cfg.h"
#include "vorn_fileops.h"

namespace {

// Invalid after a record in the name of function, which begins with verb.
vorn::UniqueFd open_to_edit(const char *function, const char *verb, const char *path) {
  vorn::UniqueFd fd(vorn_open(path, O_RDWR | O_CLOEXEC, 0));
  if (fd) return fd;
  const int error = errno;
  VORN_LOG_AS(function, vorn::kError, "%s file<%s> failed, errno<%d>", verb, path, error);
  return fd;
}

} // namespace

int vorn_cfg_file_addItem(const char *path, const char *section, const char *item,
                          const char *value) {
  if (path == nullptr || section == nullptr || item == nullptr || value == nullptr)
    return VORN_FAIL(-1, "Param is null.");
  const vorn::UniqueFd fd = open_to_edit(__func__, "Open", path);
  if (!fd) return fd.get();
  vorn_cfg_oper_param_s param{path, section, item, value};
  if (vorn_cfg_file_writeOperate(fd.get(), &param, vorn_cfg_add_item_func) != 0)
    return VORN_FAIL(-1, "Exec write operate failed.");
  return 0;
}

int vorn_cfg_file_delItem(const char *path, const char *section, const char *item) {
  if (path == nullptr || section == nullptr || item == nullptr)
    return VORN_FAIL(-1, "Param is null.");
  const vorn::UniqueFd fd = open_to_edit(__func__, "Open", path);
  if (!fd) return fd.get();
  vorn_cfg_oper_param_s param{path, section, item, nullptr};
  if (vorn_cfg_file_writeOperate(fd.get(), &param, vorn_cfg_del_item_func) != 0)
    return VORN_FAIL(-1, "Exec write operate to del item failed.");
  return 0;
}

int vorn_cfg_file_delSection(const char *path, const char *section) {
  if (path == nullptr || section == nullptr) return VORN_FAIL(-1, "Param is null.");
  const vorn::UniqueFd fd = open_to_edit(__func__, "Open", path);
  if (!fd) return fd.get();
  vorn_cfg_oper_param_s param{path, section, nullptr, nullptr};
  if (vorn_cfg_file_writeOperate(fd.get(), &param, vorn_cfg_del_section_func) != 0)
    return VORN_FAIL(-1, "Exec write operate to del section<%s> failed.", section);
  return 0;
}

int vorn_cfg_file_setItemValue(const char *path, const char *section, const char *item,
                               const char *value) {
  if (path == nullptr || section == nullptr || item == nullptr || value == nullptr)
    return VORN_FAIL(-1, "param is null.");
  const vorn::UniqueFd fd = open_to_edit(__func__, "open", path);
  if (!fd) return fd.get();
  vorn_cfg_oper_param_s param{path, section, item, value};
  if (vorn_cfg_file_writeOperate(fd.get(), &param, vorn_cfg_set_item_func) != 0)
    return VORN_FAIL(-1, "exec write operate to set item value failed.");
  return 0;
}
