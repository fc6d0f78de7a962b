// Checks that for any file of a loaded object the reader either refuses the file or returns the
// functions as ascending ranges that do not overlap. The object in memory has the segments of the
// file's program headers, and the input as its content.
// SPDX-License-Identifier: Apache-2.0
#include <cstring>
#include <vector>

#include "fuzz/harness.hpp"
#include "symbol/elf_file.hpp"
#include "symbol/object.hpp"

namespace {

using namespace fuzz;
using namespace vorn::symbol;

// Returns the segments, without notes that are not in the input: the loader would have mapped them.
std::vector<Elf64_Phdr> segments_of(std::string_view input) {
  Elf64_Ehdr header;
  if (input.size() < sizeof header) return {};
  std::memcpy(&header, input.data(), sizeof header);
  if (header.e_phoff > input.size()) return {};
  const std::size_t room = (input.size() - header.e_phoff) / sizeof(Elf64_Phdr);
  std::vector<Elf64_Phdr> segments(std::min<std::size_t>(header.e_phnum, room));
  if (segments.empty()) return {};
  std::memcpy(segments.data(), input.data() + header.e_phoff, segments.size() * sizeof segments[0]);
  for (Elf64_Phdr &segment : segments) {
    const bool is_inside =
        segment.p_vaddr <= input.size() && segment.p_filesz <= input.size() - segment.p_vaddr;
    if (segment.p_type == PT_NOTE && !is_inside) segment.p_type = PT_NULL;
  }
  return segments;
}

void check_ranges(const ElfFile &file, const Image &image) {
  Buffer<Function> functions;
  Buffer<Range> ranges;
  expect(file.read_functions(image, &functions) && resolve(functions, &ranges));
  std::uintptr_t at = 0;
  for (const Range &range : ranges) {
    expect(range.begin >= at && range.begin < range.end);
    expect(range.function >= functions.begin() && range.function < functions.end());
    at = range.end;
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  const std::string_view input = text_of(data, size);
  file().write(input);
  const std::vector<Elf64_Phdr> segments = segments_of(input);
  dl_phdr_info info = {};
  info.dlpi_addr = reinterpret_cast<std::uintptr_t>(data);
  info.dlpi_name = file().path();
  info.dlpi_phdr = segments.data();
  info.dlpi_phnum = static_cast<Elf64_Half>(segments.size());
  Object object;
  expect(object.take(info, false));
  const ElfFile elf(file().path());
  if (!elf.holds(object.image())) return 0;
  check_ranges(elf, object.image());
  if (object.read() != Outcome::kRead) return 0;
  Symbol symbol;
  for (const Elf64_Phdr &segment : segments)
    object.lookup(info.dlpi_addr + segment.p_vaddr, &symbol);
  return 0;
}
