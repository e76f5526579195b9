// Reading back what an image file holds: EC prefix, descriptor regions, the BVDT identity, the
// "$OBLIS" map and tagged slots, each read bounded by the file's length; and the text of `info`.
// Building images is Builder.cpp's; judging whether an image may be flashed is the driver's.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ZaPromImage.h"

namespace zimage {

namespace {

constexpr uint32_t kSlotHeaderBytes = 24;
constexpr uint32_t kSlotTagBytes = 16;
constexpr uint32_t kMapRecordLimit = 200;

uint32_t GetU32(const uint8_t* at) {
  return uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}

// Offsets of every occurrence of pattern in [data, data + length), in rising order.
std::vector<size_t> FindAll(const uint8_t* data, size_t length, const std::string& pattern, size_t limit = SIZE_MAX) {
  std::vector<size_t> hits;
  const uint8_t* end = data + length;
  for (const uint8_t* at = data; hits.size() < limit;) {
    at = std::search(at, end, pattern.begin(), pattern.end());
    if (at == end) break;
    hits.push_back(static_cast<size_t>(at - data));
    ++at;
  }
  return hits;
}

// A text field ends at its first zero or at its field's end, whichever comes first.
std::string FieldText(const uint8_t* flash, size_t length, size_t offset, uint32_t field) {
  std::string text;
  for (size_t i = offset; i < std::min(length, offset + field) && flash[i] != 0; ++i) text.push_back(static_cast<char>(flash[i]));
  return text;
}

void ReadDescriptor(const uint8_t* flash, size_t length, ImageInfo& info) {
  if (length < 0x20 || GetU32(flash + kDescriptorSignatureOffset) != kDescriptorSignature) return;
  info.hasDescriptor = true;
  const size_t frba = ((GetU32(flash + 0x14) >> 16) & 0xFF) << 4;
  for (int i = 0; i < kSpiRegionCount && frba + 4 * i + 4 <= length; ++i) {
    const uint32_t reg = GetU32(flash + frba + 4 * i);
    RegionInfo region{static_cast<SpiRegion>(i)};
    region.base = (reg & 0x7FFF) << 12;
    region.limit = (((reg >> 16) & 0x7FFF) << 12) | 0xFFF;
    region.used = region.limit > region.base;
    if (!region.used) region.base = region.limit = 0;
    info.regions.push_back(region);
  }
}

void ReadBvdt(const uint8_t* flash, size_t length, ImageInfo& info) {
  const auto hits = FindAll(flash, length, "$BVDT$", 1);
  if (hits.empty()) return;
  info.bvdtOffset = static_cast<uint32_t>(hits[0]);
  info.bvdtVersion = FieldText(flash, length, hits[0] + kBvdtVersionOffset, kBvdtVersionBytes);
  info.bvdtModel = FieldText(flash, length, hits[0] + kBvdtModelOffset, kBvdtModelBytes);
}

// As the driver takes it: records behind the signature up to type 0xFF or 200 records, and a
// record with address and size both 0 left out.
void ReadMap(const uint8_t* flash, size_t length, ImageInfo& info) {
  const auto hits = FindAll(flash, length, "$OBLIS", 1);
  if (hits.empty()) return;
  info.mapOffset = static_cast<uint32_t>(hits[0]);
  size_t at = hits[0] + 6;
  for (uint32_t n = 0; n < kMapRecordLimit && at + kMapRecordBytes <= length; ++n, at += kMapRecordBytes) {
    MapRecord r{flash[at], GetU32(flash + at + 1), GetU32(flash + at + 5), flash[at + 9]};
    if (r.type == 0xFF) break;
    if (r.address == 0 && r.size == 0) continue;
    info.mapRecords.push_back(r);
  }
}

void ReadSlots(const std::vector<uint8_t>& file, ImageInfo& info) {
  for (size_t at : FindAll(file.data(), file.size(), "$_KOBALT_")) {
    if (at + kSlotTagBytes > file.size()) continue;
    SlotInfo slot;
    slot.tag.assign(reinterpret_cast<const char*>(file.data() + at), kSlotTagBytes);
    if (!std::all_of(slot.tag.begin(), slot.tag.end(), [](char c) { return c > 0x20 && c < 0x7F; })) continue;
    slot.offset = static_cast<uint32_t>(at);
    if (at + kSlotHeaderBytes <= file.size()) {
      slot.capacity = GetU32(file.data() + at + 16);
      slot.size = GetU32(file.data() + at + 20);
    }
    info.slots.push_back(slot);
  }
}

std::string Format(const char* format, auto... args) {
  char line[256];
  std::snprintf(line, sizeof(line), format, args...);
  return line;
}

const char* DisplayName(SpiRegion region) {
  static const char* const kNames[kSpiRegionCount] = {"Descriptor", "BIOS", "ME", "GbE", "Platform Data"};
  return kNames[static_cast<int>(region)];
}

}  // namespace

const char* MapRegionTypeName(uint8_t type) {
  static const char* const kNames[] = {"PEI",        "CPU Microcode", "Variable",   "DXE",       "EC",       "LOGO",
                                       "NV Storage", "FTW Backup",    "FTW State",  "SMBIOS Log", "OEM Data", "GPNV",
                                       "DMI FRU",    "PAL-B",         "MCA Log",    "Password",  "OEM NVS"};
  if (type < std::size(kNames)) return kNames[type];
  if (type <= 0x14) return "Reserved";
  if (type == 0x15) return "Unused";
  if (type == 0x16) return "Factory Copy";
  if (type == 0xFE) return "Private Map";
  return "Undefined";
}

ImageInfo InspectImage(const std::vector<uint8_t>& file) {
  ImageInfo info;
  info.fileSize = file.size();
  // A merged file is an EC image directly followed by the flash image, with no marker between
  // them: the flash is the largest power of two that fits, the EC image what stands in front.
  uint64_t flash = 1;
  while (flash * 2 <= file.size() && flash * 2 <= 0x80000000ull) flash *= 2;
  if (file.empty()) flash = 0;
  info.flashSize = static_cast<uint32_t>(flash);
  info.ecSize = static_cast<uint32_t>(file.size() - flash);
  const uint8_t* start = file.data() + info.ecSize;
  ReadDescriptor(start, flash, info);
  ReadBvdt(start, flash, info);
  ReadMap(start, flash, info);
  ReadSlots(file, info);
  return info;
}

std::string FormatImageInfo(const ImageInfo& info) {
  std::string out = Format("File size: 0x%llX (%llu bytes)\n", static_cast<unsigned long long>(info.fileSize),
                           static_cast<unsigned long long>(info.fileSize));
  out += Format("Flash image: 0x%X bytes\n", info.flashSize);
  if (info.ecSize) {
    out += Format("EC image in front: 0x%X bytes; offsets below count from the flash image\n", info.ecSize);
  } else {
    out += "EC image in front: none\n";
  }
  if (info.hasDescriptor) {
    out += "Descriptor regions:\n  Region         Base       Limit      Size\n";
    for (const RegionInfo& r : info.regions) {
      if (r.used) {
        out += Format("  %-14s 0x%08X 0x%08X 0x%08X\n", DisplayName(r.region), r.base, r.limit, r.limit - r.base + 1);
      } else {
        out += Format("  %-14s unused\n", DisplayName(r.region));
      }
    }
  } else {
    out += "Descriptor: none (no signature 0x0FF0A55A at 0x10)\n";
  }
  if (info.bvdtOffset) {
    out += Format("BVDT at 0x%08X: version \"%s\" model \"%s\"\n", *info.bvdtOffset, info.bvdtVersion.c_str(), info.bvdtModel.c_str());
  } else {
    out += "BVDT: none\n";
  }
  if (info.mapOffset) {
    out += Format("$OBLIS map at 0x%08X: %zu records\n", *info.mapOffset, info.mapRecords.size());
    if (!info.mapRecords.empty()) out += "  Type Address    Size       Action Description\n";
    for (const MapRecord& r : info.mapRecords) {
      out += Format("  %02Xh  0x%08X 0x%08X %-6u %s\n", r.type, r.address, r.size, r.action, MapRegionTypeName(r.type));
    }
  } else {
    out += "$OBLIS map: none\n";
  }
  if (info.slots.empty()) {
    out += "Tagged slots: none\n";
  } else {
    out += "Tagged slots (offsets in the file):\n";
    for (const SlotInfo& s : info.slots) {
      out += Format("  %s at 0x%08X capacity 0x%X size 0x%X\n", s.tag.c_str(), s.offset, s.capacity, s.size);
    }
  }
  return out;
}

}  // namespace zimage
