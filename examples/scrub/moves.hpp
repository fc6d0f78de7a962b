// Pairs missing files with new ones: a renamed file is the same file under another path, a moved
// one has the same content.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MOVES_HPP
#define SCRUB_MOVES_HPP

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "attributes.hpp"
#include "spill.hpp"

namespace scrub {

// A new file, and the missing one that it was.
struct Moved {
  String path;
  std::uint64_t record; // its number, as given to Moves::added()
  String from;
  std::uint64_t from_record; // as given to Moves::missing()
};

// What the pairing asks for and tells. Files are told in path order.
struct MoveActions {
  // Returns the digest of a new file; an errno in error, and no digest, if it cannot be read.
  std::function<std::optional<std::uint64_t>(const String &path, int &error)> read;
  std::function<void(const Moved &)> moved;
  // The new file is a renamed recorded file, its time of write is as recorded, and its content is
  // not.
  std::function<void(const Moved &)> damaged;
  std::function<void(const Moved &, int error)> unreadable;
  std::function<void(const String &path, std::uint64_t size, std::uint64_t record)> missing;
  std::function<void(const String &path, std::uint64_t size, int error)> added;
};

class Moves {
public:
  // directory is where the lists are kept.
  explicit Moves(const std::string &directory) : lost_(directory), fresh_(directory) {}

  // number is the number of the file's record in a manifest, for a caller that uses it.
  void missing(const FileRecord &record, std::uint64_t digest, std::uint64_t number = 0);
  // A file that could not be read has an error, one that was not read has no digest.
  void added(std::string_view path, const Attributes &now, std::optional<std::uint64_t> digest,
             int error, std::uint64_t number = 0);

  // Called after the last file. Ends early, and tells nothing, if the run is interrupted.
  void resolve(const MoveActions &actions);

private:
  class Chunk;

  void pair_by_identity(Chunk &chunk, const MoveActions &actions);
  void pair_by_content(Chunk &chunk, const MoveActions &actions);
  void read_digest(Candidate &fresh, std::uint64_t index, const MoveActions &actions);
  void join(Chunk &chunk, std::size_t lost, Candidate &fresh, std::uint64_t index,
            Candidate::State state);
  void tell(const MoveActions &actions);
  void tell_added(const Candidate &fresh, const String &path, const MoveActions &actions);

  SpillList lost_;
  SpillList fresh_;
};

} // namespace scrub

#endif
