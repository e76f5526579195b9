// What functions 10h, 11h and 1Fh say and hear: the kept platform status with the vendor number
// and the firmware's command filter record, the platform information with its policy flags, and
// the hook points. The filter record and the model name are handed to the config folder, whose
// filters and multi-image rules read them.
#include "PlatformSeams.h"
#include "config/Config.h"
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT32 kStatusBufferBytes = 0x80;
constexpr UINT32 kStatusHeadBytes = 4;
constexpr UINT32 kVendorOffset = 15;
constexpr UINT32 kFilterSignatureBytes = 8;
constexpr UINT32 kFilterHeadBytes = 12;
constexpr UINT32 kModelStringCopyBytes = 0x200;
constexpr UINT32 kHookPointBeforeDialog = 5;
constexpr UINT32 kHookPointAfterDialog = 6;

constexpr UINT32 kFadtDsdtOffset = 40;
constexpr UINT32 kAcpiHeaderBytes = 36;
constexpr UINT32 kAcpiOemIdOffset = 10;

struct PlatformState {
  UINT8 status[kPlatformStatusBytes];
  UINT16 vendorId;
  alignas(2) PlatformInfo info;
};

// The vendor number starts as the one value for which no vendor case applies.
constinit PlatformState gPlatform = {{}, kVendorNone, {}};

const CHAR16 kTraceStatusHead[] = u" Platform Status (10h)\r\n";
const CHAR16 kTraceStatusRule[] = u"------------------+-----------\r\n";
const CHAR16 kTracePermission[] = u"       Permission | %d\r\n";
const CHAR16 kTraceReturnCode[] = u"      Return Code | 0x%x\r\n";
const CHAR16 kTraceMajor[] = u"    Major version | 0x%x\r\n";
const CHAR16 kTraceMinor[] = u"    Minor version | 0x%x\r\n";
const CHAR16 kTraceAc[] = u"               AC | %d\r\n";
const CHAR16 kTraceDc[] = u"               DC | %d\r\n";
const CHAR16 kTraceBound[] = u"            Bound | %d\r\n";
const CHAR16 kTraceHelp1[] = u"           Help 1 | %d\r\n";
const CHAR16 kTraceHelp2[] = u"           Help 2 | %d\r\n";
const CHAR16 kTraceVendor[] = u"        Vendor ID | 0x%x\r\n";
const CHAR16 kTraceStructSize[] = u"      Struct size | %d\r\n";
const CHAR16 kTraceSkipCheck[] = u"       Skip Check | %d\r\n";
const CHAR16 kTraceReviseAcer[] = u"Revise vendor ID to |0x1025| Acer\r\n";
const CHAR16 kLabelFilterTable[] = u"===== 10h Filter Table =====\r\n";
const CHAR16 kTraceFilterCut[] = u" Filter table length 0x%x runs past the 10h answer, cut to 0x%x\r\n";
const CHAR16 kTraceFilterNoEntries[] = u" Filter table length 0x%x shorter than its head, no entries taken\r\n";
const CHAR16 kMessageNotSupported[] =
    u"\r\nError: Update failed!\r\nCurrent system cannot support this version of flash utility.\r\n";
