// The names of mem's blocks that modules above still use.
#ifndef VORN_FILEOPS_BLOCK_HPP
#define VORN_FILEOPS_BLOCK_HPP

#include "mem/owned.hpp"

namespace vorn::fileops {

using mem::allocate_block;
using mem::Block;

} // namespace vorn::fileops

#endif
