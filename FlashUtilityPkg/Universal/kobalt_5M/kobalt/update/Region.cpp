// Region selection: which SPI regions the user chose (RegionFlags), where they lie on the flash
// (the external map of function 17h), whether a region image fits and where it goes, closing the
// regions that are not chosen, and the ME lock. Marking blocks is the block table's work.
#include "config/Config.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

constexpr UINT8 kTypeDescriptor = 0x00;
constexpr UINT8 kTypeBios = 0x01;
constexpr UINT8 kTypeMe = 0x02;
constexpr UINT8 kTypeGbe = 0x03;
constexpr UINT8 kTypePlatformData = 0x04;
constexpr UINT8 kTypeIgnitionMe = 0x20;
constexpr UINT8 kExternalListEnd = 0xFF;
constexpr UINT32 kSlotCount = 6;
constexpr UINT32 kSlotBytes = 9;
constexpr UINT32 kSlotBlockBytes = kSlotCount * kSlotBytes;
constexpr UINT8 kFlagClosed = 1;

// The slot order of the fixed block.
constexpr UINT8 kSlotTypes[kSlotCount] = {kTypeDescriptor, kTypeBios, kTypeMe, kTypeGbe, kTypePlatformData,
                                          kTypeIgnitionMe};

// The order in which the size check and the closing walk the regions.
struct RegionBit {
  UINT8 bit;
  UINT8 type;
};
constexpr RegionBit kCheckOrder[] = {{kRegionDescriptor, kTypeDescriptor},
                                     {kRegionBios, kTypeBios},
                                     {kRegionMe, kTypeMe},
                                     {kRegionGbe, kTypeGbe},
                                     {kRegionPlatformData, kTypePlatformData}};
// The order in which a region image finds its place.
constexpr RegionBit kPlaceOrder[] = {{kRegionDescriptor, kTypeDescriptor},
                                     {kRegionGbe, kTypeGbe},
                                     {kRegionBios, kTypeBios},
                                     {kRegionMe, kTypeMe},
                                     {kRegionPlatformData, kTypePlatformData}};

constexpr CHAR16 kTraceSetStatus[] =
    u" SetStatus_region()\r\n----+--------\r\n %d   BIOS\r\n %d   GbE\r\n %d   ME\r\n %d   DESC\r\n %d   PlatformData\r\n";
constexpr CHAR16 kTraceCurrent[] = u"(Current)\r\n";
constexpr CHAR16 kTraceNew[] = u"(New)\r\n";
constexpr CHAR16 kTraceCheckSize[] = u"|check| Region FD size(0x%x)\r\n";
constexpr CHAR16 kWarningSizeMismatch[] = u"Warning:\r\nthe new region %s (%8xh) not match with current (%8xh)\r\n\r\n";
constexpr CHAR16 kWarningOutsideRom[] =
    u"Warning:\r\nthe current region %s (offset %8xh, size %8xh) lies outside the ROM (%8xh)\r\n\r\n";
constexpr CHAR16 kWarningOverlap[] = u"Warning:\r\nthe current regions %s and %s overlap\r\n\r\n";
constexpr CHAR16 kWarningNoRegion[] = u"Warning:\r\nthe current map has no region %s\r\n\r\n";
constexpr CHAR16 kTraceSizeMatch[] = u"region size |match| %s\r\n";
constexpr CHAR16 kTraceDescPlace[] = u" Desc Region: Offset (0x%x) Size (0x%x)\r\n";
constexpr CHAR16 kTraceGbePlace[] = u" GbE Region: Offset (0x%x) Size (0x%x)\r\n";
constexpr CHAR16 kTraceBiosPlace[] = u" BIOS Region: Offset (0x%x) Size (0x%x)\r\n";
constexpr CHAR16 kTraceMePlace[] = u" ME Region: Offset (0x%x) Size (0x%x)\r\n";
constexpr CHAR16 kTracePlaceRefused[] = u"Region image not placed: 0x%x bytes at 0x%x pass the ROM end\r\n";
constexpr CHAR16 kTraceSetRsvd17h[] = u"Set Rsvd 17h |enable| (0x%x)\r\n";
constexpr CHAR16 kGetExternalMaps[] = u"GetExternalMaps";
constexpr CHAR16 kReasonAllocate[] = u"Allocate memory failed";
constexpr CHAR16 kReasonOblis17h[] = u"OBLIS 17h failed";

