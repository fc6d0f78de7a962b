// Defines the manifest: a text file with the checksums of a tree, for people and programs.
//
//   fbe9d2f4 vorn-scrub-manifest 1 block 4096 crc32c sector 512 crc16-t10dif
//   0a6c1e55 file 5000 1700000000.123456789 docs/read%20me.txt
//   91d2b0c7 block 0 98f94189 7d0a 0000 0000 0000 0000 0000 0000 0000
//   44e0f36a block 1 5b1f03aa 66c2 e1f0
//   c70d5a12 end files 1 blocks 2 bytes 5000
//
// A file's line gives its size in bytes, its time of last write (seconds since 1970) and its path
// below the tree's root, escaped; files come in path order. The lines of its blocks follow: number,
// CRC-32C, and the guard of each sector. The last line counts what came before.
//
// Each line begins with a code: the CRC-32C of the texts, newlines included, of this line and of
// all lines before it, without their codes. If a line was changed, moved or lost, the code of the
// first such line is the first wrong one. The code of the last line covers the whole manifest.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_HPP
#define SCRUB_MANIFEST_HPP

#include <cstdint>
#include <ctime>
#include <string_view>

#include "checksums.hpp"
#include "memory.hpp"

namespace scrub {

inline constexpr std::string_view kManifestTitle = "vorn-scrub-manifest ";
inline constexpr std::string_view kManifestHeader =
    "vorn-scrub-manifest 1 block 4096 crc32c sector 512 crc16-t10dif";

inline constexpr std::size_t kMaxPath = 4096;
// The code, a blank, the longest path escaped, and the rest of a file's line.
inline constexpr std::size_t kMaxLine = 9 + 3 * kMaxPath + 128;

struct FileRecord {
  String path;
  std::uint64_t size = 0;
  timespec written{};
};

struct Totals {
  std::uint64_t files = 0;
  std::uint64_t blocks = 0;
  std::uint64_t bytes = 0;

  bool operator==(const Totals &) const = default;
};

// Compares paths in the order of a manifest: by bytes, but '/' comes before every other byte. A
// walk that takes the names of each directory in byte order yields this order.
bool path_before(std::string_view a, std::string_view b);

// Return the text of a line, without code and newline.
String file_line(const FileRecord &file);
String block_line(std::uint64_t number, const Checksums &block);
String end_line(const Totals &totals);

// Computes the codes of a manifest's lines.
class LineCode {
public:
  // Returns the code of the next line, whose text has no newline.
  std::uint32_t next(std::string_view text);

private:
  std::uint32_t crc_ = 0xFFFFFFFF;
};

} // namespace scrub

#endif
