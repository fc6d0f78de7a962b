// What editors need of the registry beside the exported functions.
#ifndef VORN_CFG_REGISTRY_HPP
#define VORN_CFG_REGISTRY_HPP

#include "cfg/vorn_cfg_node.hpp"

namespace vorn::cfg {

inline constexpr unsigned long kNotRegistered = 0;

// Puts file in the place of the registered one of its path. Returns the number of this
// registration, or kNotRegistered when there is none: the file stays the caller's then.
unsigned long update_file(vorn_cfg_file_node_s *file);

// Whether no file has been put into the registry since that registration.
bool is_latest(unsigned long registration);

// Has the registered file of that path, if there is one, hold what is on disk. Another edit may
// replace the file meanwhile: what is registered in the end is what the path names then.
void read_again(const char *path);

} // namespace vorn::cfg

#endif
