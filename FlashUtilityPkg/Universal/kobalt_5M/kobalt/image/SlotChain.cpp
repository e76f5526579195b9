// The driver's own slot chain: the secure-image record, the EC, BIOSIMG, INI and certificate
// slots and the driver signature, laid out at fixed offsets, and the two steps that put '$' into
// their tags. Filling the slots is the packing step's work; reading images is AnalyzeImage's.
#include "image/ImageInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT32 kTagBytes = 16;
constexpr UINT32 kSecureImageRecordBytes = 20;
// The EC slot holds as much as the run's EC block, so any EC image the tool can write can be
// carried by a capsule run.
constexpr UINT32 kEcCapacity = 0x200000;
constexpr UINT32 kBiosImageCapacity = 0x500000;
constexpr UINT32 kIniCapacity = 0x10000;
constexpr UINT32 kCertificateCapacity = 0x400;
constexpr UINT32 kDriverSignatureBytes = 16;
constexpr UINT8 kTagMark = '$';

#pragma pack(push, 1)
struct SlotHeader {
  UINT8 tag[kTagBytes];
  UINT32 capacity;  // little-endian, like every number of the chain
  UINT32 size;
};

struct DriverSlotChainRecord {
  UINT8 secureImageRecord[kSecureImageRecordBytes];
  SlotHeader ecSlot;
  UINT8 ecData[kEcCapacity];
  SlotHeader biosImageSlot;
  UINT8 biosImageData[kBiosImageCapacity];
  SlotHeader iniSlot;
  UINT8 iniData[kIniCapacity];
  SlotHeader certificateSlot;
  UINT8 certificateData[kCertificateCapacity];
  SlotHeader certificate2Slot;
  UINT8 certificate2Data[kCertificateCapacity];
  UINT8 driverSignature[kDriverSignatureBytes];
};
#pragma pack(pop)

static_assert(sizeof(SlotHeader) == 0x18, "a slot header is 24 bytes");
static_assert(offsetof(DriverSlotChainRecord, secureImageRecord) == 0x0, "secure-image record");
static_assert(offsetof(DriverSlotChainRecord, ecSlot) == 0x14, "EC slot");
static_assert(offsetof(DriverSlotChainRecord, biosImageSlot) == 0x20002C, "BIOSIMG slot");
static_assert(offsetof(DriverSlotChainRecord, biosImageData) == 0x200044, "BIOSIMG data");
static_assert(offsetof(DriverSlotChainRecord, iniSlot) == 0x700044, "INI slot");
static_assert(offsetof(DriverSlotChainRecord, iniData) == 0x70005C, "INI data");
static_assert(offsetof(DriverSlotChainRecord, certificateSlot) == 0x71005C, "BIOSCER slot");
static_assert(offsetof(DriverSlotChainRecord, certificate2Slot) == 0x710474, "BIOSCR2 slot");
static_assert(offsetof(DriverSlotChainRecord, driverSignature) == 0x71088C, "driver signature");
static_assert(sizeof(DriverSlotChainRecord) == 0x71089C, "the chain ends behind the signature");

// No tag stands whole in the driver's data: each first byte is '#' until the moment of use, since
// a secure image contains this driver and a search must find the image's real slots instead.
constexpr char kBiosImageTagTemplate[] = "#_KOBALT_BIOSIMG";
constexpr char kIniTagTemplate[] = "#_KOBALT_INI_IMG";
constexpr char kEcTagTemplate[] = "#_KOBALT_EC_IMG_";
static_assert(sizeof(kBiosImageTagTemplate) == kTagBytes + 1 && sizeof(kIniTagTemplate) == kTagBytes + 1 &&
                  sizeof(kEcTagTemplate) == kTagBytes + 1,
              "tags are 16 characters");

constexpr CHAR16 kSignatureInfoLabel[] = u"===== Signature Info =====\r\n";

