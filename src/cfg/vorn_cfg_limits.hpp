// Declares the sizes of names, values and lines of configuration files.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_LIMITS_HPP
#define VORN_CFG_LIMITS_HPP

#include <cstddef>

#include "vorn_cfg.h"

namespace vorn::cfg {

inline constexpr std::size_t kNameSize = VORN_CFG_NAME_SIZE;
inline constexpr std::size_t kValueSize = std::size_t{VORN_CFG_VALUE_MAX} + 1;
inline constexpr std::size_t kHeaderMax = kNameSize + 1; // a header line with its brackets
inline constexpr std::size_t kLineMax = 0x400041;        // the longest line, in bytes
inline constexpr std::size_t kTextSlack = 0x400080; // the bytes that a rewrite may add to a file

} // namespace vorn::cfg

#endif
