// The region map an image carries behind its OBLIS signature (the BVDT map), the choice between
// it and the firmware's 12h lists, and the external (SPI region) records of function 17h with
// their names and displays. Fetching the 17h answer and selecting regions is left to the engines.
#include "config/Config.h"
#include "FileLayer.h"
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT32 kSignatureLength = 6;
constexpr UINT32 kBvdtRecordBytes = sizeof(BvdtRegionRecord);
constexpr UINT8 kBvdtListEnd = 0xFF;
constexpr UINT8 kPrivateType = 0xFE;

struct BvdtMapState {
  Bool found;
  UINT32 count;
  UINT8 type[kMapRecordLimit];
  UINT32 start[kMapRecordLimit];
  UINT32 end[kMapRecordLimit];
  UINT8 action[kMapRecordLimit];
};
constinit BvdtMapState gBvdt = {};

const CHAR16 kBvdtMapHead[] =
    u"                BVDT Protect/Private Region MAP\r\n"
    u" Type | Start Addr |  End Addr  |    Size    | Action | Description \r\n"
    u"------+------------+------------+------------+--------+-------------\r\n";
const CHAR16 kBvdtMapLine[] = u"  %02xh | 0x%08x | 0x%08x | 0x%08x |    %d   |%13s\r\n";
const CHAR16 kExternalMapHead[] =
    u"                External Region MAP\r\n"
    u" Type | Start Addr |  End Addr  |    Size    |   Offset   |Access| Description \r\n"
    u"------+------------+------------+------------+------------+------+-------------\r\n";
const CHAR16 kExternalMapLine[] = u"  %02xh | 0x%08x | 0x%08x | 0x%08x | 0x%08x |   %x  |%13s\r\n";
const CHAR16 kMapClose[] = u"\r\n";
const CHAR16 kTracePrivateRegion[] = u" Private region #%d [%08X] (%8X)\r\n";
const CHAR16 kTraceProtectRegion[] = u" Protect region #%d [%08X] (%8X)\r\n";
const CHAR16 kLabelBvdtPrivate[] = u"===== BVDT Private MAP =====\r\n";
const CHAR16 kLabelBvdtProtection[] = u"===== BVDT Protection MAP =====\r\n";
const CHAR16 kMessageLoadFailed[] = u"Error: Load file failed!\r\n";
const CHAR16 kMessageMapNotFound[] = u"Error: The region map is NOT found!\r\n";

// First place of the OBLIS signature in the image, searched byte by byte.
Bool FindOblisSignature(const UINT8* image, UINT32 size, UINT32* offset) {
  // Composed here: an image that carries this driver must not match its constant data.
  CHAR8 signature[kSignatureLength] = {'#', 'O', 'B', 'L', 'I', 'S'};
  signature[0] = '$';
  if (image == nullptr || size < kSignatureLength) {
    return false;
  }
  for (UINT32 at = 0; at <= size - kSignatureLength; ++at) {
    if (CompareMem(image + at, signature, kSignatureLength) == 0) {
      *offset = at;
      return true;
    }
  }
  return false;
}

VOID ShowBvdtMap(Bool console) {
  EmitMapText(console, kLogSettings, kBvdtMapHead);
  for (UINT32 index = 0; index < gBvdt.count; ++index) {
    UINT32 size = gBvdt.end[index] - gBvdt.start[index] + 1;
    EmitMapText(console, kLogSettings, kBvdtMapLine, gBvdt.type[index], gBvdt.start[index], gBvdt.end[index],
                size, gBvdt.action[index], RegionTypeName(gBvdt.type[index]));
  }
}

VOID ShowExternalMap(Bool console, const OblisExternalRecord* list, UINT32 count) {
  EmitMapText(console, kLogDetail, kExternalMapHead);
  const UINT8* bytes = (const UINT8*)list;
  UINT32 romBase = GetRomBase();
  for (UINT32 index = 0; bytes != nullptr && index < count; ++index) {
    const UINT8* record = bytes + index * sizeof(OblisExternalRecord);
    UINT8 type = record[0];
    UINT32 offset = ReadU32(record + 1);
    UINT32 size = ReadU32(record + 5);
    UINT8 access = record[9];
    UINT32 start = romBase + offset;
    EmitMapText(console, kLogDetail, kExternalMapLine, type, start, start + size - 1, size, offset, access,
                ExternalRegionName(type));
  }
  EmitMapText(console, kLogDetail, kMapClose);
}

}  // namespace

Bool LoadBvdtMap(const UINT8* image, UINT32 size) {
  TraceScope trace(u"LoadBvdtMap");
  // A map left from an earlier image must not stand in for this one's.
  ZeroMem(&gBvdt, sizeof(gBvdt));
  UINT32 at = 0;
  if (!FindOblisSignature(image, size, &at)) {
    return trace.Fail(u"Not found");
  }
  gBvdt.found = true;
  // The records are read only as far as the image holds whole records. The end mark is tested
  // before the empty record, so a terminator with address and size 0 still ends the list.
  for (UINT32 offset = at + kSignatureLength; gBvdt.count < kMapRecordLimit && offset <= size &&
                                              size - offset >= kBvdtRecordBytes;
       offset += kBvdtRecordBytes) {
    const UINT8* record = image + offset;
    UINT8 type = record[0];
    UINT32 address = ReadU32(record + 1);
    UINT32 length = ReadU32(record + 5);
    if (type == kBvdtListEnd) {
      break;
    }
    if (address == 0 && length == 0) {
      continue;
    }
    gBvdt.type[gBvdt.count] = type;
    gBvdt.start[gBvdt.count] = address;
    gBvdt.end[gBvdt.count] = address + length - 1;
    gBvdt.action[gBvdt.count] = record[9];
    ++gBvdt.count;
  }
  ShowBvdtMapTrace();
  return true;
}

