// Defines a set of records of a manifest.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_RECORD_SET_HPP
#define SCRUB_RECORD_SET_HPP

#include <cstddef>
#include <cstdint>

#include "memory.hpp"

namespace scrub {

// Holds the numbers of records, a bit for each record up to the last one of the set.
class RecordSet {
public:
  void add(std::uint64_t number) {
    if (number >= bits_.size()) bits_.resize(number + 1);
    bits_[number] = true;
  }
  bool contains(std::uint64_t number) const { return number < bits_.size() && bits_[number]; }
  bool empty() const { return bits_.empty(); }

private:
  Vector<bool> bits_;
};

} // namespace scrub

#endif
