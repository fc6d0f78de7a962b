// Reads a manifest to its end.
// SPDX-License-Identifier: Apache-2.0
#include "checked_manifest.hpp"

#include <algorithm>

#include "interrupt.hpp"
#include "manifest_reader.hpp"
#include "opening.hpp"

namespace scrub {

CheckedManifest::CheckedManifest(const Fd &fd, const std::string &name) : fd_(fd), name_(name) {
  ManifestReader manifest(fd.get(), name);
  tree = manifest.tree();
  FileRecord file;
  Checksums block;
  while (manifest.next_file(file) && !interrupted()) {
    while (manifest.next_block(block) && !interrupted()) {
    }
  }
  recorded = manifest.totals();
  code = manifest.code();
}

std::uint64_t CheckedManifest::pass(const ScopeFilter &filter, Window &window) const {
  const Fd fd = open_again(fd_, name_);
  ManifestReader manifest(fd.get(), name_);
  FileRecord file;
  std::uint64_t bytes = 0;
  while (manifest.next_file(file) && !interrupted()) {
    if (!filter.covers(file.path)) continue;
    const Window::Selection selection = window.select(file);
    bytes += std::min(file.size, selection.end * kBlockSize) -
             std::min(file.size, selection.first * kBlockSize);
  }
  return bytes;
}

} // namespace scrub