Bool BvdtMapFound() { return gBvdt.found; }

VOID GetBvdtRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                   OblisProtectionRecord** protectionList) {
  TraceScope trace(u"GetBvdtRomMap");
  UINT32 privates = 0;
  UINT32 protections = 0;
  for (UINT32 index = 0; index < gBvdt.count; ++index) {
    UINT32 size = gBvdt.end[index] - gBvdt.start[index] + 1;
    if (gBvdt.type[index] == kPrivateType) {
      LogPrint(kLogDetail, kTracePrivateRegion, privates++, gBvdt.start[index], size);
    } else {
      LogPrint(kLogDetail, kTraceProtectRegion, protections++, gBvdt.start[index], size);
    }
  }
  // One byte at least, so that an empty list is still a list the caller can free.
  PoolBuffer privateHeld(privates * sizeof(OblisPrivateRecord) + 1);
  PoolBuffer protectionHeld(protections * sizeof(OblisProtectionRecord) + 1);
  if (!privateHeld || !protectionHeld) {
    trace.SetReason(u"Allocate memory failed");
    return;
  }
  UINT8* privateBytes = privateHeld.Data();
  UINT8* protectionBytes = protectionHeld.Data();
  UINT32 privateAt = 0;
  UINT32 protectionAt = 0;
  for (UINT32 index = 0; index < gBvdt.count; ++index) {
    UINT32 size = gBvdt.end[index] - gBvdt.start[index] + 1;
    if (gBvdt.type[index] == kPrivateType) {
      UINT8* record = privateBytes + privateAt++ * sizeof(OblisPrivateRecord);
      WriteU32(record, gBvdt.start[index]);
      WriteU32(record + 4, size);
    } else {
      UINT8* record = protectionBytes + protectionAt++ * sizeof(OblisProtectionRecord);
      record[0] = gBvdt.type[index];
      WriteU32(record + 1, gBvdt.start[index]);
      WriteU32(record + 5, size);
    }
  }
  HexDumpFramed(kLabelBvdtPrivate, privateBytes, privates * sizeof(OblisPrivateRecord));
  HexDumpFramed(kLabelBvdtProtection, protectionBytes, protections * sizeof(OblisProtectionRecord));
  if (privateCount != nullptr) {
    *privateCount = privates;
  }
  if (protectionCount != nullptr) {
    *protectionCount = protections;
  }
  // The caller frees the lists it asked for; the others go with this function.
  if (privateList != nullptr) {
    *privateList = (OblisPrivateRecord*)privateHeld.Release();
  }
  if (protectionList != nullptr) {
    *protectionList = (OblisProtectionRecord*)protectionHeld.Release();
  }
}

VOID SelectRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                  OblisProtectionRecord** protectionList) {
  if (Settings()->forceFlash.useBvdtRomMap && BvdtMapFound()) {
    GetBvdtRomMap(privateCount, privateList, protectionCount, protectionList);
  } else {
    GetPlatformRomMap(privateCount, privateList, protectionCount, protectionList);
  }
}

VOID ShowBvdtMapConsole() { ShowBvdtMap(true); }
VOID ShowBvdtMapTrace() { ShowBvdtMap(false); }

Bool ShowBvdtMapFile(const CHAR16* name) {
  TraceScope trace(u"ShowBvdtMapFile");
  UINT8* data = nullptr;
  UINT32 size = 0;
  Bool read = name != nullptr && ReadFile(name, &data, &size);
  // A failed read may still have left a block behind; it is freed all the same.
  PoolBuffer file;
  file.Adopt(data, size);
  if (!read || !file) {
    Print(kMessageLoadFailed);
    return trace.Fail(u"Load file failed");
  }
  if (!LoadBvdtMap(file.Data(), size)) {
    Print(kMessageMapNotFound);
    return trace.Fail(u"Region map not found");
  }
  ShowBvdtMapConsole();
  return true;
}

const CHAR16* ExternalRegionName(UINT8 type) {
  switch (type) {
    case 0x00:
      return u"Descriptor";
    case 0x01:
      return u"BIOS";
    case 0x02:
      return u"ME";
    case 0x03:
      return u"GBE";
    case 0x04:
      return u"Platform Data";
    case 0x20:
      return u"Ignition ME";
    default:
      return u"Undefined";
  }
}

Bool ExternalRegionFind(const OblisExternalRecord* list, UINT32 count, UINT8 type, UINT32* offset, UINT32* size,
                        UINT8* access) {
  const UINT8* bytes = (const UINT8*)list;
  for (UINT32 index = 0; bytes != nullptr && index < count; ++index) {
    const UINT8* record = bytes + index * sizeof(OblisExternalRecord);
    if (record[0] != type) {
      continue;
    }
    if (offset != nullptr) {
      *offset = ReadU32(record + 1);
    }
    if (size != nullptr) {
      *size = ReadU32(record + 5);
    }
    if (access != nullptr) {
      *access = record[9];
    }
    return true;
  }
  return false;
}

VOID ShowExternalMapConsole(const OblisExternalRecord* list, UINT32 count) { ShowExternalMap(true, list, count); }
VOID ShowExternalMapTrace(const OblisExternalRecord* list, UINT32 count) { ShowExternalMap(false, list, count); }

VOID ResetBvdtMapState() {
  gBvdt = {};
}
