// Turns the ROM maps, the options and the settings into the one protected flag per block that
// the writers obey (SetRsvd_13h), and reopens or closes whole region types of the 1Eh map. The
// marks of the SPI region selection are left to that step; the table itself to BlockTable.cpp.
#include "config/Config.h"
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT8 kTypeNvStorage = 0x06;
constexpr UINT8 kTypeFactoryCopy = 0x16;
constexpr UINT32 kWholeRecordBytes = sizeof(OblisWholeMapRecord);

const CHAR16 kTraceAlp[] = u"ALP |enable|\r\n";
const CHAR16 kTraceAll[] = u" |all=1|\r\n";
const CHAR16 kTracePrivateRegion[] = u"Protect private region (%08X ~ %08X)\r\n";
const CHAR16 kTraceProtectionHead[] = u" Protection Region Map\r\n----------+-----+----------\r\n";
const CHAR16 kTraceSkip[] = u"   Skip   | %02xh | %s\r\n";
const CHAR16 kTraceReserved[] = u" Reserved | %02xh | %s\r\n";
const CHAR16 kTraceUpdateNv[] = u"update region NV |enable|\r\n";

// A type named by a force option (typeFlags) or by a [ForceFlash] key (forceTypes) is not reserved.
Bool TypeForced(UINT8 type) {
  if (type >= kTypeFlagCount || type >= kForceTypeCount) {
    return false;
  }
  return Flags()->typeFlags[type] || Settings()->forceFlash.forceTypes[type];
}

}  // namespace

VOID MarkRegionType(UINT8 type, UINT8 flag) {
  UINT32 count = 0;
  UINT8* records = nullptr;
  GetWholeRomMapRecords(&count, &records);
  for (UINT32 index = 0; records != nullptr && index < count; ++index) {
    const UINT8* record = records + index * kWholeRecordBytes;
    UINT32 size = ReadU32(record + 5);
    if (record[0] != type || size == 0) {
      continue;
    }
    UINT32 address = ReadU32(record + 1);
    MarkBlocks(address, RegionEnd(address, size), flag);
  }
  FreePoolAndNull(records);
}

VOID SetRsvd_13h(SecureBootQuery secureBootSupport) {
  TraceScope trace(u"SetRsvd_13h");
  const CommandFlags* flags = Flags();
  const FlashSettings* settings = Settings();
  Bool secureBoot = secureBootSupport != nullptr && secureBootSupport();

  UINT32 privateCount = 0;
  UINT32 protectionCount = 0;
  OblisPrivateRecord* privateList = nullptr;
  OblisProtectionRecord* protectionList = nullptr;
  SelectRomMap(&privateCount, &privateList, &protectionCount, &protectionList);
  // Without the list in hand there is nothing to read, whatever the count says.
  if (privateList == nullptr) {
    privateCount = 0;
  }
  if (protectionList == nullptr) {
    protectionCount = 0;
  }
  if (privateCount > kMapRecordLimit) {
    privateCount = kMapRecordLimit;
  }
  if (protectionCount > kMapRecordLimit) {
    protectionCount = kMapRecordLimit;
  }
  ShowPrivateMapTrace(privateList, privateCount);
  ShowProtectionMapTrace(protectionList, protectionCount);

  if (AllowAlpCommand() && (flags->alp || settings->forceFlash.alp)) {
    privateCount = 0;
    protectionCount = 0;
    LogPrint(kLogDetail, kTraceAlp);
  }
  // -all opens the protection regions only: the private regions stay closed.
  if (flags->all || settings->forceFlash.all) {
    protectionCount = 0;
    LogPrint(kLogDetail, kTraceAll);
  }

  const UINT8* privateBytes = (const UINT8*)privateList;
  for (UINT32 index = 0; index < privateCount; ++index) {
    const UINT8* record = privateBytes + index * sizeof(OblisPrivateRecord);
    UINT32 start = ReadU32(record);
    UINT32 size = ReadU32(record + 4);
    UINT32 end = RegionEnd(start, size);
    LogPrint(kLogDetail, kTracePrivateRegion, start, end);
    if (size != 0) {
      MarkBlocks(start, end, 1);
    }
  }

  LogPrint(kLogDetail, kTraceProtectionHead);
  const UINT8* protectionBytes = (const UINT8*)protectionList;
  for (UINT32 index = 0; index < protectionCount; ++index) {
    const UINT8* record = protectionBytes + index * sizeof(OblisProtectionRecord);
    UINT8 type = record[0];
    UINT32 start = ReadU32(record + 1);
    UINT32 size = ReadU32(record + 5);
    if (TypeForced(type)) {
      LogPrint(kLogDetail, kTraceSkip, type, RegionTypeName(type));
      continue;
    }
    LogPrint(kLogDetail, kTraceReserved, type, RegionTypeName(type));
    if (size != 0) {
      MarkBlocks(start, RegionEnd(start, size), 1);
    }
  }

  // These two run last, over the 1Eh map: they may reopen what the lists closed and close what
  // -all or -alp left open.
  if (flags->unvs || settings->securityFlashFactoryUpdate.updateNvStorage) {
    LogPrint(kLogDetail, kTraceUpdateNv);
    MarkRegionType(kTypeNvStorage, 0);
  } else if (secureBoot) {
    MarkRegionType(kTypeNvStorage, 1);
  }
  if (flags->ufc || settings->securityFlashFactoryUpdate.updateFactoryCopy) {
    MarkRegionType(kTypeFactoryCopy, 0);
  }
  FreePoolAndNull(privateList);
  FreePoolAndNull(protectionList);
}
