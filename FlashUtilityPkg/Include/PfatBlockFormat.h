// The per-block header and certificate of a PFAT image as this project's image tool makes them
// and its simulated firmware checks them. The driver never looks inside either: it only cuts
// them out of their tables and sends them with the block's data.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace pfat_block {

// Header: "$BLK", u32 block number, u32 flash address, u32 data size, u32 data sum; zero behind.
constexpr char kHeaderSignature[] = "$BLK";
constexpr uint32_t kHeaderMinimum = 20;
// Certificate: "$CRT", u32 block number, then the fill of CertificateByte.
constexpr char kCertificateSignature[] = "$CRT";
constexpr uint32_t kCertificateMinimum = 8;

// A recognisable fill, different for each block, so that a certificate sent with the wrong
// block or at the wrong place in a packet is noticed.
inline uint8_t CertificateByte(uint32_t block, uint32_t index) { return static_cast<uint8_t>(0xC3 ^ (block * 7 + index)); }

inline uint32_t DataSum(const uint8_t* data, size_t length) {
  uint32_t sum = 0;
  for (size_t i = 0; i < length; ++i) sum = sum * 31 + data[i];
  return sum;
}

}  // namespace pfat_block
