// The BVDT block: finding it in an image, taking the image's model and version texts from its
// fixed offsets, and finding the flash region that holds the running firmware's block. What the
// texts are compared with is the checks' work; writing the block last is the block writer's.
#include "image/ImageInternal.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

constexpr UINT32 kMarkerLength = 5;  // the search uses "$BVDT" of the six-byte signature
constexpr UINT32 kHeadBytes = 64;
constexpr UINT32 kVersionOffset = 0x0E;
constexpr UINT32 kVersionBytes = 24;
constexpr UINT32 kModelOffset = 0x27;
constexpr UINT32 kModelBytes = 25;
constexpr UINT32 kTextCharacters = 64;  // 128 bytes: 63 characters and the terminator
constexpr UINT8 kTypeOemData = 0x0A;

constexpr CHAR16 kFindBvdtBlock[] = u"FindBvdtBlock";
constexpr CHAR16 kTraceNotFound[] = u"BVDT table signature Not Found\r\n";
constexpr CHAR16 kLabelBvdtInfo[] = u"===== BVDT Info =====\r\n";
constexpr CHAR16 kTraceIdentity[] = u" Platform  (%s)\r\n  Version  (%s)\r\n";
constexpr CHAR16 kTraceBlockFound[] = u"BVDT found in block Address= 0x%08x Size= 0x%x\r\n";
constexpr CHAR16 kReasonWholeMap[] = u"Get whole ROM map failed";
constexpr CHAR16 kReasonAllocate[] = u"Allocate memory failed";
constexpr CHAR16 kReasonReadRom[] = u"Read ROM failed";

struct BvdtState {
  UINT8 head[kHeadBytes];
  CHAR16 model[kTextCharacters];
  CHAR16 version[kTextCharacters];
};
constinit BvdtState gBvdtInfo = {};

// Widens the text of a field that starts at offset: up to its first zero, the field's end or
// the image's end, whichever comes first. A text that fills its field has no terminator of its
// own and would run on into the next '$' field.
VOID WidenField(CHAR16* out, const UINT8* image, UINT32 size, UINT32 at, UINT32 offset, UINT32 fieldBytes) {
  ZeroMem(out, kTextCharacters * sizeof(CHAR16));
  if (offset >= size - at) {
    return;
  }
  UINT32 available = size - at - offset;
  UINT32 limit = fieldBytes < available ? fieldBytes : available;
  const UINT8* text = image + at + offset;
  for (UINT32 index = 0; index < limit && index < kTextCharacters - 1 && text[index] != 0; ++index) {
    out[index] = text[index];
  }
}

}  // namespace

Bool FindBvdtInImage(const UINT8* image, UINT32 size, UINT32* offset) {
  // Composed here: an image that carries this driver must not match its constant data.
  UINT8 marker[kMarkerLength] = {'#', 'B', 'V', 'D', 'T'};
  marker[0] = '$';
  return FindSignature(image, size, marker, kMarkerLength, offset);
}

Bool ReadImageBvdtInfo(const UINT8* image, UINT32 size) {
  // An image without the block must not go on with the identity of an earlier one.
  ZeroMem(&gBvdtInfo, sizeof(gBvdtInfo));
  UINT32 at = 0;
  if (!FindBvdtInImage(image, size, &at) || at >= size) {
    LogPrint(kLogDetail, kTraceNotFound);
    return false;
  }
  // A block near the end of the image: the copy stops there, the rest of the head stays zero.
  UINT32 available = size - at;
  CopyMem(gBvdtInfo.head, image + at, available < kHeadBytes ? available : kHeadBytes);
  HexDumpFramed(kLabelBvdtInfo, gBvdtInfo.head, kHeadBytes);
  // The '$' bytes before the fields are not tested here: the display shows what stands there.
  WidenField(gBvdtInfo.model, image, size, at, kModelOffset, kModelBytes);
  WidenField(gBvdtInfo.version, image, size, at, kVersionOffset, kVersionBytes);
  LogPrint(kLogDetail, kTraceIdentity, gBvdtInfo.model, gBvdtInfo.version);
  return true;
}

// The running firmware keeps its BVDT in an OEM Data region (type 0x0A) of the whole ROM map;
// the first such region whose content holds the marker is the one.
Bool FindBvdtBlock(UINT32* address, UINT32* size) {
  TraceScope trace(kFindBvdtBlock);
  PoolBuffer entryBlock(sizeof(RomMapEntry) * kRomMapEntries);
  if (!entryBlock) {
    return trace.Fail(kReasonAllocate);
  }
  RomMapEntry* entries = reinterpret_cast<RomMapEntry*>(entryBlock.Data());
  UINT8 count = 0;
  if (!SMI_GetWholeRomMap(entries, &count)) {
    return trace.Fail(kReasonWholeMap);
  }
  UINT32 romSize = GetRomSize();
  for (UINT32 index = 0; index < count && index < kRomMapEntries; ++index) {
    const RomMapEntry& entry = entries[index];
    // An empty region holds nothing; one larger than the part is no region of it.
    if (entry.type != kTypeOemData || entry.size == 0 || (romSize != 0 && entry.size > romSize)) {
      continue;
    }
    Bool found = false;
    {
      PoolBuffer region(entry.size);
      if (!region) {
        return trace.Fail(kReasonAllocate);
      }
      if (!SMI_ReadRom(entry.address, entry.size, region.View())) {
        return trace.Fail(kReasonReadRom);
      }
      found = FindBvdtInImage(region.Data(), entry.size, nullptr);
    }
    if (found) {
      if (address != nullptr) {
        *address = entry.address;
      }
      if (size != nullptr) {
        *size = entry.size;
      }
      LogPrint(kLogDetail, kTraceBlockFound, entry.address, entry.size);
      return true;
    }
  }
  return false;
}

const CHAR16* NewImageModel() { return gBvdtInfo.model; }

const CHAR16* NewImageVersion() { return gBvdtInfo.version; }

VOID SetNewImageModel(const CHAR16* model) { StrCopy16(gBvdtInfo.model, kTextCharacters, model != nullptr ? model : u""); }

VOID SetNewImageVersion(const CHAR16* version) {
  StrCopy16(gBvdtInfo.version, kTextCharacters, version != nullptr ? version : u"");
}

VOID ResetBvdtState() {
  gBvdtInfo = {};
}
