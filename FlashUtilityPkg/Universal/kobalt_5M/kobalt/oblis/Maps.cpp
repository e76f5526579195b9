// The ROM maps the firmware gives: the 12h private and protection lists and the 1Eh whole map,
// kept for the run, with region names and console and trace displays. Marking blocks is left to
// the marking step; an image's BVDT map and the 17h external records live in BvdtMap.cpp.
#include "config/Config.h"
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT32 kWholeRecordBytes = sizeof(OblisWholeMapRecord);
constexpr UINT8 kWholeMapEnd = 0xFF;
constexpr UINT8 kPrivateMapType = 0xFE;

struct MapState {
  UINT8* protectionBuffer;
  UINT8* privateBuffer;
  UINT32 privateCount;
  UINT32 protectionCount;
  Bool wholeFetched;
  Bool wholeResult;
  UINT8 wholeCount;
  RomMapEntry whole[kRomMapEntries];
  UINT8* wholeRecords;
};
constinit MapState gMaps = {};

const CHAR16 kReasonAllocate[] = u"Allocate memory failed";
const CHAR16 kErrorPast4Gb[] = u"\r\nError: the %s region at 0x%08x of size 0x%x runs past 4 GB.\r\n";
const CHAR16 kTracePlatformMapHead[] = u"Get Platform ROM map protection. (12h)\r\n";
const CHAR16 kTraceStructureSize[] = u"Structure size: %d\r\n";
const CHAR16 kTraceWholeHead[] =
    u"                Whole Region MAP\r\n"
    u" Type | Start Addr |  End Addr  |    Size    |   Offset   |Attrib| Description \r\n"
    u"------+------------+------------+------------+------------+------+-------------\r\n";
const CHAR16 kTraceWholeRecord[] = u"  %02xh | 0x%08x | 0x%08x | 0x%08x | 0x%08x |   %x  |%13s\n";
const CHAR16 kPrivateMapHead[] =
    u"                Private Region MAP\r\n"
    u" Type | Start Addr |  End Addr  |    Size    | Description \r\n"
    u"------+------------+------------+------------+-------------\r\n";
const CHAR16 kProtectionMapHead[] =
    u"                Protection Region MAP\r\n"
    u" Type | Start Addr |  End Addr  |    Size    | Description \r\n"
    u"------+------------+------------+------------+-------------\r\n";
const CHAR16 kMapRecordLine[] = u"  %02xh | 0x%08x | 0x%08x | 0x%08x |%13s\r\n";
const CHAR16 kMapClose[] = u"\r\n";
// Long enough for the three-line heads, which are the longest texts of a display.
constexpr UINTN kMapLineCharacters = 320;

struct WholeRegionRow {
  UINT8 type;
  const CHAR16* name;
};
// Searched from the top; the row of type 0xFF ends the list and gives the empty name.
constexpr WholeRegionRow kWholeRegionRows[] = {
    {0x00, u"PEI"},        {0x01, u"CPU Microcode"}, {0x02, u"Variable"},     {0x03, u"DXE"},
    {0x04, u"EC"},         {0x05, u"LOGO"},          {0x06, u"NV Storage"},   {0x07, u"FTW Backup"},
    {0x08, u"FTW State"},  {0x09, u"SMBIOS Log"},    {0x0A, u"OEM Data"},     {0x0B, u"GPNV"},
    {0x0C, u"DMI FRU"},    {0x0D, u"PAL-B"},         {0x0E, u"MCA Log"},      {0x0F, u"Password"},
    {0x10, u"OEM NVS"},    {0x16, u"Factory Copy"},  {0x17, u"AMD PSP Data"}, {0x18, u"AMD Boot Block"},
    {0xFE, u"Private Map"}, {0xFF, u""},
};

UINT32 CountPrivateList(const UINT8* buffer) {
  UINT32 count = 0;
  while (count < kMapRecordLimit && ReadU32(buffer + count * sizeof(OblisPrivateRecord)) != kPrivateListEnd) {
    ++count;
  }
  return count;
}

UINT32 CountProtectionList(const UINT8* buffer) {
  UINT32 count = 0;
  while (count < kMapRecordLimit && buffer[count * sizeof(OblisProtectionRecord)] != kProtectionListEnd) {
    ++count;
  }
  return count;
}

// A record that runs past 4 GB names no flash there is: such a list is not a word on this ROM
// that blocks can be protected by, and the run stops before anything is written.
Bool RecordsEndBelow4Gb(const UINT8* buffer, UINT32 count, UINT32 recordBytes, UINT32 addressAt, const CHAR16* list) {
  for (UINT32 index = 0; index < count; ++index) {
    const UINT8* record = buffer + index * recordBytes + addressAt;
    UINT32 address = ReadU32(record);
    UINT32 size = ReadU32(record + 4);
    if (size != 0 && address + (size - 1) < address) {
      Print(kErrorPast4Gb, list, address, size);
      return false;
    }
  }
  return true;
}

VOID* CopyToPool(const VOID* source, UINT32 bytes) {
  VOID* copy = AllocateZeroPool(bytes == 0 ? 1 : bytes);
  if (copy != nullptr && bytes != 0) {
    CopyMem(copy, source, bytes);
  }
  return copy;
}

