// Takes the description of a loaded object from the loader, and compares two descriptions.
// SPDX-License-Identifier: Apache-2.0
#include "symbol/image.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <unistd.h>

namespace vorn::symbol {
namespace {

// Opens the program even if its file was deleted or moved.
constexpr char kProgram[] = "/proc/self/exe";

bool append_text(Buffer<char> &buffer, const char *text) {
  return buffer.append(text, std::strlen(text) + 1);
}

bool append_program_name(Buffer<char> &buffer) {
  char name[PATH_MAX];
  const ssize_t length = readlink(kProgram, name, sizeof name - 1);
  if (length < 0) return append_text(buffer, kProgram);
  name[length] = '\0';
  return append_text(buffer, name);
}

template <class T> bool equal(const Buffer<T> &a, const Buffer<T> &b) {
  if (a.size() != b.size()) return false;
  return a.size() == 0 || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

bool contains(const Elf64_Phdr &segment, std::uint64_t address, std::uint64_t size) {
  if (address < segment.p_vaddr) return false;
  const std::uint64_t offset = address - segment.p_vaddr;
  return offset <= segment.p_memsz && size <= segment.p_memsz - offset;
}

bool is_code(const Elf64_Phdr &header) {
  return header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0 && header.p_memsz != 0;
}

bool is_constant(const Elf64_Phdr &header) {
  return header.p_type == PT_LOAD && (header.p_flags & (PF_R | PF_W)) == PF_R;
}

} // namespace

bool Image::take(const dl_phdr_info &info, bool is_program) {
  base_ = info.dlpi_addr;
  is_program_ = is_program;
  const bool named = is_program ? append_program_name(name_) : append_text(name_, info.dlpi_name);
  if (!named || !headers_.append(info.dlpi_phdr, info.dlpi_phnum)) return false;
  find_code();
  for (const Elf64_Phdr &header : headers_) {
    if (!has_note(header)) continue;
    const auto *note = reinterpret_cast<const unsigned char *>(base_ + header.p_vaddr);
    if (!notes_.append(note, header.p_filesz)) return false;
  }
  return true;
}

bool Image::same_as(const Image &other) const {
  return base_ == other.base_ && is_program_ == other.is_program_ && equal(name_, other.name_) &&
         equal(headers_, other.headers_) && equal(notes_, other.notes_);
}

const char *Image::path() const { return is_program_ ? kProgram : name(); }

// Accepts only notes in read-only data, which cannot have changed since the object was loaded.
bool Image::has_note(const Elf64_Phdr &header) const {
  if (header.p_type != PT_NOTE) return false;
  for (const Elf64_Phdr &segment : headers_) {
    if (is_constant(segment) && contains(segment, header.p_vaddr, header.p_filesz)) return true;
  }
  return false;
}

const Elf64_Phdr *Image::code_at(std::uint64_t file_address) const {
  for (const Elf64_Phdr &segment : headers_) {
    if (is_code(segment) && contains(segment, file_address, 1)) return &segment;
  }
  return nullptr;
}

void Image::find_code() {
  for (const Elf64_Phdr &segment : headers_) {
    if (!is_code(segment)) continue;
    const std::uintptr_t begin = base_ + segment.p_vaddr;
    const std::uintptr_t end = begin + segment.p_memsz;
    code_begin_ = has_code() ? std::min(code_begin_, begin) : begin;
    code_end_ = std::max(code_end_, end);
  }
}

} // namespace vorn::symbol
