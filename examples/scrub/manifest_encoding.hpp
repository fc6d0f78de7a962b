// Defines the frames and records of version 2 of the manifest, for its reader and its writer.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MANIFEST_ENCODING_HPP
#define SCRUB_MANIFEST_ENCODING_HPP

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "checksums.hpp"
#include "memory.hpp"
#include "vorn_crc.h"

namespace scrub {

inline constexpr std::string_view kManifestTitle = "vorn-scrub-manifest ";
inline constexpr std::string_view kManifestHeader =
    "vorn-scrub-manifest 2 block 4096 crc32c sector 512 crc16-t10dif\n";

inline constexpr std::size_t kFrameHead = 8; // length and code, 32 bits each
inline constexpr std::size_t kMaxPayload = 65536;

// A longer path comes in pieces, so that each record fits into a frame.
inline constexpr std::size_t kPathPiece = 32768;

// A record begins with a varint, its kind in the lowest three bits and a number above them.
enum class RecordKind : std::uint64_t {
  kTree = 1,   // number: flags
  kPath = 2,   // a piece of the next file's path; number: bytes shared with the path before
  kFile = 3,   // likewise, with the rest of the path
  kBlocks = 4, // number: blocks that follow
  kZeros = 5,  // number: blocks of zeros
  kEnd = 6,    // number: 0
};
inline constexpr unsigned int kKindBits = 3;

enum TreeFlags : std::uint64_t { kOneFileSystem = 1, kPseudo = 2, kTreeFlags = 3 };

inline constexpr std::size_t kMaxVarint = 10;
// A record of a file without the bytes of its path: the head and seven numbers.
inline constexpr std::size_t kMaxFileRecord = 8 * kMaxVarint;

constexpr std::size_t block_bytes(std::size_t sectors) { return 4 + 2 * sectors; }
inline constexpr std::size_t kBlockBytes = block_bytes(kSectorsPerBlock);

// The previous file; the next record gives the difference.
struct FileBase {
  String path;
  std::uint64_t written = 0; // seconds, as an unsigned number so that differences wrap
  std::uint64_t changed = 0;
  std::uint64_t inode = 0;
};

// Maps differences of either sign to numbers that are small if the difference is small.
constexpr std::uint64_t zigzag(std::uint64_t difference) {
  return difference << 1 ^ (difference >> 63 != 0 ? ~std::uint64_t{0} : 0);
}
constexpr std::uint64_t unzigzag(std::uint64_t number) {
  return number >> 1 ^ ((number & 1) != 0 ? ~std::uint64_t{0} : 0);
}

template <std::unsigned_integral T> void store_little(T value, char *bytes) {
  for (std::size_t i = 0; i < sizeof value; ++i)
    bytes[i] = static_cast<char>(value >> 8 * i);
}

template <std::unsigned_integral T> T load_little(const char *bytes) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof value; ++i)
    value = static_cast<T>(value | static_cast<T>(static_cast<unsigned char>(bytes[i])) << 8 * i);
  return value;
}

// bytes has room for kBlockBytes. Returns the number of bytes stored.
inline std::size_t store_block(const Checksums &block, char *bytes) {
  store_little(block.crc, bytes);
  for (std::size_t i = 0; i < block.sectors; ++i)
    store_little(block.guards[i], bytes + 4 + 2 * i);
  return block_bytes(block.sectors);
}

inline void load_block(const char *bytes, std::uint32_t sectors, Checksums &block) {
  block = {};
  block.crc = load_little<std::uint32_t>(bytes);
  block.sectors = sectors;
  for (std::size_t i = 0; i < sectors; ++i)
    block.guards[i] = load_little<std::uint16_t>(bytes + 4 + 2 * i);
}

// The CRC-32C of the header line and of the payloads of all frames so far.
class FrameCode {
public:
  void add(std::string_view bytes) {
    crc_ = vorn_crc32cContinue(crc_, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  }
  std::uint32_t value() const { return vorn_crc32cEnd(crc_); }

private:
  std::uint32_t crc_ = 0xFFFFFFFF;
};

} // namespace scrub

#endif