constinit DriverSlotChainRecord driverSlotChain = {
    // "#ISB" and the GUID DDA13833-C342-4EAE-B5C9-C2D7D613DBB8 in its mixed-endian form.
    {'#', 'I', 'S', 'B', 0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3, 0xAE, 0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB,
     0xB8},
    {{'#', '_', 'K', 'O', 'B', 'A', 'L', 'T', '_', 'E', 'C', '_', 'I', 'M', 'G', '_'}, kEcCapacity, 0},
    {},
    {{'#', '_', 'K', 'O', 'B', 'A', 'L', 'T', '_', 'B', 'I', 'O', 'S', 'I', 'M', 'G'}, kBiosImageCapacity, 0},
    {},
    {{'#', '_', 'K', 'O', 'B', 'A', 'L', 'T', '_', 'I', 'N', 'I', '_', 'I', 'M', 'G'}, kIniCapacity, 0},
    {},
    {{'#', '_', 'K', 'O', 'B', 'A', 'L', 'T', '_', 'B', 'I', 'O', 'S', 'C', 'E', 'R'}, kCertificateCapacity, 0},
    {},
    {{'#', '_', 'K', 'O', 'B', 'A', 'L', 'T', '_', 'B', 'I', 'O', 'S', 'C', 'R', '2'}, kCertificateCapacity, 0},
    {},
    {'I', '#', 'E', 'F', 'I', '#', 'D', 'R', 'V', '_', '1', '.', '2', 'd', 0, 0},
};

VOID PlaceTag(UINT8* tag, const char* tagTemplate) {
  CopyMem(tag, tagTemplate, kTagBytes);
  tag[0] = kTagMark;
}

}  // namespace

VOID MarkEntrySlotTags() {
  driverSlotChain.secureImageRecord[0] = kTagMark;
  driverSlotChain.certificateSlot.tag[0] = kTagMark;
  driverSlotChain.certificate2Slot.tag[0] = kTagMark;
}

VOID InitSlotTags() {
  PlaceTag(driverSlotChain.biosImageSlot.tag, kBiosImageTagTemplate);
  PlaceTag(driverSlotChain.iniSlot.tag, kIniTagTemplate);
  PlaceTag(driverSlotChain.ecSlot.tag, kEcTagTemplate);
  LogPrint(kLogDetail, u"%s", kSignatureInfoLabel);
  HexDump(driverSlotChain.biosImageSlot.tag, kTagBytes);
  HexDump(driverSlotChain.iniSlot.tag, kTagBytes);
  HexDump(driverSlotChain.ecSlot.tag, kTagBytes);
  LogPrint(kLogDetail, u"%s", kSignatureInfoLabel);
}

const UINT8* DriverSlotChain() { return reinterpret_cast<const UINT8*>(&driverSlotChain); }

Bool OwnSlotData(OwnSlot slot, ImageView* data) {
  const SlotHeader* header = nullptr;
  UINT8* start = nullptr;
  UINT32 capacity = 0;
  switch (slot) {
    case OwnSlot::Ec:
      header = &driverSlotChain.ecSlot, start = driverSlotChain.ecData, capacity = kEcCapacity;
      break;
    case OwnSlot::BiosImage:
      header = &driverSlotChain.biosImageSlot, start = driverSlotChain.biosImageData, capacity = kBiosImageCapacity;
      break;
    case OwnSlot::Ini:
      header = &driverSlotChain.iniSlot, start = driverSlotChain.iniData, capacity = kIniCapacity;
      break;
  }
  // The size field is the packing step's word; one that claims more than the slot reserves is
  // refused rather than read past the slot.
  Bool fits = header != nullptr && header->size <= capacity;
  *data = {fits ? start : nullptr, header != nullptr ? header->size : 0u};
  return fits;
}

const UINT8* OwnSlotTag(OwnSlot slot) {
  const UINT8* tag = driverSlotChain.iniSlot.tag;
  if (slot == OwnSlot::Ec) {
    tag = driverSlotChain.ecSlot.tag;
  } else if (slot == OwnSlot::BiosImage) {
    tag = driverSlotChain.biosImageSlot.tag;
  }
  return tag;
}

UINT32 OwnSlotCapacity(OwnSlot slot) {
  UINT32 capacity = kIniCapacity;
  if (slot == OwnSlot::Ec) {
    capacity = kEcCapacity;
  } else if (slot == OwnSlot::BiosImage) {
    capacity = kBiosImageCapacity;
  }
  return capacity;
}

UINT32 DriverSlotChainSize() { return (UINT32)sizeof(driverSlotChain); }

// The tags are marked in place; a fresh load has them as the file carries them.
VOID ResetSlotChainState() {
  driverSlotChain.secureImageRecord[0] = '#';
  driverSlotChain.certificateSlot.tag[0] = '#';
  driverSlotChain.certificate2Slot.tag[0] = '#';
  driverSlotChain.biosImageSlot.tag[0] = '#';
  driverSlotChain.iniSlot.tag[0] = '#';
  driverSlotChain.ecSlot.tag[0] = '#';
}
