// Building the bytes of a flash file from an ImageDescription: layout checks, region fills, the
// Intel flash descriptor, the "$BVDT$" block, the "$OBLIS" map and the EC image in front.
// Reading descriptions from JSON and printing what an image holds live beside this file.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "OblisWire.h"
#include "ZaPromImage.h"

namespace zimage {

static_assert(sizeof(BvdtRegionRecord) == kMapRecordBytes, "map records are written as the driver reads them");

namespace {

constexpr uint32_t kDescriptorBytes = 0x1000;
constexpr uint32_t kRegionUnit = 0x1000;  // FLREG base and limit count 4 KB units
constexpr uint8_t kMapEndType = 0xFF;
constexpr char kBvdtSignature[] = "$BVDT$";
constexpr char kMapSignature[] = "$OBLIS";

[[noreturn]] void Fail(const std::string& what) { throw ImageError(what); }

std::string Hex(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
  return text;
}

void PutU32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

void PutText(uint8_t* at, const std::string& text, uint32_t field) {
  std::memset(at, 0, field);
  std::memcpy(at, text.data(), std::min<size_t>(text.size(), field));
}

std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) Fail("cannot read fill file " + path);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// splitmix64: the same seed gives the same bytes on every host, so tests can name them.
void FillRandom(uint8_t* out, uint32_t length, uint32_t seed) {
  uint64_t state = seed;
  for (uint32_t i = 0; i < length; i += 8) {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    for (uint32_t b = 0; b < 8 && i + b < length; ++b) out[i + b] = static_cast<uint8_t>(z >> (8 * b));
  }
}

void ApplyFill(uint8_t* out, uint32_t length, const Fill& fill, const std::string& where) {
  switch (fill.kind) {
    case Fill::Kind::Byte:
      std::memset(out, fill.byte, length);
      return;
    case Fill::Kind::Random:
      FillRandom(out, length, fill.seed);
      return;
    case Fill::Kind::File: {
      const std::vector<uint8_t> data = ReadWholeFile(fill.path);
      if (data.size() > length) {
        Fail(where + ": fill file " + fill.path + " has " + Hex(data.size()) + " bytes, more than the " + Hex(length) +
             " it must fit in");
      }
      std::memset(out, fill.byte, length);
      std::memcpy(out + (fill.atEnd ? length - data.size() : 0), data.data(), data.size());
      return;
    }
  }
}

const RegionSpec* FindRegion(const ImageDescription& d, SpiRegion region) {
  for (const auto& r : d.regions) {
    if (r.region == region) return &r;
  }
  return nullptr;
}

// The members behind the fixed head that only the firmware reads, ending in "$ENDOFBVDT".
std::string BvdtMembers(const BvdtSpec& bvdt) {
  if (!bvdt.closeBlock) return {};
  return std::string("$BME$\0\0\0", 8) + "$RDATE" + bvdt.releaseDate + "$ENDOFBVDT";
}

uint32_t MapOffset(const ImageDescription& d) {
  if (d.oblisMap->offset) return *d.oblisMap->offset;
  if (!d.bvdt) Fail("oblis_map: needs an \"offset\" when the image has no BVDT block");
  return d.bvdt->offset + kBvdtHeadBytes + static_cast<uint32_t>(BvdtMembers(*d.bvdt).size());
}

uint32_t MapBytes(const OblisMapSpec& map) {
  return static_cast<uint32_t>(sizeof(kMapSignature) - 1 + (map.records.size() + 1) * kMapRecordBytes);
}

void CheckInside(const std::string& what, uint64_t offset, uint64_t length, uint64_t start, uint64_t size,
                 const std::string& container) {
  if (offset < start || offset + length > start + size) {
    Fail(what + " at " + Hex(offset) + " (" + Hex(length) + " bytes) does not lie inside " + container);
  }
}

void CheckLayout(const ImageDescription& d) {
  if (d.size < kDescriptorBytes || (d.size & (d.size - 1)) != 0) Fail("size " + Hex(d.size) + " is not a power of two of at least 4 KB");
  for (size_t i = 0; i < d.regions.size(); ++i) {
    const RegionSpec& r = d.regions[i];
    const std::string name = std::string("region ") + SpiRegionName(r.region);
    if (r.size == 0 || r.offset % kRegionUnit != 0 || r.size % kRegionUnit != 0) {
      Fail(name + ": offset and size must be non-zero multiples of 4 KB");
    }
    CheckInside(name, r.offset, r.size, 0, d.size, "the flash");
    for (size_t j = 0; j < i; ++j) {
      const RegionSpec& o = d.regions[j];
      if (o.region == r.region) Fail(name + " is given twice");
      if (r.offset < o.offset + o.size && o.offset < r.offset + r.size) {
        Fail(name + " overlaps region " + SpiRegionName(o.region));
      }
    }
  }
  if (const RegionSpec* descriptor = FindRegion(d, SpiRegion::Descriptor); descriptor && descriptor->offset != 0) {
    Fail("region descriptor must start at offset 0");
  }
  if (d.bvdt) {
    const uint32_t length = kBvdtHeadBytes + static_cast<uint32_t>(BvdtMembers(*d.bvdt).size());
    if (const RegionSpec* bios = FindRegion(d, SpiRegion::Bios)) {
      CheckInside("bvdt", d.bvdt->offset, length, bios->offset, bios->size, "the bios region");
    } else {
      CheckInside("bvdt", d.bvdt->offset, length, 0, d.size, "the flash");
    }
  }
  if (d.oblisMap) CheckInside("oblis_map", MapOffset(d), MapBytes(*d.oblisMap), 0, d.size, "the flash");
  if (d.ec && d.ec->size == 0) Fail("ec: size must not be 0");
}

// The Intel flash descriptor in its first form: signature, FLMAP0..2, one component, the five
// region registers and three masters. Unlisted regions get base 0x7FFF, limit 0.
void WriteDescriptor(uint8_t* flash, const ImageDescription& d) {
  // A strap length of 16 dwords with no ICC registers is what a 5-series PCH descriptor has, so
  // descriptor readers recognise the chipset instead of guessing.
  constexpr uint32_t kNumberOfRegions = 5, kNumberOfMasters = 3, kStrapBase = 0x100, kStrapLength = 0x10;
  constexpr uint32_t kUpperMap = 0xEFC, kVsccTable = 0xF00;
  std::memset(flash, 0xFF, kDescriptorBytes);
  PutU32(flash + kDescriptorSignatureOffset, kDescriptorSignature);
  // FLMAP0: FCBA bits 7:0, NC bits 9:8 (0: one component), FRBA bits 23:16, NR bits 26:24.
  PutU32(flash + 0x14, (kComponentBase >> 4) | ((kRegionBase >> 4) << 16) | ((kNumberOfRegions - 1) << 24));
  // FLMAP1: FMBA bits 7:0, NM bits 10:8, FPSBA bits 23:16, ISL bits 31:24.
  PutU32(flash + 0x18, (kMasterBase >> 4) | ((kNumberOfMasters - 1) << 8) | ((kStrapBase >> 4) << 16) | (kStrapLength << 24));
  PutU32(flash + 0x1C, 0);  // FLMAP2: no processor straps
  // FLCOMP: density of component 1, 0 = 512 KB doubling up to 7 = 64 MB; 20 MHz reads.
  uint32_t density = 0;
  while (density < 7 && (0x80000u << density) < d.size) ++density;
  PutU32(flash + kComponentBase, density);
  PutU32(flash + kComponentBase + 4, 0);  // FLILL: no invalid instructions
  for (int i = 0; i < kSpiRegionCount; ++i) {
    const RegionSpec* r = FindRegion(d, static_cast<SpiRegion>(i));
    PutU32(flash + kRegionBase + 4 * i, r ? RegionRegister(r->offset, r->size) : kUnusedRegionRegister);
  }
  // Masters: read access bits 23:16, write access bits 31:24, one bit per region, as a
  // typical client board: the host owns BIOS and GbE, the ME its own region.
  PutU32(flash + kMasterBase + 0, 0x0A0B0000);
  PutU32(flash + kMasterBase + 4, 0x0C0D0000);
  PutU32(flash + kMasterBase + 8, 0x08080118);
  // FLUMAP1 and one VSCC entry for the 16 MB Winbond part of the reference board (JEDEC ID
  // EF 40 18): 4 KB erase by opcode 20h, 64-byte write granularity, in both halves.
  PutU32(flash + kUpperMap, (kVsccTable >> 4) | (2u << 8));
  PutU32(flash + kVsccTable, 0x001840EF);
  PutU32(flash + kVsccTable + 4, 0x20052005);
}

void WriteBvdt(uint8_t* flash, const BvdtSpec& bvdt) {
  uint8_t* block = flash + bvdt.offset;
  std::memset(block, 0, kBvdtHeadBytes);
  std::memcpy(block, kBvdtSignature, sizeof(kBvdtSignature) - 1);
  // Each '$' introduces the field behind it; the driver tests those at 0x0D and 0x26.
  for (uint32_t at : {0x09u, 0x0Du, 0x26u, 0x40u}) block[at] = '$';
  PutText(block + kBvdtVersionOffset, bvdt.version, kBvdtVersionBytes);
  PutText(block + kBvdtModelOffset, bvdt.model, kBvdtModelBytes);
  PutText(block + kBvdtExtraOffset, bvdt.extra, kBvdtExtraBytes);
  const std::string members = BvdtMembers(bvdt);
  std::memcpy(block + kBvdtHeadBytes, members.data(), members.size());
}

void WriteMap(uint8_t* at, const OblisMapSpec& map) {
  std::memcpy(at, kMapSignature, sizeof(kMapSignature) - 1);
  at += sizeof(kMapSignature) - 1;
  std::vector<MapRecord> records = map.records;
  records.push_back(MapRecord{kMapEndType, 0, 0, 0});
  for (const MapRecord& r : records) {
    at[0] = r.type;
    PutU32(at + 1, r.address);
    PutU32(at + 5, r.size);
    at[9] = r.action;
    at += kMapRecordBytes;
  }
}

// The layout of a container as the packing step leaves it; the driver searches the record and
// the tags, so only their order and the size fields matter to it.
constexpr uint32_t kContainerCodeBytes = 0xD80;
constexpr uint8_t kSecureRecord[] = {'$',  'I',  'S',  'B',  0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3,
                                     0xAE, 0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB, 0xB8};
constexpr uint32_t kEmptyEcCapacity = 4;
constexpr uint32_t kIniCapacity = 0x10000;
constexpr uint32_t kCertificateCapacity = 0x400;
constexpr uint32_t kCertificateBytes = 0x100;
constexpr char kDriverSignature[] = "I#EFI#DRV_1.2d";

void AppendSlot(std::vector<uint8_t>& out, const char* tag, const uint8_t* data, uint32_t size, uint32_t capacity) {
  out.insert(out.end(), tag, tag + 16);
  const size_t header = out.size();
  out.resize(header + 8 + capacity, 0);
  PutU32(out.data() + header, capacity);
  PutU32(out.data() + header + 4, size);
  if (size != 0) std::memcpy(out.data() + header + 8, data, size);
}

}  // namespace