VOID CopyWholeMapOut(RomMapEntry* entries, UINT8* count) {
  if (entries != nullptr) {
    CopyMem(entries, gMaps.whole, sizeof(gMaps.whole));
  }
  if (count != nullptr) {
    *count = gMaps.wholeCount;
  }
}

}  // namespace

const CHAR16* WholeRegionTypeName(UINT8 type) {
  for (const WholeRegionRow& row : kWholeRegionRows) {
    if (row.type == type || row.type == kWholeMapEnd) {
      return row.name;
    }
  }
  return u"";
}

Bool SMI_GetPlatformRomMap() {
  TraceScope trace(u"SMI_GetPlatformRomMap");
  PoolBuffer protection(kOblisAnswerBytes);
  if (!protection) {
    return trace.Fail(kReasonAllocate);
  }
  PoolBuffer privateMap(kOblisAnswerBytes);
  if (!privateMap) {
    return trace.Fail(kReasonAllocate);
  }
  if (!Oblis_12h(protection.View(), privateMap.View())) {
    return trace.Fail(u"OBLIS 12h failed");
  }
  // The 200-record limit keeps both walks inside the 0x10000 bytes held.
  static_assert(kMapRecordLimit * sizeof(OblisPrivateRecord) <= kOblisAnswerBytes, "private walk bounded");
  static_assert(kMapRecordLimit * sizeof(OblisProtectionRecord) <= kOblisAnswerBytes, "protection walk bounded");
  UINT32 privateCount = CountPrivateList(privateMap.Data());
  UINT32 protectionCount = CountProtectionList(protection.Data());
  if (!RecordsEndBelow4Gb(privateMap.Data(), privateCount, sizeof(OblisPrivateRecord), 0, u"private") ||
      !RecordsEndBelow4Gb(protection.Data(), protectionCount, sizeof(OblisProtectionRecord), 1, u"protection")) {
    return trace.Fail(u"Region past 4 GB");
  }
  gMaps.privateCount = privateCount;
  gMaps.protectionCount = protectionCount;
  // The run keeps both lists from here on.
  FreePoolAndNull(gMaps.protectionBuffer);
  FreePoolAndNull(gMaps.privateBuffer);
  gMaps.protectionBuffer = protection.Release();
  gMaps.privateBuffer = privateMap.Release();
  LogPrint(kLogDetail, kTracePlatformMapHead);
  ShowPrivateMapTrace(nullptr, gMaps.privateCount);
  ShowProtectionMapTrace(nullptr, gMaps.protectionCount);
  return true;
}

VOID GetPlatformRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                       OblisProtectionRecord** protectionList) {
  if (privateCount != nullptr) {
    *privateCount = gMaps.privateCount;
  }
  if (protectionCount != nullptr) {
    *protectionCount = gMaps.protectionCount;
  }
  if (privateList != nullptr && gMaps.privateBuffer != nullptr) {
    *privateList =
        (OblisPrivateRecord*)CopyToPool(gMaps.privateBuffer, gMaps.privateCount * sizeof(OblisPrivateRecord));
  }
  if (protectionList != nullptr && gMaps.protectionBuffer != nullptr) {
    *protectionList = (OblisProtectionRecord*)CopyToPool(gMaps.protectionBuffer,
                                                         gMaps.protectionCount * sizeof(OblisProtectionRecord));
  }
}

Bool FuncGetWholeRomMap(RomMapEntry* entries, UINT8* count) {
  TraceScope trace(u"FuncGetWholeRomMap");
  PoolBuffer whole(kWholeMapBytes);
  if (!whole) {
    return trace.Fail(kReasonAllocate);
  }
  if (!Oblis_1Eh(whole.View())) {
    return trace.Fail(u"OBLIS fail");
  }
  const UINT8* answer = whole.Data();
  LogPrint(kLogDetail, kTraceStructureSize, kWholeRecordBytes);
  LogPrint(kLogDetail, kTraceWholeHead);
  ZeroMem(gMaps.whole, sizeof(gMaps.whole));
  gMaps.wholeCount = 0;
  UINT32 romBase = GetRomBase();
  // Besides the type 0xFF end and the 200 entries, the walk ends where the bytes held end: a
  // reply of nothing but empty records then simply gives the records found so far.
  UINT32 offset = 0;
  PoolBuffer keptRecords(kRomMapEntries * kWholeRecordBytes);
  UINT8* kept = keptRecords.Data();
  for (; gMaps.wholeCount < kRomMapEntries && offset + kWholeRecordBytes <= kWholeMapBytes;
       offset += kWholeRecordBytes) {
    const UINT8* record = answer + offset;
    UINT8 type = record[0];
    UINT32 address = ReadU32(record + 1);
    UINT32 size = ReadU32(record + 5);
    UINT32 attribute = ReadU32(record + 9);
    if (address == 0 && size == 0) {
      continue;
    }
    if (type == kWholeMapEnd) {
      break;
    }
    RomMapEntry& entry = gMaps.whole[gMaps.wholeCount];
    entry.type = type;
    entry.address = address;
    entry.size = size;
    entry.end = address + size - 1;
    entry.offset = address - romBase;
    entry.attribute = attribute;
    if (kept != nullptr) {
      CopyMem(kept + gMaps.wholeCount * kWholeRecordBytes, record, kWholeRecordBytes);
    }
    ++gMaps.wholeCount;
    LogPrint(kLogDetail, kTraceWholeRecord, type, address, entry.end, size, entry.offset, attribute,
             WholeRegionTypeName(type));
  }
  FreePoolAndNull(gMaps.wholeRecords);
  // The raw records kept are the ones taken into the table, in the same order.
  if (kept != nullptr && gMaps.wholeCount != 0) {
    gMaps.wholeRecords = (UINT8*)CopyToPool(kept, gMaps.wholeCount * kWholeRecordBytes);
  }
  CopyWholeMapOut(entries, count);
  return true;
}

