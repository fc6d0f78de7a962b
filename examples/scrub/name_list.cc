// Sorts the names of a directory, and drops the last ones if there are too many.
// SPDX-License-Identifier: Apache-2.0
#include "name_list.hpp"

#include <algorithm>
#include <cstring>

namespace scrub {

void NameList::begin() {
  if (!offsets_.empty()) last_taken_ = name_at(offsets_.back());
  text_.clear();
  offsets_.clear();
  next_ = 0;
  first_left_out_.clear();
}

void NameList::add(std::string_view name, unsigned char type) {
  if (name <= last_taken_) return;
  if (has_more() && name >= first_left_out_) return;
  if (text_.size() + name.size() + 2 > limit_ && offsets_.size() > 1) {
    keep_first_half();
    if (name >= first_left_out_) return;
  }
  if (text_.capacity() > limit_ / 4) text_.reserve(limit_); // no more doubling
  offsets_.push_back(static_cast<std::uint32_t>(text_.size()));
  text_.push_back(static_cast<char>(type));
  text_.insert(text_.end(), name.begin(), name.end());
  text_.push_back('\0');
}

void NameList::end() {
  std::ranges::sort(offsets_, [this](auto a, auto b) { return before(a, b); });
}

NameList::Entry NameList::take() {
  const std::uint32_t offset = offsets_[next_++];
  return {name_at(offset), static_cast<unsigned char>(text_[offset])};
}

bool NameList::before(std::uint32_t a, std::uint32_t b) const {
  return std::strcmp(name_at(a), name_at(b)) < 0;
}

void NameList::keep_first_half() {
  const auto middle = offsets_.begin() + static_cast<std::ptrdiff_t>(offsets_.size() / 2);
  std::ranges::nth_element(offsets_, middle, [this](auto a, auto b) { return before(a, b); });
  first_left_out_ = name_at(*middle);
  offsets_.erase(middle, offsets_.end());

  // Moves the entries to the front in the order of their places, so that none overwrites another.
  std::ranges::sort(offsets_);
  std::uint32_t end = 0;
  for (std::uint32_t &offset : offsets_) {
    const std::size_t size = 1 + std::strlen(name_at(offset)) + 1;
    std::memmove(&text_[end], &text_[offset], size);
    offset = end;
    end += static_cast<std::uint32_t>(size);
  }
  text_.resize(end);
}

} // namespace scrub