std::vector<uint8_t> WrapSecure(const std::vector<uint8_t>& flash, const std::vector<uint8_t>& ec, const SecureSpec& spec) {
  if (spec.ini.size() > kIniCapacity) Fail("secure.ini: " + Hex(spec.ini.size()) + " bytes, more than the slot's " + Hex(kIniCapacity));
  std::vector<uint8_t> out(kContainerCodeBytes + sizeof(kSecureRecord), 0x90);
  std::memcpy(out.data() + kContainerCodeBytes, kSecureRecord, sizeof(kSecureRecord));
  const uint32_t ecSize = static_cast<uint32_t>(ec.size());
  AppendSlot(out, "$_KOBALT_EC_IMG_", ec.data(), ecSize, std::max(ecSize, kEmptyEcCapacity));
  AppendSlot(out, "$_KOBALT_BIOSIMG", flash.data(), static_cast<uint32_t>(flash.size()), static_cast<uint32_t>(flash.size()));
  AppendSlot(out, "$_KOBALT_INI_IMG", reinterpret_cast<const uint8_t*>(spec.ini.data()), static_cast<uint32_t>(spec.ini.size()),
             kIniCapacity);
  const std::vector<uint8_t> certificate(kCertificateBytes, 0x5C);
  AppendSlot(out, "$_KOBALT_BIOSCER", certificate.data(), kCertificateBytes, kCertificateCapacity);
  AppendSlot(out, "$_KOBALT_BIOSCR2", nullptr, 0, kCertificateCapacity);
  out.insert(out.end(), kDriverSignature, kDriverSignature + sizeof(kDriverSignature));
  out.push_back(0);
  return out;
}

