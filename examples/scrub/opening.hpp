// Opens what every job needs: the tree, which must not be a pseudo file system, and a manifest,
// which must belong to the tree.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_OPENING_HPP
#define SCRUB_OPENING_HPP

#include <string>

#include "data_file.hpp"
#include "entry.hpp"
#include "fd.hpp"
#include "manifest_reader.hpp"
#include "report.hpp"
#include "scope_filter.hpp"
#include "scrub.hpp"
#include "tree.hpp"

namespace scrub {

// Throws std::runtime_error if the tree is on a pseudo file system that the run may not read.
void check_readable(const Tree &tree, const Job &job);

// Returns whether the manifest belongs to another tree. Throws std::runtime_error if the run does
// not take any tree.
bool is_foreign(const TreeRecord &recorded, const Tree &tree, const Job &job);

// Opens a manifest, or another file of the run. Throws an exception if it is no regular file.
Fd open_manifest(const std::string &path);

// Opens the same file once more, at its beginning.
Fd open_again(const Fd &fd, const std::string &path);

// Returns why an errno ended the reading of a file that the walk had found.
const char *reason(int error);

// Returns whether an errno means that the file vanished or was replaced.
bool is_gone(int error);

// Returns 0 if a recorded path that the walk did not find is not there, or no regular file any
// more. Otherwise returns an errno that says why the walk did not find it: a directory above could
// not be read to its end, for example. EXDEV: it is on another file system, which the filter leaves
// out.
int why_not_found(const Tree &tree, const ScopeFilter &filter, const String &path);

// Opens the file of an entry once more.
struct Opened {
  std::shared_ptr<DataFile> file;
  int error = 0;
};
Opened open_file(const Entry &entry, bool cached);

// Counts the files by the way they were read.
inline void add_way(Medium &medium, Way way) {
  ++(way == Way::kDirect ? medium.direct : way == Way::kDropped ? medium.dropped : medium.cached);
}

// Sets a flag that main reads: a thread hangs in a read, so the process ends without a clean-up.
void note_hanging_thread();
bool has_hanging_thread();

// The longest that a run waits for its threads after an interrupt.
inline constexpr int kPatience = 150; // milliseconds, for each thread

} // namespace scrub

#endif