struct ExternalList {
  const OblisExternalRecord* records;  // into the kept answer
  UINT32 count;
  UINT8 slots[kSlotBlockBytes];
};

struct RegionState {
  UINT8 flags;
  Bool skipMeRegion;
  UINT8* answer;  // the 17h answer the lists point into, kept for the run
  ExternalList current;
  ExternalList next;
};
constinit RegionState gRegion = {};

// Counts the records of one list (at most 5, ending at type 0xFF), fills its slots and shows it.
VOID ReadExternalList(const UINT8* bytes, ExternalList* list) {
  ZeroMem(list, sizeof(*list));
  UINT32 count = 0;
  while (count < kExternalListLimit && bytes[count * sizeof(OblisExternalRecord)] != kExternalListEnd) {
    ++count;
  }
  if (count == 0) {
    return;
  }
  list->records = (const OblisExternalRecord*)bytes;
  for (UINT32 slot = 0; slot < kSlotCount; ++slot) {
    UINT32 offset = 0;
    UINT32 size = 0;
    UINT8 access = 0;
    if (ExternalRegionFind(list->records, count, kSlotTypes[slot], &offset, &size, &access)) {
      UINT8* at = list->slots + slot * kSlotBytes;
      WriteU32(at, offset);
      WriteU32(at + 4, size);
      at[8] = access;
    }
  }
  ShowExternalMapTrace(list->records, count);
  list->count = count;
}

// The current list's ME region: type 2, else the Ignition ME of type 0x20.
Bool FindCurrentMe(UINT8* type, UINT32* offset, UINT32* size) {
  UINT8 access = 0;
  if (FindCurrentRegion(kTypeMe, offset, size, &access)) {
    *type = kTypeMe;
    return true;
  }
  if (FindCurrentRegion(kTypeIgnitionMe, offset, size, &access)) {
    *type = kTypeIgnitionMe;
    return true;
  }
  return false;
}

// Where the current list puts a region of the selection; the ME bit falls back to the Ignition
// ME. type comes back as the type looked for, or the one found.
Bool FindSelectedRegion(const RegionBit& region, UINT8* type, UINT32* offset, UINT32* size) {
  *type = region.type;
  if (region.bit == kRegionMe) {
    return FindCurrentMe(type, offset, size);
  }
  UINT8 access = 0;
  return FindCurrentRegion(region.type, offset, size, &access);
}

// What lies in no region of the current list is closed as well: a selection opens only what the
// firmware's map names, never a stretch that it is silent about.
VOID CloseUnnamedRanges() {
  const ExternalList& list = gRegion.current;
  UINT64 romSize = GetRomSize();
  UINT64 at = 0;
  while (at < romSize) {
    UINT64 next = romSize;
    Bool inside = false;
    for (UINT32 i = 0; i < list.count && !inside; ++i) {
      UINT64 start = list.records[i].offset;
      UINT64 end = start + list.records[i].size;
      if (start <= at && at < end) {
        at = end;
        inside = true;
      } else if (start > at && start < next) {
        next = start;
      }
    }
    if (!inside) {
      MarkBlocks(GetRomBase() + (UINT32)at, GetRomBase() + (UINT32)(next - 1), kFlagClosed);
      at = next;
    }
  }
}

}  // namespace

VOID SetStatus_region() {
  const CommandFlags* flags = Flags();
  const FlashSettings* settings = Settings();
  UINT8 region = 0;
  if (flags->bios || settings->region.bios) {
    region |= kRegionBios;
  }
  if (flags->gbe || settings->region.gbe) {
    region |= kRegionGbe;
  }
  if (flags->me || settings->region.me) {
    region |= kRegionMe;
  }
  if (flags->desc || settings->region.desc) {
    region |= kRegionDescriptor;
  }
  if (flags->pdr || settings->region.platformData) {
    region |= kRegionPlatformData;
  }
  gRegion.flags = region;
  LogPrint(kLogDetail, kTraceSetStatus, (region & kRegionBios) != 0, (region & kRegionGbe) != 0,
           (region & kRegionMe) != 0, (region & kRegionDescriptor) != 0, (region & kRegionPlatformData) != 0);
}

