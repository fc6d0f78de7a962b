// Reads and replaces a small text file that a run leaves beside its manifest for the next one.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_STATE_FILE_HPP
#define SCRUB_STATE_FILE_HPP

#include <string>
#include <string_view>
#include <vector>

namespace scrub {

// What a state file is called while it is written, after its name.
inline constexpr std::string_view kUnfinishedState = ".unfinished";

// The last line is a CRC-32C of those before it.
class StateFile {
public:
  explicit StateFile(std::string path) : path_(std::move(path)) {}

  const std::string &path() const { return path_; }

  // Returns the lines, without the CRC; none if there is no file. Throws std::runtime_error if the
  // file is not as it was written, or cannot be read.
  std::vector<std::string> read() const;

  // Replaces the file at once, with mode 0600. Returns 0 or an errno.
  int write(const std::vector<std::string> &lines) const;

  // Returns 0 or an errno; a file that is not there is no error.
  int remove() const;

private:
  std::string path_;
};

} // namespace scrub

#endif
