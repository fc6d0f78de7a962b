// The parser: hands the items of a file to a callback, one by one.
#ifndef VORN_CFG_PARSE_HPP
#define VORN_CFG_PARSE_HPP

#include "base/c_string_view.hpp"
#include "base/unique_fd.hpp"
#include "cfg/vorn_cfg_node.hpp"

namespace vorn::cfg {

// An item of a line, valid during the callback only.
struct Item {
  CStringView name;
  CStringView value;
};

// What is done with an item of section. kContinue goes on; any other value stops the parse and is
// its result.
using ItemFunction = int (*)(vorn_cfg_file_node_s *node, const char *section, const Item &item,
                             void *context);
inline constexpr int kContinue = 1;

// Parses from the position of fd to its end. Returns 0, what stopped it, or -1 after an error
// message when memory runs out or the file cannot be read.
int vorn_cfg_ini_fd_parse(int fd, vorn_cfg_file_node_s *node, ItemFunction function, void *context);

// Parses a file into a node of its own. Null unless the result of the parse is 0; then source,
// unless it is null, takes the descriptor that was read.
FileNode vorn_cfg_ini_file_parse(const char *path, ItemFunction function, void *context,
                                 UniqueFd *source = nullptr);

// The callback that keeps each item in the node. One that it cannot keep is logged and does not
// stop the parse; the bool that context points at, unless it is null, becomes false then.
int vorn_cfg_file_proc(vorn_cfg_file_node_s *node, const char *section, const Item &item,
                       void *context);

} // namespace vorn::cfg

#endif