UINT8 GetRegionFlags() { return gRegion.flags; }

VOID ClearMeRegionFlag() { gRegion.flags &= (UINT8)~kRegionMe; }

Bool GetExternalMaps(const UINT8* image, UINT32 length) {
  TraceScope trace(kGetExternalMaps);
  PoolBuffer in(kExternalMapBytes);
  PoolBuffer out(kExternalMapBytes);
  if (!in || !out) {
    return trace.Fail(kReasonAllocate);
  }
  // The firmware reads the new image's map from its head; a shorter image leaves zeros behind.
  if (image != nullptr) {
    CopyMem(in.Data(), image, length < kExternalMapBytes ? length : kExternalMapBytes);
  }
  if (!Oblis_17h(in.Data(), out.View())) {
    return trace.Fail(kReasonOblis17h);
  }
  // The lists of an earlier answer give way only to a good new one.
  FreePoolAndNull(gRegion.answer);
  gRegion.answer = out.Release();
  LogPrint(kLogDetail, kTraceCurrent);
  ReadExternalList(gRegion.answer, &gRegion.current);
  LogPrint(kLogDetail, kTraceNew);
  ReadExternalList(gRegion.answer + kExternalNewListOffset, &gRegion.next);
  return true;
}

VOID GetCurrentRegionSlots(UINT8* slots) {
  if (slots != nullptr) {
    CopyMem(slots, gRegion.current.slots, kSlotBlockBytes);
  }
}

VOID GetCurrentExternalList(const OblisExternalRecord** list, UINT32* count) {
  if (list != nullptr) {
    *list = gRegion.current.records;
  }
  if (count != nullptr) {
    *count = gRegion.current.count;
  }
}

// The out-record is written only when the region is there.
Bool FindCurrentRegion(UINT8 type, UINT32* offset, UINT32* size, UINT8* access) {
  UINT32 foundOffset = 0;
  UINT32 foundSize = 0;
  UINT8 foundAccess = 0;
  if (gRegion.current.records == nullptr ||
      !ExternalRegionFind(gRegion.current.records, gRegion.current.count, type, &foundOffset, &foundSize,
                          &foundAccess)) {
    return false;
  }
  if (offset != nullptr) {
    *offset = foundOffset;
  }
  if (size != nullptr) {
    *size = foundSize;
  }
  if (access != nullptr) {
    *access = foundAccess;
  }
  return true;
}

// size is the image without its EC part. Every selected region but ME must have exactly that
// size; an ME file may be smaller than a region of type 2. An Ignition ME region (type 0x20, on
// platforms without type 2) must be matched exactly: the rest of a shorter file's region would
// be written with zeros, and nothing says such a region tolerates that. A selected region must
// also lie inside the ROM, since the image is laid into a buffer of the ROM's size.
Bool CheckRegionSize(UINT32 size) {
  UINT8 flags = gRegion.flags;
  LogPrint(kLogDetail, kTraceCheckSize, flags);
  UINT32 romSize = GetRomSize();
  for (const RegionBit& region : kCheckOrder) {
    if ((flags & region.bit) == 0) {
      continue;
    }
    UINT8 type = 0;
    UINT32 offset = 0;
    UINT32 regionSize = 0;
    Bool present = FindSelectedRegion(region, &type, &offset, &regionSize);
    if (!present) {
      offset = 0;
      regionSize = 0;
    }
    // A missing region counts as size 0, and an empty file is no region image at all.
    Bool fits = region.bit == kRegionMe && type == kTypeMe ? size <= regionSize : size == regionSize;
    if (!fits || size == 0) {
      Print(kWarningSizeMismatch, ExternalRegionName(type), size, regionSize);
      return false;
    }
    if (offset > romSize || regionSize > romSize - offset) {
      Print(kWarningOutsideRom, ExternalRegionName(type), offset, regionSize, romSize);
      return false;
    }
    LogPrint(kLogDetail, kTraceSizeMatch, ExternalRegionName(type));
  }
  return true;
}

