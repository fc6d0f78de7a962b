// The module names that a node adds at run time.
#ifndef VORN_NODE_NAMES_HPP
#define VORN_NODE_NAMES_HPP

namespace vorn::process {

inline constexpr char kNodeNamesFile[] = "/WRK/conf/vorn_module_names";

// The name that the node's file gives to module id, NULL for none. The file is read at the first
// call and its names stay for the life of the process. The caller holds the mutex of the name
// table.
const char *node_name(unsigned int id);

} // namespace vorn::process

#endif
