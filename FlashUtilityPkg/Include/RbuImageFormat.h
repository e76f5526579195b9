// The RBU wrapper as this project's image tool makes it and its simulated firmware reads it: a
// header that opens with "$RBU" and gives its own length in byte 4, an optional server block
// ("$BIS", u16 length counted from its start), the raw flash data, and two checksums at the end,
// FD (from the header's end) and Entire (from the file's start, the FD checksum included). The
// driver reads the same layout with code of its own.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace rbu_image {

constexpr char kSignature[] = "$RBU";
constexpr char kServerSignature[] = "$BIS";
constexpr uint32_t kHeaderLengthOffset = 4;
constexpr uint32_t kHeaderMinimum = 5;  // the signature and the length byte
constexpr uint32_t kServerLengthOffset = 4;
constexpr uint32_t kServerMinimum = 6;  // the signature and the length
constexpr uint32_t kChecksumBytes = 8;  // FD, then Entire
// With a server block the flash data comes in whole blocks of this size; what is left over is
// the server's certificate behind the checksums.
constexpr uint32_t kServerDataUnit = 0x80000;

// CRC-32 over the reflected IEEE 802.3 polynomial, starting at all ones, with no final inversion.
inline uint32_t Checksum(const uint8_t* data, size_t length) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < length; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return crc;
}

inline uint32_t U32(const uint8_t* p) {
  uint32_t value;
  memcpy(&value, p, 4);
  return value;
}

// Where the parts of an RBU file lie; ok is false for a file that does not open with "$RBU" or
// whose lengths reach outside it (fault then names what).
struct Layout {
  bool ok = false;
  const char* fault = "no \"$RBU\" signature";
  uint32_t header = 0;
  uint32_t server = 0;       // 0: no server block
  uint32_t certificate = 0;  // bytes behind the checksums
  uint32_t rawStart = 0, rawSize = 0;
  uint32_t fdChecksumAt = 0;  // the Entire checksum follows
};

inline Layout ReadLayout(const uint8_t* file, size_t size) {
  Layout layout;
  if (size < kHeaderMinimum || memcmp(file, kSignature, 4) != 0) return layout;
  layout.header = file[kHeaderLengthOffset];
  if (layout.header < kHeaderMinimum || size < uint64_t{layout.header} + kChecksumBytes) {
    layout.fault = "shorter than its header and checksums";
    return layout;
  }
  const uint32_t h = layout.header;
  if (size >= uint64_t{h} + 4 && memcmp(file + h, kServerSignature, 4) == 0) {
    layout.server = size >= uint64_t{h} + kServerMinimum ? uint32_t(file[h + 4] | (file[h + 5] << 8)) : 0;
    if (layout.server < kServerMinimum || size < uint64_t{h} + layout.server + kChecksumBytes) {
      layout.fault = "server block runs past the flash data";
      return layout;
    }
  }
  layout.rawStart = h + layout.server;
  layout.rawSize = static_cast<uint32_t>(size - h - layout.server - kChecksumBytes);
  if (layout.server != 0) layout.certificate = layout.rawSize % kServerDataUnit;
  if (layout.certificate > layout.server) {
    layout.fault = "server block shorter than the certificate behind the checksums";
    return layout;
  }
  layout.rawStart -= layout.certificate;
  layout.fdChecksumAt = layout.rawStart + layout.rawSize;
  layout.ok = true;
  layout.fault = "";
  return layout;
}

}  // namespace rbu_image