// A selection leans on the firmware's map: a region of it that lies outside the ROM or over
// another would place the image or close blocks in the wrong place, and a whole image with a
// selected region that the map lacks would have nothing to open.
Bool CheckCurrentRegions(Bool wholeImage) {
  const ExternalList& list = gRegion.current;
  UINT32 romSize = GetRomSize();
  for (UINT32 i = 0; i < list.count; ++i) {
    const OblisExternalRecord region = list.records[i];
    if (region.size == 0) {
      continue;
    }
    if (region.offset > romSize || region.size > romSize - region.offset) {
      Print(kWarningOutsideRom, ExternalRegionName(region.type), region.offset, region.size, romSize);
      return false;
    }
    for (UINT32 j = 0; j < i; ++j) {
      const OblisExternalRecord other = list.records[j];
      if (other.size != 0 && region.offset < other.offset + other.size && other.offset < region.offset + region.size) {
        Print(kWarningOverlap, ExternalRegionName(other.type), ExternalRegionName(region.type));
        return false;
      }
    }
  }
  for (const RegionBit& region : kCheckOrder) {
    UINT8 type = 0;
    UINT32 offset = 0;
    UINT32 size = 0;
    Bool needed = wholeImage && (gRegion.flags & region.bit) != 0;
    if (needed && (!FindSelectedRegion(region, &type, &offset, &size) || size == 0)) {
      Print(kWarningNoRegion, ExternalRegionName(type));
      return false;
    }
  }
  return true;
}

// Only the first selected region in this order takes the data, also when more bits are set.
VOID PlaceRegionImage(UINT8* buffer, const UINT8* image, UINT32 size) {
  if (buffer == nullptr || image == nullptr) {
    return;
  }
  for (const RegionBit& region : kPlaceOrder) {
    if ((gRegion.flags & region.bit) == 0) {
      continue;
    }
    UINT8 type = 0;
    UINT32 offset = 0;
    UINT32 regionSize = 0;
    Bool present = FindSelectedRegion(region, &type, &offset, &regionSize);
    if (!present) {
      return;
    }
    switch (region.bit) {
      case kRegionDescriptor:
        LogPrint(kLogDetail, kTraceDescPlace, offset, regionSize);
        break;
      case kRegionGbe:
        LogPrint(kLogDetail, kTraceGbePlace, offset, regionSize);
        break;
      case kRegionBios:
        LogPrint(kLogDetail, kTraceBiosPlace, offset, regionSize);
        break;
      case kRegionMe:
        LogPrint(kLogDetail, kTraceMePlace, offset, regionSize);
        break;
      default:
        break;
    }
    // The update buffer holds the ROM's size; the size check has refused such a region already.
    UINT32 romSize = GetRomSize();
    if (offset > romSize || size > romSize - offset) {
      LogPrint(kLogDetail, kTracePlaceRefused, size, offset);
      return;
    }
    CopyMem(buffer + offset, image, size);
    return;
  }
}

// Closes every region that is not selected, and ME also when the update decided to leave it.
VOID SetRsvd_17h() {
  UINT8 flags = gRegion.flags;
  LogPrint(kLogDetail, kTraceSetRsvd17h, flags);
  UINT32 romBase = GetRomBase();
  for (const RegionBit& region : kCheckOrder) {
    Bool close = (flags & region.bit) == 0 || (region.bit == kRegionMe && gRegion.skipMeRegion);
    if (!close) {
      continue;
    }
    UINT8 type = 0;
    UINT32 offset = 0;
    UINT32 size = 0;
    Bool present = FindSelectedRegion(region, &type, &offset, &size);
    if (!present || size == 0) {
      continue;
    }
    UINT32 start = romBase + offset;
    MarkBlocks(start, RegionEnd(start, size), kFlagClosed);
  }
  CloseUnnamedRanges();
}

VOID SetSkipMeRegion() { gRegion.skipMeRegion = true; }

Bool IsSkipMeRegion() { return gRegion.skipMeRegion; }

VOID ResetRegionState() {
  gRegion = {};
}

VOID ReleaseRegionMemory() { FreePoolAndNull(gRegion.answer); }