const CHAR16 kLabelAcpiHeader[] = u"===== ACPI TABLE HEADER =====\r\n";
const CHAR16 kTraceDsdtNotFound[] = u"ACPI table DSDT not found.\r\n";
const CHAR16 kTraceAcerFound[] = u"acer signature found.\r\n";
const CHAR16 kTraceInfoHead[] = u" Platform Information (11h)\r\n-------------------------+-----------\r\n";
const CHAR16 kTraceModelName[] = u"              Model Name | %s\r\n";
const CHAR16 kTraceModelVersion[] = u"           Model Version | %s\r\n";
const CHAR16 kTraceInfoBlank[] = u"                         |\r\n";
const CHAR16 kTraceModelNameCheck[] = u"        Model name check | %d\r\n";
const CHAR16 kTraceModelVersionCheck[] = u"     Model version check | %d\r\n";
const CHAR16 kTraceAllowSameVersion[] = u"      Allow same version | %d\r\n";
const CHAR16 kTraceVerifyChecksum[] = u"    Verify file checksum | %d\r\n";
const CHAR16 kTraceDisableName[] = u"    Disable display name | %d\r\n";
const CHAR16 kTraceDisableVersion[] = u" Disable display version | %d\r\n";
const CHAR16 kTraceDisableComparison[] = u"      Disable comparison | %d\r\n";
const CHAR16 kTraceEnableExtended[] = u"         Enable extended | %d\r\n";
const CHAR16 kTraceAllowAlp[] = u"       Allow ALP command | %d\r\n";
const CHAR16 kTraceAllocateFailed[] = u"Allocate memory failed\r\n";
const CHAR16 kTraceHookPoint[] = u" %02d (%s)\r\n";

const CHAR16* const kHookPointNames[] = {
    u"AP Terminate", u"AP Luanch", u"Start Read ROM", u"Start Write ROM",
    u"Start Write EC", u"Before Dialog", u"After Dialog",
};
const CHAR16 kHookPointReserved[] = u"Reserved";

VOID TracePlatformStatus(const UINT8* status) {
  LogPrint(kLogDetail, kTraceStatusHead);
  LogPrint(kLogDetail, kTraceStatusRule);
  LogPrint(kLogDetail, kTracePermission, status[3]);
  LogPrint(kLogDetail, kTraceReturnCode, status[2]);
  LogPrint(kLogDetail, kTraceMajor, status[1]);
  LogPrint(kLogDetail, kTraceMinor, status[0]);
  LogPrint(kLogDetail, kTraceAc, status[4]);
  LogPrint(kLogDetail, kTraceDc, status[5]);
  LogPrint(kLogDetail, kTraceBound, status[6]);
  LogPrint(kLogDetail, kTraceHelp1, ReadU32(status + 7));
  LogPrint(kLogDetail, kTraceHelp2, ReadU32(status + 11));
  LogPrint(kLogDetail, kTraceVendor, ReadU16(status + kVendorOffset));
  LogPrint(kLogDetail, kTraceStructSize, ReadU32(status + 33));
  LogPrint(kLogDetail, kTraceSkipCheck, status[37]);
}

// Keeps the firmware's command filter record if the answer holds one. Only the bytes held are
// known, and the filter grants options: a record that claims to run past them is cut to what is
// held, and one whose head is malformed is kept with no entries, so that a damaged record can
// only refuse more, never lift the firmware's restrictions.
VOID KeepFilterRecord(const UINT8* answer) {
  CHAR8 key[kFilterSignatureBytes] = {'#', 'C', 'M', 'D', 'F', 'I', 'L', 'T'};
  key[0] = '$';
  for (UINT32 offset = 0; offset + kFilterSignatureBytes <= kStatusBufferBytes; ++offset) {
    if (CompareMem(answer + offset, key, kFilterSignatureBytes) != 0) {
      continue;
    }
    UINT32 held = kStatusBufferBytes - offset;
    UINT32 claimed = held >= kFilterHeadBytes ? ReadU32(answer + offset + kFilterSignatureBytes) : 0;
    UINT32 length = claimed;
    if (claimed < kFilterHeadBytes) {
      length = kFilterHeadBytes;
      LogPrint(kLogDetail, kTraceFilterNoEntries, claimed);
    } else if (claimed > held) {
      length = held;
      LogPrint(kLogDetail, kTraceFilterCut, claimed, held);
    }
    UINT8* record = (UINT8*)AllocateZeroPool(length);
    if (record == nullptr) {
      return;
    }
    CopyMem(record, answer + offset, length < held ? length : held);
    WriteU32(record + kFilterSignatureBytes, length);
    HexDumpFramed(kLabelFilterTable, record, length);
    KeepFirmwareFilter(record, length);
    return;
  }
  // The answer is the firmware's word as it stands: without a record there is no filter, whatever
  // an earlier answer held.
  KeepFirmwareFilter(nullptr, 0);
}

