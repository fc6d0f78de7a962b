// Builds the text of a file that is being written, in a buffer of a fixed size.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_BUFFER_HPP
#define VORN_CFG_BUFFER_HPP

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <string_view>

namespace vorn::cfg {

class TextBuffer {
public:
  TextBuffer(char *text, std::size_t size) : text_(text), size_(size) {}

  // Each appends a line. If the line and a NUL do not fit, returns false and appends nothing.
  bool put_header(std::string_view section) { return put({"[", section, "]\n"}); }
  // A blank precedes the "=" of an item without a name: a line that begins with "=" is a comment.
  bool put_item(std::string_view name, std::string_view value) {
    return put({name.empty() ? " " : name, "=", value, "\n"});
  }

  std::string_view view() const { return {text_, length_}; }
  std::size_t length() const { return length_; }
  std::size_t size() const { return size_; }

private:
  bool put(std::initializer_list<std::string_view> parts) {
    std::size_t length = 0;
    for (const std::string_view part : parts)
      length += part.size();
    if (length >= size_ - length_) return false;
    for (const std::string_view part : parts) {
      std::memcpy(text_ + length_, part.data(), part.size());
      length_ += part.size();
    }
    return true;
  }

  char *text_;
  std::size_t size_;
  std::size_t length_ = 0;
};

} // namespace vorn::cfg

#endif
