// What the firmware starts, put together on the build machine: the payloads go into the driver's
// slot chain, the driver goes into the launcher's slot, and both files can be read back. The
// chain is found by its secure-image record with the EC tag right behind it, and walked by the
// capacities the file itself gives, so a driver built with other capacities packs the same way.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ZaPromImage.h"

namespace zimage {

namespace {

constexpr uint32_t kTagBytes = 16;
constexpr uint32_t kSlotHeaderBytes = 24;
constexpr uint32_t kRecordBytes = 20;
constexpr uint32_t kSignatureBytes = 16;
constexpr const char* kSlotTags[kChainSlotCount] = {"_KOBALT_EC_IMG_", "_KOBALT_BIOSIMG", "_KOBALT_INI_IMG",
                                                    "_KOBALT_BIOSCER", "_KOBALT_BIOSCR2"};
constexpr const char* kSlotNames[kChainSlotCount] = {"EC image", "flash image", "platform.ini text", "certificate",
                                                     "second certificate"};
// The record's bytes behind its first character: "ISB" and the GUID in its mixed-endian form.
constexpr uint8_t kRecordTail[kRecordBytes - 1] = {'I',  'S',  'B',  0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3, 0xAE,
                                                   0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB, 0xB8};
constexpr uint8_t kDriverSignature[kSignatureBytes] = {'I', '#', 'E', 'F', 'I', '#', 'D', 'R',
                                                       'V', '_', '1', '.', '2', 'd', 0,   0};
// The capacities a bare chain gets: those of the driver this tree builds.
constexpr uint32_t kBareCapacities[kChainSlotCount] = {0x200000, 0x500000, 0x10000, 0x400, 0x400};

constexpr uint32_t kLauncherImageGuidOffset = 0x220;
constexpr uint32_t kLauncherDirectoryGuidOffset = 0x230;
constexpr uint32_t kLauncherTagOffset = 0x240;
constexpr uint32_t kLauncherDataOffset = 0x258;
constexpr char kLauncherTag[] = "$_KOBALT_DRV_IMG";
// EFI_LOADED_IMAGE_PROTOCOL and the function directory, in their in-memory byte order.
constexpr uint8_t kLoadedImageGuid[16] = {0xA1, 0x31, 0x1B, 0x5B, 0x62, 0x95, 0xD2, 0x11,
                                          0x8E, 0x3F, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B};
constexpr uint8_t kDirectoryGuid[16] = {0x69, 0x44, 0x0D, 0x53, 0x83, 0x56, 0xAD, 0x4E,
                                        0xAF, 0x79, 0x54, 0xD1, 0x88, 0x2B, 0x8A, 0x35};

uint32_t GetU32(const uint8_t* at) {
  return uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}

void PutU32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

std::string Hex(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(value));
  return text;
}

[[noreturn]] void Fail(const std::string& what) { throw ImageError(what); }

// A tag whose first byte is '#' (as the driver file carries it) or '$' (once marked).
bool TagAt(const std::vector<uint8_t>& file, size_t at, const char* tail) {
  return at + kTagBytes <= file.size() && (file[at] == '#' || file[at] == '$') &&
         std::memcmp(file.data() + at + 1, tail, kTagBytes - 1) == 0;
}

bool RecordAt(const std::vector<uint8_t>& file, size_t at) {
  return at + kRecordBytes <= file.size() && (file[at] == '#' || file[at] == '$') &&
         std::memcmp(file.data() + at + 1, kRecordTail, sizeof kRecordTail) == 0;
}

}  // namespace

const char* ChainSlotName(ChainSlot slot) { return kSlotNames[static_cast<int>(slot)]; }

