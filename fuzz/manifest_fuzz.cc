// fuzz-links: scrub_objects
//
// Checks that the manifest reader either refuses a manifest or has read exactly what the writer
// would write, and that it reads as much of a partial one. Almost every input has a wrong code, so
// the target reads each input unchanged, with the right code before each line as version 1 has it,
// and with the right code in each frame as version 2 has it.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>

#include "examples/scrub/manifest_reader.hpp"
#include "examples/scrub/manifest_v1.hpp"
#include "examples/scrub/manifest_writer.hpp"
#include "examples/scrub/text.hpp"
#include "fuzz/harness.hpp"

// The disk is not tested, and is slow.
extern "C" int fsync(int) { return 0; }

namespace {

using namespace fuzz;
using namespace scrub;

// A directory for the writer's files.
class Directory {
public:
  Directory() { expect(mkdtemp(path_) != nullptr); }
  ~Directory() {
    clear();
    rmdir(path_);
  }
  void clear() const { unlink(paths().manifest().c_str()); }
  OwnPaths paths() const { return {path_, "m", path_}; }

private:
  char path_[32] = "/tmp/vorn-fuzz-XXXXXX";
};

__attribute__((format(printf, 1, 2))) std::string format(const char *form, ...) {
  char text[128];
  std::va_list args;
  va_start(args, form);
  std::vsnprintf(text, sizeof text, form, args);
  va_end(args);
  return text;
}

// Version 1 line by line, with the code of each line.
struct Lines {
  std::string manifest;
  LineCode code;

  void put(std::string_view text) {
    manifest += format("%08x ", code.next(text));
    manifest.append(text).append("\n");
  }
  void put(const FileRecord &file) {
    put(format("file %" PRIu64 " %jd.%09ld ", file.size,
               static_cast<std::intmax_t>(file.written.tv_sec), file.written.tv_nsec) +
        std::string(escape(file.path)));
  }
  void put(std::uint64_t number, const Checksums &block) {
    std::string text = format("block %" PRIu64 " %08x", number, block.crc);
    for (std::size_t i = 0; i < block.sectors; ++i)
      text += format(" %04x", block.guards[i]);
    put(text);
  }
  void put(const Totals &totals) {
    put(format("end files %" PRIu64 " blocks %" PRIu64 " bytes %" PRIu64, totals.files,
               totals.blocks, totals.bytes));
  }
};

std::string with_line_codes(std::string_view texts) {
  Lines lines;
  while (!texts.empty()) {
    const std::string_view text = texts.substr(0, texts.find('\n'));
    lines.put(text);
    texts.remove_prefix(std::min(texts.size(), text.size() + 1));
  }
  return lines.manifest;
}

void put_frame(std::string &manifest, FrameCode &code, std::string_view payload) {
  char head[kFrameHead];
  code.add(payload);
  store_little(static_cast<std::uint32_t>(payload.size()), head);
  store_little(code.value(), head + 4);
  manifest.append(head, sizeof head).append(payload);
}

// Calls use with the payload of each frame. The last one may be cut.
template <class Use> void each_payload(std::string_view manifest, Use use) {
  if (manifest.starts_with(kManifestHeader)) manifest.remove_prefix(kManifestHeader.size());
  while (manifest.size() > kFrameHead) {
    const std::size_t length = load_little<std::uint32_t>(manifest.data()) % (kMaxPayload + 1);
    manifest.remove_prefix(kFrameHead);
    use(manifest.substr(0, length));
    manifest.remove_prefix(std::min(length, manifest.size()));
  }
}

std::string payloads_of(std::string_view manifest) {
  std::string all;
  each_payload(manifest, [&](std::string_view payload) { all += payload; });
  return all;
}

std::string with_frame_codes(std::string_view input) {
  std::string manifest(kManifestHeader);
  FrameCode code;
  code.add(manifest);
  each_payload(input, [&](std::string_view payload) { put_frame(manifest, code, payload); });
  return manifest;
}

std::string in_one_frame(std::string_view input) {
  std::string manifest(kManifestHeader);
  FrameCode code;
  code.add(manifest);
  put_frame(manifest, code, payloads_of(input).substr(0, kMaxPayload));
  return manifest;
}

// Writes again what the reader reads.
std::string version_1_again(ManifestReader &reader) {
  Lines lines;
  lines.put("vorn-scrub-manifest 1 block 4096 crc32c sector 512 crc16-t10dif");
  FileRecord file;
  while (reader.next_file(file)) {
    lines.put(file);
    Checksums block;
    for (std::uint64_t number = 0; reader.next_block(block); ++number)
      lines.put(number, block);
  }
  lines.put(reader.totals());
  return lines.manifest;
}

std::string version_2_again(ManifestReader &reader) {
  static const Directory directory;
  directory.clear();
  ManifestWriter writer(directory.paths(), reader.tree());
  FileRecord file;
  while (reader.next_file(file)) {
    writer.begin_file(file);
    Checksums block;
    for (bool more = true; more;) {
      writer.add_zero_blocks(reader.next_zeros());
      more = reader.next_block(block);
      if (more) writer.add_block(block);
    }
  }
  writer.commit();

  std::string manifest;
  std::FILE *written = std::fopen(directory.paths().manifest().c_str(), "re");
  char bytes[4096];
  for (std::size_t got = 0; (got = std::fread(bytes, 1, sizeof bytes, written)) != 0;)
    manifest.append(bytes, got);
  std::fclose(written);
  return manifest;
}

// Reads the files without their blocks. Returns whether the manifest is not refused.
bool read_files(std::string_view manifest, ManifestReader::Kind kind, Totals &totals) {
  file().write(manifest);
  try {
    ManifestReader reader(file().fd(), "fuzz", kind);
    try {
      FileRecord record;
      while (reader.next_file(record)) {
      }
      totals = reader.totals();
      return true;
    } catch (const ManifestError &) {
      expect(kind == ManifestReader::Kind::kWhole);
    }
  } catch (const ManifestError &) {
  }
  return false;
}

// one_frame: the writer writes the same bytes, not only the same records.
void check(std::string_view manifest, bool one_frame = false) {
  Totals whole;
  Totals partial;
  const bool good = read_files(manifest, ManifestReader::Kind::kWhole, whole);
  const bool begins = read_files(manifest, ManifestReader::Kind::kPartial, partial);
  if (good) expect(begins && partial == whole);

  file().write(manifest);
  try {
    ManifestReader reader(file().fd(), "fuzz");
    if (reader.version() == 1) {
      expect(version_1_again(reader) == manifest);
    } else {
      const std::string again = version_2_again(reader);
      Totals totals;
      expect(read_files(again, ManifestReader::Kind::kWhole, totals) && totals == whole);
      if (one_frame) expect(payloads_of(again) == payloads_of(manifest));
    }
    expect(good && reader.totals() == whole);
  } catch (const ManifestError &) {
    expect(!good);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  const std::string_view input = text_of(data, size);
  check(input);
  check(with_line_codes(input));
  check(with_frame_codes(input));
  check(in_one_frame(input), true);
  return 0;
}