Bool SMI_GetWholeRomMap(RomMapEntry* entries, UINT8* count) {
  if (gMaps.wholeFetched) {
    // Function 1Eh runs once; later callers get the kept table and the first result.
    TraceScope trace(u"DataGetWholeRomMap");
    CopyWholeMapOut(entries, count);
    return gMaps.wholeResult;
  }
  TraceScope trace(u"SMI_GetWholeRomMap");
  gMaps.wholeResult = FuncGetWholeRomMap(entries, count);
  gMaps.wholeFetched = true;
  if (!gMaps.wholeResult) {
    CopyWholeMapOut(entries, count);
    return trace.Fail(u"OBLIS fail");
  }
  return true;
}

VOID GetWholeRomMapRecords(UINT32* count, UINT8** records) {
  UINT32 held = gMaps.wholeRecords != nullptr ? gMaps.wholeCount : 0;
  if (count != nullptr) {
    *count = held;
  }
  if (records != nullptr && held != 0) {
    *records = (UINT8*)CopyToPool(gMaps.wholeRecords, held * kWholeRecordBytes);
  }
}

VOID EmitMapText(Bool console, UINT8 level, const CHAR16* format, ...) {
  CHAR16 line[kMapLineCharacters];
  va_list args;
  va_start(args, format);
  FormatTextV(line, kMapLineCharacters, format, args);
  va_end(args);
  if (console) {
    Print(u"%s", line);
  } else {
    LogPrint(level, u"%s", line);
  }
}

namespace {

// The console and trace forms share their texts; only where the lines go differs.
VOID ShowPrivateMap(Bool console, const OblisPrivateRecord* list, UINT32 count) {
  const UINT8* bytes = list != nullptr ? (const UINT8*)list : gMaps.privateBuffer;
  if (list == nullptr && count > gMaps.privateCount) {
    count = gMaps.privateCount;
  }
  EmitMapText(console, kLogDetail, kPrivateMapHead);
  for (UINT32 index = 0; bytes != nullptr && index < count && index < kMapRecordLimit; ++index) {
    const UINT8* record = bytes + index * sizeof(OblisPrivateRecord);
    UINT32 start = ReadU32(record);
    UINT32 size = ReadU32(record + 4);
    EmitMapText(console, kLogDetail, kMapRecordLine, kPrivateMapType, start, start + size - 1, size,
                RegionTypeName(kPrivateMapType));
  }
  EmitMapText(console, kLogDetail, kMapClose);
}

VOID ShowProtectionMap(Bool console, const OblisProtectionRecord* list, UINT32 count) {
  const UINT8* bytes = list != nullptr ? (const UINT8*)list : gMaps.protectionBuffer;
  if (list == nullptr && count > gMaps.protectionCount) {
    count = gMaps.protectionCount;
  }
  EmitMapText(console, kLogDetail, kProtectionMapHead);
  for (UINT32 index = 0; bytes != nullptr && index < count && index < kMapRecordLimit; ++index) {
    const UINT8* record = bytes + index * sizeof(OblisProtectionRecord);
    UINT8 type = record[0];
    UINT32 start = ReadU32(record + 1);
    UINT32 size = ReadU32(record + 5);
    EmitMapText(console, kLogDetail, kMapRecordLine, type, start, start + size - 1, size, RegionTypeName(type));
  }
  EmitMapText(console, kLogDetail, kMapClose);
}

}  // namespace

VOID ShowPrivateMapTrace(const OblisPrivateRecord* list, UINT32 count) { ShowPrivateMap(false, list, count); }
VOID ShowProtectionMapTrace(const OblisProtectionRecord* list, UINT32 count) { ShowProtectionMap(false, list, count); }
VOID ShowPrivateMapConsole(const OblisPrivateRecord* list, UINT32 count) { ShowPrivateMap(true, list, count); }
VOID ShowProtectionMapConsole(const OblisProtectionRecord* list, UINT32 count) {
  ShowProtectionMap(true, list, count);
}

VOID ResetMapsState() {
  gMaps = {};
}

VOID ReleaseMapsMemory() {
  FreePoolAndNull(gMaps.protectionBuffer);
  FreePoolAndNull(gMaps.privateBuffer);
  FreePoolAndNull(gMaps.wholeRecords);
}
