// A directory stream of the C library that is closed with its owner.
#ifndef VORN_BASE_DIRECTORY_HPP
#define VORN_BASE_DIRECTORY_HPP

#include <dirent.h>
#include <memory>

namespace vorn {

struct CloseDirectory {
  void operator()(DIR *directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

} // namespace vorn

#endif
