#include "arch/crc.hpp"

#include "arch/x86_64/crc16_vector.hpp"

namespace vorn::arch {
namespace {

// From here on the wider registers are the faster.
constexpr std::size_t kWideMin = 64;

} // namespace

std::uint16_t crc16(std::uint16_t crc, const void *data, std::size_t length) {
  if (length >= kWideMin && crc_probe.crc16_wide) return crc16_wide(crc, data, length);
  return crc16_narrow(crc, data, length);
}

std::uint16_t crc16_narrow(std::uint16_t crc, const void *data, std::size_t length) {
  using Loop = Crc16Loop<Vector16>;
  const auto *at = static_cast<const std::uint8_t *>(data);
  return length == kCrc16Sector ? Loop::sector(crc, at) : Loop::run(crc, at, length);
}

} // namespace vorn::arch