std::optional<ChainLayout> FindDriverChain(const std::vector<uint8_t>& file) {
  for (size_t at = 0; at + kRecordBytes + kTagBytes <= file.size(); ++at) {
    if (!RecordAt(file, at) || !TagAt(file, at + kRecordBytes, kSlotTags[0])) continue;
    // The first record with the EC tag behind it is the driver's own; an image carried in the
    // BIOSIMG slot comes after it.
    ChainLayout layout;
    layout.record = static_cast<uint32_t>(at);
    size_t slot = at + kRecordBytes;
    for (int i = 0; i < kChainSlotCount; ++i) {
      if (!TagAt(file, slot, kSlotTags[i]) || slot + kSlotHeaderBytes > file.size()) {
        Fail(std::string("the slot chain at ") + Hex(at) + " breaks off: no $" + kSlotTags[i] + " tag at " + Hex(slot));
      }
      layout.slots[i] = {static_cast<uint32_t>(slot), GetU32(file.data() + slot + 16), GetU32(file.data() + slot + 20)};
      slot += kSlotHeaderBytes + static_cast<size_t>(layout.slots[i].capacity);
      if (slot > file.size()) Fail(std::string("the $") + kSlotTags[i] + " slot's capacity runs past the file's end");
    }
    if (slot + kSignatureBytes > file.size() || file[slot] != 'I' || file[slot + 2] != 'E' ||
        std::memcmp(file.data() + slot + 6, "DRV_", 4) != 0) {
      Fail("the slot chain at " + Hex(at) + " has no driver signature behind its last slot (" + Hex(slot) + ")");
    }
    layout.signature = static_cast<uint32_t>(slot);
    return layout;
  }
  return std::nullopt;
}

std::vector<uint8_t> BareDriverChain() {
  std::vector<uint8_t> out = {'#'};
  out.insert(out.end(), std::begin(kRecordTail), std::end(kRecordTail));
  for (int i = 0; i < kChainSlotCount; ++i) {
    const size_t at = out.size();
    out.resize(at + kSlotHeaderBytes + kBareCapacities[i], 0);
    out[at] = '#';
    std::memcpy(out.data() + at + 1, kSlotTags[i], kTagBytes - 1);
    PutU32(out.data() + at + 16, kBareCapacities[i]);
  }
  out.insert(out.end(), std::begin(kDriverSignature), std::end(kDriverSignature));
  return out;
}

std::vector<uint8_t> PackDriver(std::vector<uint8_t> driver, const DriverPayloads& payloads) {
  const std::optional<ChainLayout> layout = FindDriverChain(driver);
  if (!layout) Fail("the driver file has no slot chain (no $ISB record followed by the $_KOBALT_EC_IMG_ tag)");
  for (int i = 0; i < kChainSlotCount; ++i) {
    const std::optional<std::vector<uint8_t>>& payload = payloads.slots[i];
    if (!payload) continue;
    const ChainLayout::Slot& slot = layout->slots[i];
    if (payload->size() > slot.capacity) {
      Fail(std::string("the ") + kSlotNames[i] + " (" + Hex(payload->size()) + " bytes) does not fit the slot $" +
           kSlotTags[i] + " (capacity " + Hex(slot.capacity) + " bytes)");
    }
    uint8_t* data = driver.data() + slot.tag + kSlotHeaderBytes;
    // The rest of the slot is cleared, so a smaller payload leaves nothing of an older one behind.
    std::fill(data, data + slot.capacity, 0);
    std::copy(payload->begin(), payload->end(), data);
    PutU32(driver.data() + slot.tag + 20, static_cast<uint32_t>(payload->size()));
  }
  // The packed file is a complete container: its record and tags carry their '$', as the
  // launcher's search for the BIOSIMG tag and an analysis of the file expect.
  driver[layout->record] = '$';
  for (const ChainLayout::Slot& slot : layout->slots) driver[slot.tag] = '$';
  return driver;
}

std::vector<uint8_t> PackLauncher(const std::optional<std::vector<uint8_t>>& launcher, const std::vector<uint8_t>& driver) {
  if (!FindDriverChain(driver)) Fail("the file for the launcher's slot is no driver: it has no slot chain");
  std::vector<uint8_t> out;
  if (launcher) {
    out = *launcher;
    if (out.size() < kLauncherDataOffset ||
        std::memcmp(out.data() + kLauncherTagOffset, kLauncherTag, kTagBytes) != 0) {
      Fail(std::string("the launcher file has no ") + kLauncherTag + " slot at " + Hex(kLauncherTagOffset));
    }
  } else {
    // A bare head for the host, where no launcher code runs from the file.
    out.assign(kLauncherDataOffset, 0);
    std::memcpy(out.data() + kLauncherImageGuidOffset, kLoadedImageGuid, 16);
    std::memcpy(out.data() + kLauncherDirectoryGuidOffset, kDirectoryGuid, 16);
    std::memcpy(out.data() + kLauncherTagOffset, kLauncherTag, kTagBytes);
    PutU32(out.data() + kLauncherTagOffset + 16, static_cast<uint32_t>(driver.size()));
    out.resize(kLauncherDataOffset + driver.size(), 0);
  }
  const uint32_t capacity = GetU32(out.data() + kLauncherTagOffset + 16);
  if (driver.size() > capacity || kLauncherDataOffset + static_cast<uint64_t>(capacity) > out.size()) {
    Fail("the driver (" + Hex(driver.size()) + " bytes) does not fit the slot " + kLauncherTag + " (capacity " +
         Hex(capacity) + " bytes" + (kLauncherDataOffset + static_cast<uint64_t>(capacity) > out.size() ? ", past the file's end)" : ")"));
  }
  std::fill(out.begin() + kLauncherDataOffset, out.begin() + kLauncherDataOffset + capacity, 0);
  std::copy(driver.begin(), driver.end(), out.begin() + kLauncherDataOffset);
  PutU32(out.data() + kLauncherTagOffset + 20, static_cast<uint32_t>(driver.size()));
  return out;
}

