// Declares a manifest that was read to its end, so that a bad one is refused before a run begins.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_CHECKED_MANIFEST_HPP
#define SCRUB_CHECKED_MANIFEST_HPP

#include <cstdint>
#include <string>

#include "fd.hpp"
#include "manifest.hpp"
#include "scope_filter.hpp"
#include "window.hpp"

namespace scrub {

class CheckedManifest {
public:
  // An interrupt ends the reading. Throws ManifestError.
  CheckedManifest(const Fd &fd, const std::string &name);
  // Passes the records that the run covers through the window. Returns the bytes in it.
  std::uint64_t pass(const ScopeFilter &filter, Window &window) const;

  TreeRecord tree{};
  Totals recorded{};
  std::uint32_t code = 0;

private:
  const Fd &fd_;
  const std::string &name_;
};

} // namespace scrub

#endif
