// Pairs the lists of missing and new files, a part of the missing ones at a time.
// SPDX-License-Identifier: Apache-2.0
#include "moves.hpp"

#include <algorithm>
#include <utility>

#include "interrupt.hpp"
#include "manifest.hpp"

namespace scrub {
namespace {

constexpr std::uint64_t kChunk = 8192; // missing files in memory

struct Key {
  std::uint64_t value;
  std::uint32_t index;
  auto operator<=>(const Key &) const = default;
};

std::uint64_t mix(std::uint64_t a, std::uint64_t b) {
  a = (a ^ b) * 0x9E3779B97F4A7C15;
  return a ^ a >> 32;
}

std::uint64_t identity_of(const Candidate &file) {
  return mix(mix(mix(file.inode, file.size), static_cast<std::uint64_t>(file.written.tv_sec)),
             static_cast<std::uint64_t>(file.written.tv_nsec));
}

bool same_identity(const Candidate &a, const Candidate &b) {
  return a.inode != 0 && a.inode == b.inode && a.size == b.size && same_time(a.written, b.written);
}

} // namespace

// Consecutive missing files, and an index of them.
class Moves::Chunk {
public:
  Chunk(SpillList &list, std::uint64_t first) : list_(list), first_(first) {
    const std::uint64_t end = std::min(list.size(), first + kChunk);
    for (std::uint64_t i = first; i < end; ++i)
      files_.push_back(list.get(i));
  }

  using Index = Vector<Key>;

  template <class KeyOf> Index index_by(KeyOf key_of) const {
    Index keys;
    for (std::uint32_t i = 0; i < files_.size(); ++i)
      keys.push_back({key_of(files_[i]), i});
    std::ranges::sort(keys);
    return keys;
  }

  // Returns the first open file with the key that is like, or the number of files.
  template <class Like> std::size_t find(const Index &keys, std::uint64_t key, Like like) const {
    for (auto at = std::ranges::lower_bound(keys, Key{key, 0}); at != keys.end(); ++at) {
      if (at->value != key) break;
      if (files_[at->index].state == Candidate::State::kOpen && like(files_[at->index]))
        return at->index;
    }
    return files_.size();
  }