CarriedInfo InspectCarried(const std::vector<uint8_t>& file) {
  CarriedInfo info;
  size_t driverStart = 0;
  std::vector<uint8_t> driver;
  if (file.size() >= kLauncherDataOffset && std::memcmp(file.data() + kLauncherTagOffset, kLauncherTag, kTagBytes) == 0) {
    info.launcher = true;
    info.launcherCapacity = GetU32(file.data() + kLauncherTagOffset + 16);
    info.launcherSize = GetU32(file.data() + kLauncherTagOffset + 20);
    if (info.launcherSize > file.size() - kLauncherDataOffset) {
      Fail("the launcher's slot claims " + Hex(info.launcherSize) + " bytes, more than the file holds behind " +
           Hex(kLauncherDataOffset));
    }
    driverStart = kLauncherDataOffset;
    driver.assign(file.begin() + kLauncherDataOffset, file.begin() + kLauncherDataOffset + info.launcherSize);
  } else {
    driver = file;
  }
  info.driverOffset = static_cast<uint32_t>(driverStart);
  const std::optional<ChainLayout> layout = FindDriverChain(driver);
  if (!layout) {
    if (!info.launcher || info.launcherSize != 0) Fail("no slot chain in the driver");
    return info;
  }
  info.chain = layout;
  for (int i = 0; i < kChainSlotCount; ++i) {
    const ChainLayout::Slot& slot = layout->slots[i];
    if (slot.size > slot.capacity) {
      Fail(std::string("the slot $") + kSlotTags[i] + " claims " + Hex(slot.size) + " bytes, more than its capacity " +
           Hex(slot.capacity));
    }
  }
  const ChainLayout::Slot& bios = layout->slots[static_cast<int>(ChainSlot::BiosImage)];
  if (bios.size != 0) {
    const auto start = driver.begin() + bios.tag + kSlotHeaderBytes;
    info.carriedImage = InspectImage(std::vector<uint8_t>(start, start + bios.size));
  }
  return info;
}

std::string FormatCarried(const CarriedInfo& info) {
  std::string text;
  char line[160];
  if (info.launcher) {
    std::snprintf(line, sizeof line, "launcher slot %s at 0x%X: capacity 0x%X, size 0x%X (driver at 0x%X)\n", kLauncherTag,
                  kLauncherTagOffset, info.launcherCapacity, info.launcherSize, kLauncherDataOffset);
    text += line;
  }
  if (!info.chain) return text + "no driver in the slot\n";
  const uint32_t base = info.driverOffset;
  std::snprintf(line, sizeof line, "slot chain at 0x%X of the driver (0x%X of the file)\n", info.chain->record,
                base + info.chain->record);
  text += line;
  for (int i = 0; i < kChainSlotCount; ++i) {
    const ChainLayout::Slot& slot = info.chain->slots[i];
    std::snprintf(line, sizeof line, "  $%-16s tag 0x%08X  data 0x%08X  capacity 0x%08X  size 0x%08X  %s\n", kSlotTags[i],
                  base + slot.tag, base + slot.tag + kSlotHeaderBytes, slot.capacity, slot.size, kSlotNames[i]);
    text += line;
  }
  std::snprintf(line, sizeof line, "  driver signature at 0x%08X\n", base + info.chain->signature);
  text += line;
  if (info.carriedImage) {
    const ImageInfo& image = *info.carriedImage;
    if (image.bvdtOffset) {
      std::snprintf(line, sizeof line, "carried image: BVDT at 0x%X, version \"%s\", model \"%s\"\n", *image.bvdtOffset,
                    image.bvdtVersion.c_str(), image.bvdtModel.c_str());
    } else {
      std::snprintf(line, sizeof line, "carried image: no BVDT\n");
    }
    text += line;
  }
  return text;
}

}  // namespace zimage
