// Selects the recorded blocks that a run reads: a part of the manifest, or what is left of it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_WINDOW_HPP
#define SCRUB_WINDOW_HPP

#include <algorithm>
#include <cstdint>
#include <limits>

#include "checksums.hpp"
#include "manifest.hpp"
#include "scrub.hpp"

namespace scrub {

// A place in a manifest: everything before this block of this path. An empty path is the beginning.
struct Position {
  String path{};
  std::uint64_t block = 0;
};

// Each file weighs its blocks and one more, so that parts of equal weight take equally long, and
// every file is in a part.
inline std::uint64_t weight_of(const FileRecord &file) { return block_count(file.size) + 1; }

class Window {
public:
  Window() = default;
  // Part part.number of part.of, of records of that total weight.
  Window(Part part, std::uint64_t total)
      : begin_(boundary(part.number - 1, part.of, total)),
        end_(boundary(part.number, part.of, total)) {}

  void resume_at(const Position &from) { from_ = from; }

  struct Selection {
    std::uint64_t first = 0;
    std::uint64_t end = 0; // nothing if it equals first, unless in is set: a file without blocks
    bool in = false;
  };

  // Called for each record in the order of the manifest.
  Selection select(const FileRecord &file) {
    const std::uint64_t blocks = block_count(file.size);
    const std::uint64_t start = weight_;
    weight_ += blocks + 1;
    Selection selection;
    selection.first = begin_ > start ? std::min(begin_ - start, blocks) : 0;
    selection.end = end_ > start ? std::min(end_ - start, blocks) : 0;
    // The weight after the last block belongs to the part that ends the file.
    selection.in = begin_ < weight_ && end_ > start;
    if (!from_.path.empty() && selection.in) {
      if (path_before(file.path, from_.path)) return {};
      if (file.path == from_.path) selection.first = std::max(selection.first, from_.block);
      selection.in = file.path != from_.path || selection.first < selection.end;
    }
    selection.end = std::max(selection.end, selection.first);
    return selection;
  }

  std::uint64_t weight() const { return weight_; } // of all records so far

private:
  // Avoids an overflow of number * total.
  static std::uint64_t boundary(std::uint64_t number, std::uint64_t of, std::uint64_t total) {
    return total / of * number + total % of * number / of;
  }

  std::uint64_t begin_ = 0;
  std::uint64_t end_ = std::numeric_limits<std::uint64_t>::max();
  Position from_{};
  std::uint64_t weight_ = 0;
};

} // namespace scrub

#endif
