// RBU images: the flash file wrapped in a header, an optional server block in front of the data,
// and the two checksums at the end. Also what such a file holds, and whether its checksums are
// right.
#include <cstdio>
#include <cstring>

#include "RbuImageFormat.h"
#include "ZaPromImage.h"

namespace zimage {

namespace {

void PutU32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value) { std::memcpy(bytes.data() + offset, &value, 4); }

std::string Hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08X", value);
  return text;
}

}  // namespace

std::vector<uint8_t> WrapRbu(const std::vector<uint8_t>& raw, const RbuSpec& spec) {
  if (spec.headerSize < rbu_image::kHeaderMinimum || spec.headerSize > 0xFF) {
    throw ImageError("rbu.header_size: 5 to 0xFF bytes (the length is one byte)");
  }
  if (spec.serverSize && (*spec.serverSize < rbu_image::kServerMinimum || *spec.serverSize > 0xFFFF)) {
    throw ImageError("rbu.server_size: 6 to 0xFFFF bytes (the length is 16 bits)");
  }
  // Anything beyond whole blocks behind a server block would be read as its certificate.
  if (spec.serverSize && raw.size() % rbu_image::kServerDataUnit != 0) {
    throw ImageError("rbu.server_size: with a server block the flash data must be whole 512 KB blocks");
  }
  std::vector<uint8_t> file(spec.headerSize, 0);
  std::memcpy(file.data(), rbu_image::kSignature, 4);
  file[rbu_image::kHeaderLengthOffset] = static_cast<uint8_t>(spec.headerSize);
  if (spec.serverSize) {
    std::vector<uint8_t> server(*spec.serverSize, 0);
    std::memcpy(server.data(), rbu_image::kServerSignature, 4);
    server[rbu_image::kServerLengthOffset] = static_cast<uint8_t>(*spec.serverSize);
    server[rbu_image::kServerLengthOffset + 1] = static_cast<uint8_t>(*spec.serverSize >> 8);
    file.insert(file.end(), server.begin(), server.end());
  }
  file.insert(file.end(), raw.begin(), raw.end());
  const size_t fd = file.size();
  file.resize(fd + rbu_image::kChecksumBytes);
  PutU32(file, fd, rbu_image::Checksum(file.data() + spec.headerSize, fd - spec.headerSize));
  PutU32(file, fd + 4, rbu_image::Checksum(file.data(), fd + 4));
  return file;
}

std::optional<RbuInfo> InspectRbu(const std::vector<uint8_t>& file) {
  if (file.size() < 4 || std::memcmp(file.data(), rbu_image::kSignature, 4) != 0) return std::nullopt;
  RbuInfo info;
  info.layout = rbu_image::ReadLayout(file.data(), file.size());
  if (!info.layout.ok) return info;
  const uint32_t at = info.layout.fdChecksumAt;
  info.storedFd = rbu_image::U32(file.data() + at);
  info.storedEntire = rbu_image::U32(file.data() + at + 4);
  info.fd = rbu_image::Checksum(file.data() + info.layout.header, at - info.layout.header);
  info.entire = rbu_image::Checksum(file.data(), at + 4);
  return info;
}

std::string FormatRbuInfo(const RbuInfo& info) {
  const rbu_image::Layout& l = info.layout;
  if (!l.ok) return std::string("RBU image, damaged: ") + l.fault + "\n";
  char text[256];
  std::snprintf(text, sizeof(text), "RBU image: header 0x%X bytes, flash data 0x%X bytes at 0x%X\n", l.header, l.rawSize,
                l.rawStart);
  std::string out = text;
  if (l.server != 0) {
    std::snprintf(text, sizeof(text), "  server block 0x%X bytes, certificate 0x%X bytes behind the checksums\n", l.server,
                  l.certificate);
    out += text;
  }
  auto line = [](const char* name, uint32_t stored, uint32_t computed) {
    return std::string("  ") + name + " checksum " + Hex(stored) +
           (stored == computed ? " (right)\n" : " (wrong, the data gives " + Hex(computed) + ")\n");
  };
  return out + line("FD", info.storedFd, info.fd) + line("Entire", info.storedEntire, info.entire);
}

}  // namespace zimage
