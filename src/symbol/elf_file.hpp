// The file of a loaded object, read with libelf. Whatever is wrong with it ends in an answer, never
// in a fault: it is read, not mapped, and nothing that it states is taken on trust.
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

  // Whether this is the file that the image was loaded from. An image cannot be of a file that
  // could not be opened, or that is no ELF file of this machine.
  bool holds(const Image &image) const;

  // Appends the functions of .symtab, else of .dynsym, at their addresses in the image; their names
  // live as long as this object. A damaged table yields what can be read of it. False when memory
  // ran out.
  bool read_functions(const Image &image, Buffer<Function> *functions) const;

private:
  Elf64_Shdr *section_of_type(Elf64_Word type, Elf_Scn **section) const;
  bool read_table(Elf64_Word type, const Image &image, Buffer<Function> *functions) const;

  UniqueFd fd_;
  Elf *elf_ = nullptr;
};

} // namespace vorn::symbol

#endif
