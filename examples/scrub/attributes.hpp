// Holds what the file system says of a file, which shows whether the file was written.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_ATTRIBUTES_HPP
#define SCRUB_ATTRIBUTES_HPP

#include <cstdint>
#include <sys/stat.h>

#include "manifest.hpp"

namespace scrub {

struct Attributes {
  std::uint64_t size = 0;
  timespec written{};
  timespec changed{};
  std::uint64_t inode = 0;
};

inline Attributes attributes_of(const struct stat &status) {
  return {static_cast<std::uint64_t>(status.st_size), status.st_mtim, status.st_ctim,
          static_cast<std::uint64_t>(status.st_ino)};
}

inline bool same_time(const timespec &a, const timespec &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Returns whether the file was not written between the two moments.
inline bool same_state(const Attributes &before, const Attributes &now) {
  return before.size == now.size && same_time(before.written, now.written) &&
         same_time(before.changed, now.changed);
}

// Returns whether no attribute says that the file was written since it was recorded. A manifest of
// version 1 has no time of change.
inline bool unwritten(const FileRecord &recorded, const Attributes &now) {
  return recorded.size == now.size && same_time(recorded.written, now.written) &&
         (!recorded.has_changed_time() || same_time(recorded.changed, now.changed));
}

inline FileRecord record_of(String path, const Attributes &now) {
  return {std::move(path), now.size, now.written, now.changed, now.inode};
}

} // namespace scrub

#endif
