// Declares the parser of INI files, which passes the items of a file to a callback one by one.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_PARSE_HPP
#define VORN_CFG_PARSE_HPP

#include "base/c_string_view.hpp"
#include "base/unique_fd.hpp"
#include "cfg/vorn_cfg_node.hpp"

namespace vorn::cfg {

// An item, valid only during the callback.
struct Item {
  CStringView name;
  CStringView value;
};

// Handles an item of section. kContinue goes on; any other value stops the parse and is its result.
using ItemFunction = int (*)(vorn_cfg_file_node_s *node, const char *section, const Item &item,
                             void *context);
inline constexpr int kContinue = 1;

// Parses from the position of fd to its end. Returns 0, or the value that stopped the parse. Logs
// an error and returns -1 if memory runs out or the file cannot be read.
int vorn_cfg_ini_fd_parse(int fd, vorn_cfg_file_node_s *node, ItemFunction function, void *context);

// Opens a file to parse. Refuses a FIFO, which would block a reader forever, and a directory, which
// cannot be read, as if open(2) had failed.
UniqueFd open_to_read(const char *path);

// Passes each line, from the position of fd to its end, to visit. Returns 0, or the value of visit
// that stopped it. Logs an error and returns -1 as vorn_cfg_ini_fd_parse does.
int walk_lines(int fd, vorn_cfg_walk_f visit, void *context);

// Parses a file into a new node. Returns null unless the result of the parse is 0. On success,
// *source gets the descriptor of the file, unless source is null.
FileNode vorn_cfg_ini_file_parse(const char *path, ItemFunction function, void *context,
                                 UniqueFd *source = nullptr);

// The callback that stores each item in the node. If it cannot store an item, it logs an error,
// sets the bool that context points to (unless context is null) to false, and lets the parse go on.
int vorn_cfg_file_proc(vorn_cfg_file_node_s *node, const char *section, const Item &item,
                       void *context);

} // namespace vorn::cfg

#endif
