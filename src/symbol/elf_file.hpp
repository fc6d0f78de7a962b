// Reads the file of a loaded object with libelf. A damaged file causes an error and never a
// fault: the library reads the file instead of mapping it, and checks every value in it.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYMBOL_ELF_FILE_HPP
#define VORN_SYMBOL_ELF_FILE_HPP

#include <libelf.h>

#include "base/unique_fd.hpp"
#include "symbol/image.hpp"
#include "symbol/memory.hpp"
#include "symbol/ranges.hpp"

namespace vorn::symbol {

class ElfFile {
public:
  explicit ElfFile(const char *path);
  ElfFile(const ElfFile &) = delete;
  ElfFile &operator=(const ElfFile &) = delete;
  ~ElfFile();

  // Returns whether the image was loaded from this file. Returns false if the file could not be
  // opened, or is not an ELF file of this machine.
  bool holds(const Image &image) const;

  // Appends the functions of .symtab, or else of .dynsym, at their addresses in the image. Their
  // names are valid during the lifetime of this object. If the table is damaged, appends the
  // functions that can be read. Returns false if memory runs out.
  bool read_functions(const Image &image, Buffer<Function> *functions) const;

private:
  Elf64_Shdr *section_of_type(Elf64_Word type, Elf_Scn **section) const;
  bool read_table(Elf64_Word type, const Image &image, Buffer<Function> *functions) const;

  UniqueFd fd_;
  Elf *elf_ = nullptr;
};

} // namespace vorn::symbol

#endif
