// Describes a loaded object as the loader does, so that the library can tell its file, and later
// the object itself, from others of the same name.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYMBOL_IMAGE_HPP
#define VORN_SYMBOL_IMAGE_HPP

#include <cstdint>
#include <link.h>

#include "symbol/memory.hpp"

namespace vorn::symbol {

class Image {
public:
  // Called while the loader keeps the object loaded. Returns false if memory runs out.
  bool take(const dl_phdr_info &info, bool is_program);

  // Returns whether both are the same object, loaded from the same build of a file to the same
  // address.
  bool same_as(const Image &other) const;

  const char *name() const { return name_.data(); } // of the file
  const char *path() const;                         // to open it by

  std::uintptr_t base() const { return base_; }
  const Buffer<Elf64_Phdr> &headers() const { return headers_; }

  // The notes, with the build id, of each header for which has_note is true, in order.
  const Buffer<unsigned char> &notes() const { return notes_; }
  bool has_note(const Elf64_Phdr &header) const;

  // Returns the loaded segment of code that contains an address of the file; NULL if there is none.
  const Elf64_Phdr *code_at(std::uint64_t file_address) const;

  // The range of the code in memory. It contains no other object.
  bool has_code() const { return code_begin_ != code_end_; }
  std::uintptr_t code_begin() const { return code_begin_; }
  std::uintptr_t code_end() const { return code_end_; }

private:
  void find_code();

  std::uintptr_t base_ = 0;
  std::uintptr_t code_begin_ = 0;
  std::uintptr_t code_end_ = 0;
  bool is_program_ = false;
  Buffer<char> name_;
  Buffer<Elf64_Phdr> headers_;
  Buffer<unsigned char> notes_;
};

} // namespace vorn::symbol

#endif
