// A block of the accounting allocator that goes with its owner.
#ifndef VORN_FILEOPS_BLOCK_HPP
#define VORN_FILEOPS_BLOCK_HPP

#include <memory>

#include "vorn_mem.h"

namespace vorn::fileops {

struct FreeBlock {
  void operator()(char *block) const { vorn_free(block); }
};
using Block = std::unique_ptr<char, FreeBlock>;

// NULL, after a record, when memory runs out.
inline Block allocate_block(unsigned int size) {
  return Block(static_cast<char *>(vorn_malloc(VORN_MODULE_ID, size)));
}

} // namespace vorn::fileops

#endif
