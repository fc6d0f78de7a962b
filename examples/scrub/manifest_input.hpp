// Reads the bytes of a manifest through a buffer.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_INPUT_HPP
#define SCRUB_MANIFEST_INPUT_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "memory.hpp"

namespace scrub {

class ManifestInput {
public:
  // Reads from the position of fd, which the caller keeps and closes. name is for messages.
  ManifestInput(int fd, std::string name);
  ManifestInput(const ManifestInput &) = delete;
  ManifestInput &operator=(const ManifestInput &) = delete;

  // Returns the next bytes: at least as many as wanted, which is at most kMaxHeld, or all bytes up
  // to the end of the file. They stay where they are until the next call. Throws std::system_error
  // if the file cannot be read.
  std::string_view hold(std::size_t wanted);
  static constexpr std::size_t kMaxHeld = 96 * 1024;

  // Goes on after so many of the bytes held.
  void take(std::size_t size);

  // The number of bytes taken.
  std::uint64_t offset() const { return offset_; }
  const std::string &name() const { return name_; }

private:
  struct Free {
    void operator()(char *bytes) const { vorn_free(bytes); }
  };

  void fill();

  int fd_;
  std::string name_;
  std::unique_ptr<char[], Free> buffer_; // not initialized: a small manifest touches little of it
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t offset_ = 0;
  bool ended_ = false;
};

} // namespace scrub

#endif
