// Fills the buffer of a manifest's bytes.
// SPDX-License-Identifier: Apache-2.0
#include "manifest_input.hpp"

#include <cstring>
#include <unistd.h>
#include <utility>

#include "errors.hpp"

namespace scrub {
namespace {

constexpr std::size_t kRoom = 2 * ManifestInput::kMaxHeld;

} // namespace

ManifestInput::ManifestInput(int fd, std::string name)
    : fd_(fd), name_(std::move(name)), buffer_(Allocator<char>().allocate(kRoom)) {}

std::string_view ManifestInput::hold(std::size_t wanted) {
  while (end_ - begin_ < wanted && !ended_)
    fill();
  return {buffer_.get() + begin_, end_ - begin_};
}

void ManifestInput::take(std::size_t size) {
  begin_ += size;
  offset_ += size;
}

void ManifestInput::fill() {
  std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  const ssize_t got = read(fd_, buffer_.get() + end_, kRoom - end_);
  if (got < 0 && errno == EINTR) return;
  if (got < 0) fail("cannot read " + name_);
  ended_ = got == 0;
  end_ += static_cast<std::size_t>(got);
}

} // namespace scrub
