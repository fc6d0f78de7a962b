// Holds the names of a directory in byte order, with a bound on its memory.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_NAME_LIST_HPP
#define SCRUB_NAME_LIST_HPP

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "memory.hpp"

namespace scrub {

// If the names do not fit, the list holds the first ones. The caller reads the directory again when
// these are taken, and the list then holds the names after them.
class NameList {
public:
  static constexpr std::size_t kLimit = 1 << 20; // bytes of names

  explicit NameList(std::size_t limit = kLimit) : limit_(limit) {}

  struct Entry {
    std::string_view name; // a zero byte follows; valid until the next call of begin()
    unsigned char type;    // DT_REG and so on
  };

  // A reading of the directory: begin(), add() for each name, end().
  void begin();
  void add(std::string_view name, unsigned char type);
  void end();

  std::size_t capacity() const { return text_.capacity(); } // in bytes of names

  bool empty() const { return next_ == offsets_.size(); }
  Entry take();

  // Whether the directory has names after those that the list was given.
  bool has_more() const { return !first_left_out_.empty(); }

private:
  const char *name_at(std::uint32_t offset) const { return &text_[offset + 1]; }
  bool before(std::uint32_t a, std::uint32_t b) const;
  void keep_first_half();

  std::size_t limit_;
  Vector<char> text_; // for each entry: its type, its name, a zero byte
  Vector<std::uint32_t> offsets_;
  std::size_t next_ = 0;
  String last_taken_;
  String first_left_out_;
};

} // namespace scrub

#endif
