// Declares a regular file of the tree, which is read from the medium: without the page cache if the
// file system allows it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_DATA_FILE_HPP
#define SCRUB_DATA_FILE_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "attributes.hpp"
#include "fd.hpp"
#include "memory.hpp"

namespace scrub {

// Addresses, offsets and lengths of direct reads are multiples of this.
inline constexpr std::size_t kAlignment = 4096;

// Room for a read, aligned for direct reads.
class Buffer {
public:
  explicit Buffer(std::size_t size) : bytes_(size + kAlignment), size_(size) {}
  std::span<std::byte> room();

private:
  Vector<std::byte> bytes_;
  std::size_t size_;
};

// How a file is read: directly; through the page cache, which drops the file's pages before and
// after; or as the cache has it.
enum class Way { kDirect, kDropped, kCached };

class DataFile {
public:
  // Opens the name, unless it is no regular file. Returns 0 or the errno that says why not; ESTALE
  // if the name is another kind of file now. Does not block on a FIFO or a device.
  int open(int directory, const char *name, bool cached);
  int adopt(Fd fd, bool cached); // the same for a file that is open without O_DIRECT

  const Attributes &attributes() const { return attributes_; } // at the opening
  bool is_sparse() const { return sparse_; }
  Way way() const { return way_.load(std::memory_order_relaxed); }

  // Reads bytes at an offset, a multiple of kAlignment; room is aligned, and has whole blocks. Any
  // thread may call this. Returns the number of bytes read, fewer than room only at the end of the
  // file; or -1 with errno.
  ssize_t read(std::uint64_t offset, std::span<std::byte> room);

  // Returns the offset of the next byte, at or after offset, that is not in a hole; the file's size
  // if there is none, and offset if the file system does not tell.
  std::uint64_t next_data(std::uint64_t offset) const;
  // Returns the offset of the next hole, at the latest the file's size.
  std::uint64_t next_hole(std::uint64_t offset) const;

  // Returns whether the file was written or cut since it was opened.
  bool has_changed() const;

private:
  int take(bool cached);

  Fd fd_;
  Attributes attributes_;
  bool sparse_ = false;
  std::atomic<Way> way_ = Way::kCached; // a read that finds no direct reads changes it
};

} // namespace scrub

#endif
