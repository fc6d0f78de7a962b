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
  offsets_.push_back(static_cast<std::uint32_t>(text_.size()));
  text_.push_back(static_cast<char>(type));
  text_.insert(text_.end(), name.begin(), name.end());
  text_.push_back('\0');
}

void NameList::end() { sort(); }

NameList::Entry NameList::take() {
  const std::uint32_t offset = offsets_[next_++];
  return {name_at(offset), static_cast<unsigned char>(text_[offset])};
}

void NameList::sort() {
  std::ranges::sort(offsets_, [this](std::uint32_t a, std::uint32_t b) {
    return std::strcmp(name_at(a), name_at(b)) < 0;
  });
}

void NameList::keep_first_half() {
  sort();
  const std::size_t kept = offsets_.size() / 2;
  first_left_out_ = name_at(offsets_[kept]);
  offsets_.resize(kept);

  Vector<char> text;
  text.reserve(text_.size());
  for (std::uint32_t &offset : offsets_) {
    const char *entry = &text_[offset];
    offset = static_cast<std::uint32_t>(text.size());
    text.insert(text.end(), entry, entry + 1 + std::strlen(entry + 1) + 1);
  }
  text_ = std::move(text);
}

} // namespace scrub
