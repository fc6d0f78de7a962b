// What the loader says of one object in memory, kept so that its file, and the object itself at a
// later look, can be told from another of the same name.
#ifndef VORN_SYMBOL_IMAGE_HPP
#define VORN_SYMBOL_IMAGE_HPP

#include <cstdint>
#include <link.h>

#include "symbol/memory.hpp"

namespace vorn::symbol {

class Image {
public:
  // To be called while the loader holds the object. False when memory ran out.
  bool take(const dl_phdr_info &info, bool is_program);

  // Whether both are one object, loaded from one build of one file to one place.
  bool same_as(const Image &other) const;

  const char *name() const { return name_.data(); } // the file's
  const char *path() const;                         // where to open it

  std::uintptr_t base() const { return base_; }
  const Buffer<Elf64_Phdr> &headers() const { return headers_; }

  // The notes, the build id among them, of every header for which has_note is true, in order.
  const Buffer<unsigned char> &notes() const { return notes_; }
  bool has_note(const Elf64_Phdr &header) const;

  // The loaded segment of code that contains the address, given as the file has it; else NULL.
  const Elf64_Phdr *code_at(std::uint64_t file_address) const;

  // Where the code lies in memory. The loader keeps this span free of other objects.
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