// Copies bytes of the 11h answer into a zeroed 16-bit string field, as the firmware laid them.
VOID TakeModelString(CHAR16* field, const UINT8* source, UINT32 bytes) {
  UINT8* target = (UINT8*)field;
  for (UINT32 index = 0; index < bytes; ++index) {
    target[index] = source[index];
  }
}

}  // namespace

Bool SMI_IsSupport() {
  TraceScope trace(u"SMI_IsSupport");
  PoolBuffer status(kStatusBufferBytes);
  if (!status) {
    return trace.Fail(u"Allocate memory failed");
  }
  if (!Oblis_10h(status.View())) {
    return trace.Fail(u"OBLIS 10h failed");
  }
  UINT8* answer = status.Data();
  TracePlatformStatus(answer);
  if (ReadU16(answer + kVendorOffset) == kVendorNone && IsAcerPlatform()) {
    WriteU16(answer + kVendorOffset, kVendorAcer);
    LogPrint(kLogDetail, kTraceReviseAcer);
  }
  CopyMem(gPlatform.status, answer, kPlatformStatusBytes);
  gPlatform.vendorId = ReadU16(answer + kVendorOffset);
  KeepFilterRecord(answer);
  if (answer[3] == 1) {
    return true;
  }
  Print(kMessageNotSupported);
  return trace.Fail(u"Not support OBLIS");
}

VOID GetPlatformStatus(UINT8* record) {
  if (record != nullptr) {
    CopyMem(record, gPlatform.status, kPlatformStatusBytes);
  }
}

Bool IsVendor(UINT16 id) { return gPlatform.vendorId == id; }
UINT8 GetAcStatus() { return gPlatform.status[4]; }
UINT8 GetDcStatus() { return gPlatform.status[5]; }

Bool IsAcerPlatform() {
  TraceScope trace(u"IsAcerPlatform");
  UINT32 fadt = 0;
  if (!GetFacpTableAddress(&fadt) || fadt == 0) {
    return trace.Fail(u"FADT not found");
  }
  UINT32 dsdt = 0;
  UINT8 header[kAcpiHeaderBytes];
  ZeroMem(header, sizeof(header));
  if (ReadPhysicalU32(fadt + kFadtDsdtOffset, &dsdt) && dsdt != 0) {
    if (!ReadPhysicalMemory(dsdt, header, sizeof(header))) {
      ZeroMem(header, sizeof(header));
    }
  }
  HexDumpFramed(kLabelAcpiHeader, header, sizeof(header));
  if (CompareMem(header, "DSDT", 4) != 0) {
    LogPrint(kLogDetail, kTraceDsdtNotFound);
    return trace.Fail(u"Not acer platform");
  }
  if (CompareMem(header + kAcpiOemIdOffset, "ACRSYS", 6) == 0) {
    LogPrint(kLogDetail, kTraceAcerFound);
    return true;
  }
  return trace.Fail(u"Not acer platform");
}

