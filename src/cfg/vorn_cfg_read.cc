// Finds one item of a file that is not registered.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include <cstring>

#include "base/log.hpp"
#include "cfg/vorn_cfg_parse.hpp"
#include "cfg/vorn_cfg_text.hpp"

namespace vorn::cfg {
namespace {

// A search of a file, and its result.
struct Search { // vorn_cfg_get_param_s
  const char *section;
  const char *item;
  int result;
  vorn_cfg_item_s *out;
};

constexpr int kFound = 0; // stops the parse: success

int vorn_cfg_getFromFile_proc(vorn_cfg_file_node_s *, const char *section, const Item &item,
                              void *context) {
  auto *search = static_cast<Search *>(context);
  if (!(item.name == search->item) || std::strcmp(section, search->section) != 0) return kContinue;
  vorn_cfg_item_s found{};
  if (copy_text(found.name, sizeof found.name, item.name) != 0 ||
      copy_text(found.value, sizeof found.value, item.value) != 0)
    return VORN_FAIL(-1, "Copy item (%s=%s) fail.", item.name.c_str(), item.value.c_str());
  *search->out = found;
  search->result = 0;
  return kFound;
}

} // namespace
} // namespace vorn::cfg

using namespace vorn::cfg;

int vorn_cfg_getItemFromFile(const char *path, const char *section, const char *item,
                             vorn_cfg_item_s *out) {
  if (path == nullptr || section == nullptr || item == nullptr || out == nullptr) {
    return VORN_FAIL(-1, "Null pointer found, pFile:%p, pSection:%p, pItemName:%p, pItemValue:%p.",
                     pointer(path), pointer(section), pointer(item), pointer(out));
  }
  Search search{section, item, -1, out};
  if (vorn_cfg_ini_file_parse(path, vorn_cfg_getFromFile_proc, &search) == nullptr) return -1;
  VORN_LOG(vorn::kDebug, "Parse config file %s sucess.", path);
  return search.result;
}
