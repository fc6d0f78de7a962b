// Declares the module names that a node adds at run time.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_NODE_NAMES_HPP
#define VORN_NODE_NAMES_HPP

#include "vorn_api.h"

namespace vorn::process {

inline constexpr char kNodeNamesFile[] = "/WRK/conf/vorn_module_names";

// Returns the names of the node's file by module id; NULL for an id without a name. The first call
// reads the file; the names stay valid.
using NodeNames = const char *[VORN_MODULE_ID_COUNT];
const NodeNames &node_names();

} // namespace vorn::process

#endif
