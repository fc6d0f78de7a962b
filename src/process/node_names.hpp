// The module names that a node adds at run time.
#ifndef VORN_NODE_NAMES_HPP
#define VORN_NODE_NAMES_HPP

#include "vorn_api.h"

namespace vorn::process {

inline constexpr char kNodeNamesFile[] = "/WRK/conf/vorn_module_names";

// The names that the node's file gives, by module id, NULL where it gives none. The file is read at
// the first call and its names stay for the life of the process.
using NodeNames = const char *[VORN_MODULE_ID_COUNT];
const NodeNames &node_names();

} // namespace vorn::process

#endif
