// Reads the functions of an ELF file with libelf.
// SPDX-License-Identifier: Apache-2.0
#include "symbol/elf_file.hpp"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/system.hpp"

namespace vorn::symbol {
namespace {

// Does not wait for a writer if a pipe has replaced the file.
UniqueFd open_regular(const char *path) {
  UniqueFd fd = sys::open(path, O_RDONLY | O_NONBLOCK);
  struct stat status;
  if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return UniqueFd();
  return fd;
}

bool is_function(const Elf64_Sym &symbol) {
  const int type = ELF64_ST_TYPE(symbol.st_info);
  if (type != STT_FUNC && type != STT_GNU_IFUNC) return false;
  return symbol.st_shndx != SHN_UNDEF && symbol.st_shndx != SHN_ABS &&
         symbol.st_shndx != SHN_COMMON;
}

// A version ("@...") without a name occurs only in a damaged table.
bool has_name(const char *name) { return *name != '\0' && *name != '@'; }

} // namespace

ElfFile::ElfFile(const char *path) : fd_(open_regular(path)) {
  if (!fd_ || elf_version(EV_CURRENT) == EV_NONE) return;
  elf_ = elf_begin(fd_.get(), ELF_C_READ, nullptr);
}

ElfFile::~ElfFile() { elf_end(elf_); }

bool ElfFile::holds(const Image &image) const {
  if (elf_ == nullptr || elf_kind(elf_) != ELF_K_ELF) return false;
  const Elf64_Phdr *headers = elf64_getphdr(elf_);
  std::size_t count = 0;
  if (headers == nullptr || elf_getphdrnum(elf_, &count) != 0) return false;
  if (count != image.headers().size()) return false;
  if (std::memcmp(headers, image.headers().data(), count * sizeof *headers) != 0) return false;

  const unsigned char *note = image.notes().data();
  for (const Elf64_Phdr &header : image.headers()) {
    if (!image.has_note(header) || header.p_filesz == 0) continue;
    const Elf_Data *data = elf_getdata_rawchunk(elf_, static_cast<int64_t>(header.p_offset),
                                                header.p_filesz, ELF_T_BYTE);
    if (data == nullptr || data->d_size != header.p_filesz) return false;
    if (std::memcmp(data->d_buf, note, header.p_filesz) != 0) return false;
    note += header.p_filesz;
  }
  return true;
}

bool ElfFile::read_functions(const Image &image, Buffer<Function> *functions) const {
  if (!read_table(SHT_SYMTAB, image, functions)) return false;
  return functions->size() != 0 || read_table(SHT_DYNSYM, image, functions);
}

Elf64_Shdr *ElfFile::section_of_type(Elf64_Word type, Elf_Scn **section) const {
  for (*section = elf_nextscn(elf_, nullptr); *section != nullptr;
       *section = elf_nextscn(elf_, *section)) {
    Elf64_Shdr *header = elf64_getshdr(*section);
    if (header != nullptr && header->sh_type == type) return header;
  }
  return nullptr;
}

bool ElfFile::read_table(Elf64_Word type, const Image &image, Buffer<Function> *functions) const {
  Elf_Scn *section = nullptr;
  const Elf64_Shdr *header = section_of_type(type, &section);
  if (header == nullptr) return true;
  const Elf_Data *data = elf_getdata(section, nullptr);
  if (data == nullptr || data->d_buf == nullptr || data->d_type != ELF_T_SYM) return true;

  const auto *symbols = static_cast<const Elf64_Sym *>(data->d_buf);
  for (std::size_t i = 0; i < data->d_size / sizeof *symbols; ++i) {
    const Elf64_Sym &symbol = symbols[i];
    if (!is_function(symbol)) continue;
    const Elf64_Phdr *code = image.code_at(symbol.st_value);
    const char *name = elf_strptr(elf_, header->sh_link, symbol.st_name);
    if (code == nullptr || name == nullptr || !has_name(name)) continue;
    const Function function{image.base() + symbol.st_value, symbol.st_size,
                            image.base() + code->p_vaddr + code->p_memsz, name,
                            static_cast<unsigned char>(ELF64_ST_BIND(symbol.st_info))};
    if (!functions->append(function)) return false;
  }
  return true;
}

} // namespace vorn::symbol