uint32_t RegionRegister(uint32_t offset, uint32_t size) {
  return (((offset + size - 1) / kRegionUnit) << 16) | (offset / kRegionUnit);
}

std::vector<uint8_t> BuildImage(const ImageDescription& d) {
  CheckLayout(d);
  const uint32_t ecSize = d.ec ? d.ec->size : 0;
  std::vector<uint8_t> file(static_cast<size_t>(ecSize) + d.size);
  if (d.ec) ApplyFill(file.data(), ecSize, d.ec->fill, "ec");
  uint8_t* flash = file.data() + ecSize;
  ApplyFill(flash, d.size, d.fill, "fill");
  for (const RegionSpec& r : d.regions) ApplyFill(flash + r.offset, r.size, r.fill, std::string("region ") + SpiRegionName(r.region));
  // Structures go over the fills, so a random or file fill cannot hide them.
  if (FindRegion(d, SpiRegion::Descriptor)) WriteDescriptor(flash, d);
  if (d.bvdt) WriteBvdt(flash, *d.bvdt);
  if (d.oblisMap) WriteMap(flash + MapOffset(d), *d.oblisMap);
  if (d.pfat) {
    const RegionSpec* bios = FindRegion(d, SpiRegion::Bios);
    if (bios == nullptr) throw ImageError("pfat: the image needs a BIOS region");
    AppendPfatTables(file, ecSize, bios->offset, bios->size, d.size, *d.pfat);
  }
  if (d.secure) {
    file = WrapSecure(std::vector<uint8_t>(file.begin() + ecSize, file.end()),
                      std::vector<uint8_t>(file.begin(), file.begin() + ecSize), *d.secure);
  }
  if (d.rbu) file = WrapRbu(file, *d.rbu);
  return file;
}

}  // namespace zimage
