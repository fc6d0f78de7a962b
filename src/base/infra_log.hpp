// Writes an information message that the node's own log wants too: first under module 0, with the
// prefix "[Infra]" and without a level check, then under the library's module as usual.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_INFRA_LOG_HPP
#define VORN_BASE_INFRA_LOG_HPP

#include "base/log.hpp"

#define VORN_LOG_INFRA_AS(func, format, ...)                                                       \
  (::vorn::LogCall{}.after(                                                                        \
       ::evlog(0, ::vorn::kInfo, VORN_FILE, __LINE__, (func), 0, "[Infra]" format, __VA_ARGS__)),  \
   VORN_LOG_AS(func, ::vorn::kInfo, format, __VA_ARGS__))

#endif
