// fuzz-links: scrub_objects
//
// Checks that the manifest reader either refuses a text or has read exactly what the writer would
// write. Almost every input has a wrong code in its first line, so the target reads each input
// twice: unchanged, and with the right code before each line.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "examples/scrub/manifest_reader.hpp"
#include "fuzz/harness.hpp"

namespace {

using namespace fuzz;
using namespace scrub;

void put_line(std::string &manifest, LineCode &code, std::string_view text) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%08x ", code.next(text));
  manifest.append(digits).append(text).append("\n");
}

std::string with_codes(std::string_view texts) {
  std::string manifest;
  LineCode code;
  while (!texts.empty()) {
    const std::string_view text = texts.substr(0, texts.find('\n'));
    put_line(manifest, code, text);
    texts.remove_prefix(std::min(texts.size(), text.size() + 1));
  }
  return manifest;
}

// Writes again what the reader has read.
std::string read_and_write(int fd) {
  std::string again;
  LineCode code;
  put_line(again, code, kManifestHeader);
  ManifestReader reader(fd, "fuzz");
  FileRecord file;
  while (reader.next_file(file)) {
    put_line(again, code, file_line(file));
    Checksums block;
    for (std::uint64_t number = 0; reader.next_block(block); ++number)
      put_line(again, code, block_line(number, block));
  }
  put_line(again, code, end_line(reader.totals()));
  return again;
}

void check(std::string_view manifest) {
  file().write(manifest);
  try {
    expect(read_and_write(file().fd()) == manifest);
  } catch (const ManifestError &) {
    return; // refused
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  const std::string_view input = text_of(data, size);
  check(input);
  check(with_codes(input));
  return 0;
}