Bool FuncOblis_11h() {
  TraceScope trace(u"FuncOblis_11h");
  PoolBuffer answer(kOblisAnswerBytes);
  if (!answer) {
    // The close names no reason: the line above has said it.
    LogPrint(kLogDetail, kTraceAllocateFailed);
    return false;
  }
  PlatformInfo& info = gPlatform.info;
  ZeroMem(&info, sizeof(info));
  KeepModelName(info.modelName);
  UINT8 ah = 0;
  UINT32 ecx = 0;
  if (!Oblis_11h(answer.View(), &ah, &ecx)) {
    return trace.Fail(u"OBLIS 11h failed");
  }
  TakeModelString(info.modelName, answer.Data() + kModelNameOffset, kModelNameBytes);
  TakeModelString(info.modelVersion, answer.Data() + kModelVersionOffset, kModelVersionBytes);
  KeepModelName(info.modelName);
  info.modelNameCheck = (ah & 0x01) != 0;
  info.modelVersionCheck = (ah & 0x02) != 0;
  info.allowSameVersion = (ah & 0x04) != 0;
  info.verifyFileChecksum = (ah & 0x08) != 0;
  info.disableDisplayName = (ah & 0x10) != 0;
  info.disableDisplayVersion = (ah & 0x20) != 0;
  info.disableComparison = (ah & 0x40) != 0;
  info.enableExtended = (ah & 0x80) != 0;
  info.allowAlpCommand = info.enableExtended && (ecx & 0x01) != 0;

  LogPrint(kLogDetail, kTraceInfoHead);
  LogPrint(kLogDetail, kTraceModelName, (const CHAR16*)info.modelName);
  LogPrint(kLogDetail, kTraceModelVersion, (const CHAR16*)info.modelVersion);
  LogPrint(kLogDetail, kTraceInfoBlank);
  LogPrint(kLogDetail, kTraceModelNameCheck, info.modelNameCheck);
  LogPrint(kLogDetail, kTraceModelVersionCheck, info.modelVersionCheck);
  LogPrint(kLogDetail, kTraceAllowSameVersion, info.allowSameVersion);
  LogPrint(kLogDetail, kTraceVerifyChecksum, info.verifyFileChecksum);
  LogPrint(kLogDetail, kTraceDisableName, info.disableDisplayName);
  LogPrint(kLogDetail, kTraceDisableVersion, info.disableDisplayVersion);
  LogPrint(kLogDetail, kTraceDisableComparison, info.disableComparison);
  LogPrint(kLogDetail, kTraceEnableExtended, info.enableExtended);
  LogPrint(kLogDetail, kTraceInfoBlank);
  LogPrint(kLogDetail, kTraceAllowAlp, info.allowAlpCommand);
  return true;
}

VOID GetPlatformInfo(PlatformInfo* record) {
  if (record != nullptr) {
    CopyMem(record, &gPlatform.info, sizeof(PlatformInfo));
  }
}

VOID GetModelStrings(CHAR16** name, CHAR16** version) {
  if (name != nullptr) {
    CHAR16* copy = (CHAR16*)AllocateZeroPool(kModelStringCopyBytes);
    if (copy != nullptr) {
      CopyMem(copy, gPlatform.info.modelName, kModelStringCopyBytes);
      *name = copy;
    }
  }
  if (version != nullptr) {
    CHAR16* copy = (CHAR16*)AllocateZeroPool(kModelStringCopyBytes);
    if (copy != nullptr) {
      CopyMem(copy, gPlatform.info.modelVersion, kModelStringCopyBytes);
      *version = copy;
    }
  }
}

Bool AllowAlpCommand() { return gPlatform.info.allowAlpCommand; }
Bool DisableComparison() { return gPlatform.info.disableComparison; }

Bool EFIAPI SMI_ApHookPoint(UINT32 point) {
  TraceScope trace(u"SMI_ApHookPoint");
  const UINT32 known = sizeof(kHookPointNames) / sizeof(kHookPointNames[0]);
  const CHAR16* pointName = point < known ? kHookPointNames[point] : kHookPointReserved;
  LogPrint(kLogDetail, kTraceHookPoint, point, pointName);
  if (!Oblis_1Fh(point)) {
    return trace.Fail(u"OBLIS Fail");
  }
  return true;
}

CHAR16 DialogKey() {
  SMI_ApHookPoint(kHookPointBeforeDialog);
  CHAR16 key = WaitKey();
  SMI_ApHookPoint(kHookPointAfterDialog);
  return key;
}

VOID ResetPlatformStatusState() {
  gPlatform = {{}, kVendorNone, {}};
}

