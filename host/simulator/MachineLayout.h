// The default machine's flash layout, shared by the default description (maps) and the default
// flash content (descriptor regions, BVDT place), so that the two always agree. Nothing here
// knows about transactions or JSON.
#pragma once

#include <cstdint>

namespace sim::layout {

constexpr uint32_t kFlashSize = 16u << 20;
constexpr uint32_t kRomBase = 0u - kFlashSize;  // the part ends at 4 GB

// SPI regions, as offsets in the part.
constexpr uint32_t kDescriptorStart = 0x000000;
constexpr uint32_t kDescriptorEnd = 0x000FFF;
constexpr uint32_t kMeStart = 0x001000;
constexpr uint32_t kMeEnd = 0x7FFFFF;
constexpr uint32_t kBiosStart = 0x800000;
constexpr uint32_t kBiosEnd = 0xFFFFFF;

// Firmware regions inside the BIOS region, as physical addresses.
constexpr uint32_t kNvStorage = kRomBase + 0x800000;  // type 6, 256 KB
constexpr uint32_t kNvStorageSize = 0x40000;
constexpr uint32_t kFtwBackup = kRomBase + 0x840000;  // type 7, 256 KB
constexpr uint32_t kFtwBackupSize = 0x40000;
constexpr uint32_t kFtwState = kRomBase + 0x880000;  // type 8, 64 KB
constexpr uint32_t kFtwStateSize = 0x10000;
constexpr uint32_t kOemData = kRomBase + 0x890000;  // type 0x0A, 64 KB, holds the BVDT
constexpr uint32_t kOemDataSize = 0x10000;
constexpr uint32_t kMicrocode = kRomBase + 0x8A0000;  // type 1, 384 KB
constexpr uint32_t kMicrocodeSize = 0x60000;
constexpr uint32_t kDxe = kRomBase + 0x900000;  // type 3, 6 MB
constexpr uint32_t kDxeSize = 0x600000;
constexpr uint32_t kPei = kRomBase + 0xF00000;  // type 0, 1 MB up to 4 GB
constexpr uint32_t kPeiSize = 0x100000;

// The BVDT block lies at the start of the OEM Data region.
constexpr uint32_t kBvdtOffset = kOemData - kRomBase;
constexpr const char* kDefaultModelName = "DV-REF1000";
constexpr const char* kDefaultModelVersion = "V1.02";

}  // namespace sim::layout
