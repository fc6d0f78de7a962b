// Declares the functions of the registry that the editors use beside the exported ones.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_REGISTRY_HPP
#define VORN_CFG_REGISTRY_HPP

#include "cfg/vorn_cfg_node.hpp"

namespace vorn::cfg {

inline constexpr unsigned long kNotRegistered = 0;

// Replaces the registered file of the same path by file. Returns the number of this registration.
// Returns kNotRegistered if no such file is registered; the caller then keeps file.
unsigned long update_file(vorn_cfg_file_node_s *file);

// Returns whether no file has been registered since that registration.
bool is_latest(unsigned long registration);

bool is_registered(const char *path);

// Reads the registered file of that path again, if there is one. Repeats this if another edit
// replaces the file meanwhile.
void read_again(const char *path);

} // namespace vorn::cfg

#endif
