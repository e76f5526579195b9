// PFAT images: the flash file with a header table and a certificate table behind it, one header
// and one certificate per block of the BIOS region, and the checksum of the whole file in the
// certificate table's head. Also what such a file holds, and whether its checksum is right.
#include <cstring>

#include "PfatBlockFormat.h"
#include "ZaPromImage.h"

namespace zimage {

namespace {

constexpr char kHeaderTableSignature[] = "$PFATHDR";
constexpr char kCertificateTableSignature[] = "$PFATCER";
constexpr uint32_t kTableHeadBytes = 32;
constexpr uint32_t kChecksumOffset = 20;  // in the certificate table's head

void PutU32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value) { std::memcpy(bytes.data() + offset, &value, 4); }
uint32_t GetU32(const std::vector<uint8_t>& bytes, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, 4);
  return value;
}

size_t Find(const std::vector<uint8_t>& file, const char* signature) {
  const size_t length = std::strlen(signature);
  for (size_t i = 0; i + length <= file.size(); ++i) {
    if (std::memcmp(file.data() + i, signature, length) == 0) return i;
  }
  return std::string::npos;
}

}  // namespace

uint32_t PfatChecksum(const std::vector<uint8_t>& file, size_t checksumOffset) {
  uint32_t sum = 0;
  for (size_t i = 0; i < file.size(); ++i) {
    if (i >= checksumOffset && i < checksumOffset + 4) continue;
    sum += file[i];
  }
  return sum;
}

void AppendPfatTables(std::vector<uint8_t>& file, uint32_t ecSize, uint32_t biosOffset, uint32_t biosSize,
                      uint32_t flashSize, const PfatSpec& spec) {
  if (spec.blockSize == 0 || biosSize % spec.blockSize != 0) {
    throw ImageError("pfat.block_size: the BIOS region must be whole blocks");
  }
  if (spec.headerSize < pfat_block::kHeaderMinimum || spec.certificateSize < pfat_block::kCertificateMinimum) {
    throw ImageError("pfat: a header holds at least 20 bytes, a certificate at least 8");
  }
  const uint32_t count = biosSize / spec.blockSize;
  const uint32_t romBase = static_cast<uint32_t>(0x100000000ull - flashSize);
  std::vector<uint8_t> headers(kTableHeadBytes + size_t{count} * spec.headerSize, 0);
  std::memcpy(headers.data(), kHeaderTableSignature, 8);
  PutU32(headers, 12, count);
  PutU32(headers, 16, spec.headerSize);
  PutU32(headers, 20, spec.blockSize);
  std::vector<uint8_t> certificates(kTableHeadBytes + size_t{count} * spec.certificateSize, 0);
  std::memcpy(certificates.data(), kCertificateTableSignature, 8);
  PutU32(certificates, 16, spec.certificateSize);
  for (uint32_t block = 0; block < count; ++block) {
    const size_t header = kTableHeadBytes + size_t{block} * spec.headerSize;
    const uint8_t* data = file.data() + ecSize + biosOffset + size_t{block} * spec.blockSize;
    std::memcpy(headers.data() + header, pfat_block::kHeaderSignature, 4);
    PutU32(headers, header + 4, block);
    PutU32(headers, header + 8, romBase + biosOffset + block * spec.blockSize);
    PutU32(headers, header + 12, spec.blockSize);
    PutU32(headers, header + 16, pfat_block::DataSum(data, spec.blockSize));
    const size_t certificate = kTableHeadBytes + size_t{block} * spec.certificateSize;
    std::memcpy(certificates.data() + certificate, pfat_block::kCertificateSignature, 4);
    PutU32(certificates, certificate + 4, block);
    for (uint32_t i = pfat_block::kCertificateMinimum; i < spec.certificateSize; ++i) {
      certificates[certificate + i] = pfat_block::CertificateByte(block, i);
    }
  }
  file.insert(file.end(), headers.begin(), headers.end());
  const size_t certificateTable = file.size();
  file.insert(file.end(), certificates.begin(), certificates.end());
  PutU32(file, certificateTable + kChecksumOffset, PfatChecksum(file, certificateTable + kChecksumOffset));
}

std::optional<PfatInfo> InspectPfat(const std::vector<uint8_t>& file) {
  const size_t headers = Find(file, kHeaderTableSignature);
  if (headers == std::string::npos || headers + kTableHeadBytes > file.size()) return std::nullopt;
  PfatInfo info;
  info.fdSize = static_cast<uint32_t>(headers);
  info.blockCount = GetU32(file, headers + 12);
  info.headerSize = GetU32(file, headers + 16);
  info.blockSize = GetU32(file, headers + 20);
  const size_t certificates = Find(file, kCertificateTableSignature);
  if (certificates != std::string::npos && certificates + kTableHeadBytes <= file.size()) {
    info.signed_ = true;
    info.certificateSize = GetU32(file, certificates + 16);
    info.storedChecksum = GetU32(file, certificates + kChecksumOffset);
    info.checksum = PfatChecksum(file, certificates + kChecksumOffset);
  }
  return info;
}

std::string FormatPfatInfo(const PfatInfo& info) {
  char text[512];
  std::snprintf(text, sizeof(text),
                "PFAT image: flash data 0x%X bytes, %u blocks of 0x%X, header 0x%X bytes each\n", info.fdSize,
                info.blockCount, info.blockSize, info.headerSize);
  std::string out = text;
  if (!info.signed_) return out + "  not signed: no certificate table\n";
  std::snprintf(text, sizeof(text), "  certificate 0x%X bytes each, checksum 0x%08X (%s)\n", info.certificateSize,
                info.storedChecksum,
                info.checksum == info.storedChecksum ? "right" : ("wrong, the file sums to " + [&] {
                  char sum[16];
                  std::snprintf(sum, sizeof(sum), "0x%08X", info.checksum);
                  return std::string(sum);
                }()).c_str());
  return out + text;
}

}  // namespace zimage