  bool holds(std::size_t index) const { return index < files_.size(); }
  std::uint64_t number(std::size_t index) const { return first_ + index; }
  void set(std::size_t index, Candidate::State state, std::uint64_t partner) {
    files_[index].state = state;
    files_[index].partner = partner;
    list_.put(number(index), files_[index]);
  }

private:
  SpillList &list_;
  const std::uint64_t first_;
  Vector<Candidate> files_;
};

void Moves::missing(const FileRecord &record, std::uint64_t digest, std::uint64_t number) {
  Candidate file;
  file.record = number;
  file.inode = record.inode;
  file.size = record.size;
  file.written = record.written;
  file.digest = digest;
  file.has_digest = true;
  lost_.add(file, record.path);
}

void Moves::added(std::string_view path, const Attributes &now, std::optional<std::uint64_t> digest,
                  int error, std::uint64_t number) {
  Candidate file;
  file.record = number;
  file.inode = now.inode;
  file.size = now.size;
  file.written = now.written;
  file.digest = digest.value_or(0);
  file.has_digest = digest.has_value();
  file.error = error;
  fresh_.add(file, path);
}

// All files are paired by identity before any is paired by content, which several may share.
void Moves::resolve(const MoveActions &actions) {
  for (std::uint64_t first = 0; first < lost_.size() && fresh_.size() != 0; first += kChunk) {
    Chunk chunk(lost_, first);
    pair_by_identity(chunk, actions);
  }
  for (std::uint64_t first = 0; first < lost_.size() && fresh_.size() != 0; first += kChunk) {
    Chunk chunk(lost_, first);
    pair_by_content(chunk, actions);
  }
  tell(actions);
}

void Moves::pair_by_identity(Chunk &chunk, const MoveActions &actions) {
  const Chunk::Index index = chunk.index_by(identity_of);
  for (std::uint64_t i = 0; i < fresh_.size() && !interrupted(); ++i) {
    Candidate fresh = fresh_.get(i);
    if (fresh.state != Candidate::State::kOpen) continue;
    const std::size_t lost = chunk.find(index, identity_of(fresh), [&](const Candidate &file) {
      return same_identity(file, fresh);
    });
    if (!chunk.holds(lost)) continue;
    read_digest(fresh, i, actions);
    const bool same = fresh.has_digest && fresh.digest == lost_.get(chunk.number(lost)).digest;
    join(chunk, lost, fresh, i,
         fresh.error != 0 ? Candidate::State::kUnreadable
         : same           ? Candidate::State::kMoved
                          : Candidate::State::kDamaged);
  }
}

// Empty files have the same content, which shows nothing.
void Moves::pair_by_content(Chunk &chunk, const MoveActions &actions) {
  const auto by_size = chunk.index_by([](const Candidate &file) { return file.size; });
  const auto by_content =
      chunk.index_by([](const Candidate &file) { return mix(file.size, file.digest); });
  for (std::uint64_t i = 0; i < fresh_.size() && !interrupted(); ++i) {
    Candidate fresh = fresh_.get(i);
    if (fresh.state != Candidate::State::kOpen || fresh.size == 0 || fresh.error != 0) continue;
    if (!fresh.has_digest) {
      const auto any = [](const Candidate &) { return true; };
      if (!chunk.holds(chunk.find(by_size, fresh.size, any))) continue;
      read_digest(fresh, i, actions);
    }
    if (!fresh.has_digest) continue;
    const std::size_t lost =
        chunk.find(by_content, mix(fresh.size, fresh.digest), [&](const Candidate &file) {
          return file.size == fresh.size && file.digest == fresh.digest;
        });
    if (chunk.holds(lost)) join(chunk, lost, fresh, i, Candidate::State::kMoved);
  }
}

void Moves::read_digest(Candidate &fresh, std::uint64_t index, const MoveActions &actions) {
  if (fresh.has_digest || fresh.error != 0) return;
  const std::optional<std::uint64_t> digest = actions.read(fresh_.path(fresh), fresh.error);
  fresh.has_digest = digest.has_value();
  fresh.digest = digest.value_or(0);
  fresh_.put(index, fresh);
}

void Moves::join(Chunk &chunk, std::size_t lost, Candidate &fresh, std::uint64_t index,
                 Candidate::State state) {
  fresh.state = state;
  fresh.partner = chunk.number(lost);
  fresh_.put(index, fresh);
  chunk.set(lost, state, index);
}

// Each list is in path order.
void Moves::tell(const MoveActions &actions) {
  std::uint64_t lost = 0;
  std::uint64_t fresh = 0;
  while ((lost < lost_.size() || fresh < fresh_.size()) && !interrupted()) {
    const Candidate gone = lost < lost_.size() ? lost_.get(lost) : Candidate{};
    if (lost < lost_.size() && gone.state != Candidate::State::kOpen) {
      ++lost;
      continue;
    }
    const String from = lost < lost_.size() ? lost_.path(gone) : String();
    const Candidate come = fresh < fresh_.size() ? fresh_.get(fresh) : Candidate{};
    const String path = fresh < fresh_.size() ? fresh_.path(come) : String();
    if (fresh == fresh_.size() || (lost < lost_.size() && path_before(from, path))) {
      actions.missing(from, gone.size, gone.record);
      ++lost;
    } else {
      tell_added(come, path, actions);
      ++fresh;
    }
  }
}

void Moves::tell_added(const Candidate &fresh, const String &path, const MoveActions &actions) {
  if (fresh.state == Candidate::State::kOpen) return actions.added(path, fresh.size, fresh.error);
  const Candidate lost = lost_.get(fresh.partner);
  const Moved moved{path, fresh.record, lost_.path(lost), lost.record};
  if (fresh.state == Candidate::State::kMoved) return actions.moved(moved);
  if (fresh.state == Candidate::State::kDamaged) return actions.damaged(moved);
  actions.unreadable(moved, fresh.error);
}

} // namespace scrub
