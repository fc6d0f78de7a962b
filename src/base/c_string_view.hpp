// Defines a view of a text that ends in a NUL, which may be passed to "%s" and to the system. It
// can be made only from such a text, and cannot be shortened.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_C_STRING_VIEW_HPP
#define VORN_BASE_C_STRING_VIEW_HPP

#include <cstddef>
#include <string_view>

namespace vorn {

class CStringView {
public:
  constexpr CStringView(const char *text) : view_(text) {}

  // text[length] is the NUL.
  constexpr CStringView(const char *text, std::size_t length) : view_(text, length) {}

  constexpr const char *c_str() const { return view_.data(); }
  constexpr std::size_t size() const { return view_.size(); }
  constexpr bool empty() const { return view_.empty(); }
  constexpr operator std::string_view() const { return view_; }

  friend constexpr bool operator==(CStringView a, std::string_view b) { return a.view_ == b; }

private:
  std::string_view view_;
};

} // namespace vorn

#endif
