// The OEM secure road and RBU images. An RBU image wraps the flash data in a header (and, for
// server machines, a server block) with two CRC checksums at its end; it is checked on every run.
// A firmware that offers function 4Ch takes the whole file in two calls, verify and flash; one
// without it, or one that says "use the ordinary way", gets the wrapped flash data through the
// block writer.
#include "checks/Checks.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "PlatformSeams.h"
#include "update/UpdateInternal.h"

namespace {

constexpr UINT8 kRbuSignature[] = {'$', 'R', 'B', 'U'};
constexpr UINT8 kServerSignature[] = {'$', 'B', 'I', 'S'};
constexpr UINT32 kHeaderLengthOffset = 4;
constexpr UINT32 kHeaderMinimum = 5;
constexpr UINT32 kServerLengthOffset = 4;
constexpr UINT32 kServerMinimum = 6;
constexpr UINT32 kChecksumBytes = 8;
constexpr UINT32 kServerDataUnit = 0x80000;
constexpr UINT32 kRbuInfoDumpBytes = 0x54;
constexpr UINT32 kServerInfoDumpBytes = 0x1C;
constexpr UINT32 kCrcPolynomial = 0xEDB88320;  // IEEE 802.3, reflected
constexpr UINT8 kVerifyOnly = 1;
constexpr UINT8 kVerifyAndFlash = 0;
constexpr UINT32 kVerifiedBit = 1u << 8;
constexpr UINT32 kOrdinaryWayBit = 1u << 9;
constexpr UINT32 kFinishedWellBit = 1u << 10;
constexpr UINT8 kOdmActionEnd = 2;
constexpr UINT8 kOdmStatusGood = 1;
constexpr UINT8 kOdmStatusBad = 2;
constexpr UINTN kStallAfterSecureFlash = 200;  // microseconds

constexpr CHAR16 kOblis4Ch[] = u"Oblis_4Ch";
constexpr CHAR16 kFuncOblis4Ch[] = u"FuncOblis_4Ch";
constexpr CHAR16 kRunOemSecureFlash[] = u"RunOemSecureFlash";
constexpr CHAR16 kRunSecureCapsuleFlash[] = u"RunSecureCapsuleFlash";
constexpr CHAR16 kRunSecureCapsuleFlashInvalid[] = u"RunSecureCapsuleFlash (Invalid image";
constexpr CHAR16 kFuncUpdateVia4Ch[] = u"FuncUpdate_via4Ch";

constexpr CHAR16 kLabelRbuInfo[] = u"===== RBU Info =====\r\n";
constexpr CHAR16 kLabelServerInfo[] = u"===== DELL Server Info =====\r\n";
constexpr CHAR16 kTraceSecureFd[] = u" RBU secure FD\r\n-----+------\r\n  cer  0x%x\r\n  raw  0x%x\r\n";
constexpr CHAR16 kTraceRbuFd[] = u" RBU FD\r\n-----+------\r\n file  0x%x\r\n  raw  0x%x\r\n";
constexpr CHAR16 kTraceChecksums[] = u" RBU Checksum: FD (0x%x), Entire (0x%x)\r\n";
constexpr CHAR16 kTraceChecksumsComputed[] = u" RBU Checksum computed: FD (0x%x), Entire (0x%x)\r\n";
constexpr CHAR16 kErrorChecksum[] = u"RBU image checksum fail!\r\n";
// The lengths come from the file: what they claim must lie inside it.
constexpr CHAR16 kErrorShort[] = u"Error: The RBU file (0x%x bytes) is shorter than its header (0x%x bytes) and checksums.\r\n";
constexpr CHAR16 kErrorServerPast[] = u"Error: The RBU server block (0x%x bytes at 0x%x) runs past the flash data.\r\n";
constexpr CHAR16 kErrorCertificate[] =
    u"Error: The RBU server block (0x%x bytes) is shorter than the 0x%x bytes behind the checksums.\r\n";
constexpr CHAR16 kTraceOemSecure[] = u"OEM platform | secure|\r\n";
constexpr CHAR16 kTraceBlockList[] = u" Oblis_4Ch\r\n-------------+---------\r\n  block_count  0x%x\r\n  FD size      0x%x\r\n";
constexpr CHAR16 kTrace4ChFailed[] = u"OBLIS 4Ch failed. (0x%x)\r\n";
constexpr CHAR16 kTraceVia4Ch[] = u" FuncUpdate_via4Ch\r\n-----+------------\r\n   FD  0x%x\r\n";
constexpr CHAR16 kErrorInterface[] = u"Some error occur during calling secure flash interface.\r\n";
constexpr CHAR16 kErrorSignature[] = u"ROM file digital signature failed authentication.\r\n";
constexpr CHAR16 kPleaseWait[] = u"Update will take several minutes. Please wait...\r\n";
constexpr CHAR16 kErrorSecureUpdate[] = u"Secure update failed!\r\n";
constexpr CHAR16 kFlashComplete[] = u"\r\n                        Flash complete!\r\n";

constexpr CHAR16 kReasonAllocateOblis[] = u"Allocate OBLIS memory failed";
constexpr CHAR16 kReasonNotSuccess[] = u"BIOS return not success";
constexpr CHAR16 kReasonCannotRun[] = u"Cannot run secure flash";
constexpr CHAR16 kReasonInvalidImage[] = u"cannot run secure flash";
constexpr CHAR16 kReasonFlashCall[] = u"Call secure flash interface failed";
constexpr CHAR16 kReasonFlashResult[] = u"Secure flash result failed";
constexpr CHAR16 kReasonModuleCheck[] = u"Skip model check verify failed";

// What an RBU file's lengths say, or which of them reaches outside the file.
enum class RbuFault : UINT8 { None, Short, ServerPast, Certificate };

struct RbuState {
  Bool isRbu;
  RbuFault fault;
  UINT32 header;
  UINT32 server;
  UINT32 certificate;
  UINT32 rawStart;  // offset of the flash data in the file
  UINT32 rawSize;
};
constinit RbuState gRbu = {};
constinit Bool gOemSecurePlatform = false;
constinit UINT32 gCrcTable[256] = {};

UINT32 Smaller(UINT32 a, UINT32 b) { return a < b ? a : b; }

// The lengths of the header and the server block, checked against the file as they are read.
VOID ReadRbuLayout(const UINT8* image, UINT32 size) {
  gRbu.header = image[kHeaderLengthOffset];
  UINT32 h = gRbu.header;
  if (h < kHeaderMinimum || (UINT64)h + kChecksumBytes > size) {
    gRbu.fault = RbuFault::Short;
    return;
  }
  if ((UINT64)h + sizeof(kServerSignature) <= size && CompareMem(image + h, kServerSignature, sizeof(kServerSignature)) == 0) {
    HexDumpFramed(kLabelServerInfo, image + h, Smaller(kServerInfoDumpBytes, size - h));
    gRbu.server = (UINT64)h + kServerMinimum <= size ? ReadU16(image + h + kServerLengthOffset) : 0;
    if (gRbu.server < kServerMinimum || (UINT64)h + gRbu.server + kChecksumBytes > size) {
      gRbu.fault = RbuFault::ServerPast;
      return;
    }
  }
  gRbu.rawStart = h + gRbu.server;
  gRbu.rawSize = size - h - gRbu.server - kChecksumBytes;
  // Behind a server block the flash data comes in whole blocks: the rest is the certificate
  // behind the checksums, and the data is taken that far in front.
  if (gRbu.server != 0 && gRbu.rawSize % kServerDataUnit != 0) {
    gRbu.certificate = gRbu.rawSize % kServerDataUnit;
    LogPrint(kLogDetail, kTraceSecureFd, gRbu.certificate, gRbu.rawSize);
    if (gRbu.certificate > gRbu.server) {
      gRbu.fault = RbuFault::Certificate;
      return;
    }
    gRbu.rawStart -= gRbu.certificate;
  }
  LogPrint(kLogDetail, kTraceRbuFd, size, gRbu.rawSize);
}

}  // namespace

UINT32 RbuChecksum(const UINT8* data, UINT32 length) {
  if (data == nullptr || length == 0) {
    return 0;
  }
  if (gCrcTable[1] == 0) {
    for (UINT32 n = 0; n < 256; n++) {
      UINT32 c = n;
      for (UINT32 bit = 0; bit < 8; bit++) {
        c = (c & 1) != 0 ? (c >> 1) ^ kCrcPolynomial : c >> 1;
      }
      gCrcTable[n] = c;
    }
  }
  UINT32 crc = 0xFFFFFFFF;
  for (UINT32 i = 0; i < length; i++) {
    crc = gCrcTable[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  }
  return crc;  // no final inversion
}

Bool AnalyzeRbuImage(const UINT8* image, UINT32 size) {
  gRbu = {};
  if (image == nullptr || size < sizeof(kRbuSignature) || CompareMem(image, kRbuSignature, sizeof(kRbuSignature)) != 0) {
    return false;
  }
  HexDumpFramed(kLabelRbuInfo, image, Smaller(kRbuInfoDumpBytes, size));
  gRbu.isRbu = true;
  if (size <= kHeaderLengthOffset) {
    gRbu.fault = RbuFault::Short;
    return true;
  }
  ReadRbuLayout(image, size);
  return true;
}

Bool CheckRbuChecksum(const UINT8* image, UINT32 size) {
  switch (gRbu.fault) {
    case RbuFault::Short:
      Print(kErrorShort, size, gRbu.header);
      return false;
    case RbuFault::ServerPast:
      Print(kErrorServerPast, gRbu.server, gRbu.header);
      return false;
    case RbuFault::Certificate:
      Print(kErrorCertificate, gRbu.server, gRbu.certificate);
      return false;
    case RbuFault::None:
      break;
  }
  // The two stored values stand right behind the flash data.
  UINT32 fdAt = gRbu.rawStart + gRbu.rawSize;
  UINT32 storedFd = ReadU32(image + fdAt);
  UINT32 storedEntire = ReadU32(image + fdAt + 4);
  LogPrint(kLogDetail, kTraceChecksums, storedFd, storedEntire);
  UINT32 entire = RbuChecksum(image, fdAt + 4);
  UINT32 fd = RbuChecksum(image + gRbu.header, fdAt - gRbu.header);
  if (entire != storedEntire || fd != storedFd) {
    LogPrint(kLogDetail, kTraceChecksumsComputed, fd, entire);
    Print(kErrorChecksum);
    return false;
  }
  return true;
}

Bool IsRbuImage() { return gRbu.isRbu; }

VOID GetRbuRawData(UINT32* start, UINT32* size) {
  *start = gRbu.rawStart;
  *size = gRbu.rawSize;
}

Bool Oblis_4Ch(OemFlashRequest* request, UINT8 verifyOnly) {
  TraceScope trace(kOblis4Ch);
  UINT8* list = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &list)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(list, kOblisBufferSize);
  // The same list as the capsule's, but an empty request still carries one entry, all zero.
  UINT32 count = BuildCapsuleBlockList(list, request->address, request->size);
  if (count == 0) {
    count = 1;
    WriteU32(list, count);
  }
  LogPrint(kLogDetail, kTraceBlockList, count, request->size);
  UINT32 answer = OblisCall_4Ch(request->size, verifyOnly, PhysicalAddressOf(list));
  UINT8 status = (UINT8)(answer & 0xFF);
  if (status == kOblisSuccess) {
    request->actionIndex = (UINT8)(answer >> 16);
    request->imageVerified = (answer & kVerifiedBit) != 0;
    request->useOrdinaryWay = (answer & kOrdinaryWayBit) != 0;
    request->finishedWell = (answer & kFinishedWellBit) != 0;
    return true;
  }
  LogPrint(kLogDetail, kTrace4ChFailed, status);
  // As with the capsule probe: any answer to the empty request but "not supported" counts.
  if (request->size == 0 && status != kOblisUnsupported) {
    return true;
  }
  return trace.Fail(kReasonNotSuccess);
}

VOID ProbeOemSecure() {
  OemFlashRequest request = {};
  if (Oblis_4Ch(&request, kVerifyOnly)) {
    LogPrint(kLogDetail, kTraceOemSecure);
    gOemSecurePlatform = true;
  }
}

Bool FuncOblis_4Ch(const UINT8* image, UINT32 size, UINT8 verifyOnly, UINT8* result) {
  TraceScope trace(kFuncOblis4Ch);
  OemFlashRequest request = {};
  request.size = size;
  request.address = PhysicalAddressOf(image);
  if (!Oblis_4Ch(&request, verifyOnly)) {
    return false;
  }
  result[kOemResultAction] = request.actionIndex;
  result[kOemResultVerified] = request.imageVerified ? 1 : 0;
  result[kOemResultOrdinaryWay] = request.useOrdinaryWay ? 1 : 0;
  result[kOemResultFinishedWell] = request.finishedWell ? 1 : 0;
  return true;
}

Bool RunOemSecureFlash(const UINT8* image, UINT32 size, UINT8* useOrdinaryWay) {
  TraceScope trace(kRunOemSecureFlash);
  *useOrdinaryWay = 0;
  UINT8 result[kOemResultBytes] = {};
  // The first call only verifies: the flash stays as it is whatever the answer.
  if (!FuncOblis_4Ch(image, size, kVerifyOnly, result)) {
    Print(kErrorInterface);
    return trace.FailAs(kRunSecureCapsuleFlash, kReasonCannotRun);
  }
  if (result[kOemResultVerified] == 0) {
    Print(kErrorSignature);
    *useOrdinaryWay = result[kOemResultOrdinaryWay];
    return trace.FailAs(kRunSecureCapsuleFlashInvalid, kReasonInvalidImage);
  }
  Print(kPleaseWait);
  if (!FuncOblis_4Ch(image, size, kVerifyAndFlash, result)) {
    Print(kErrorInterface);
    return trace.FailAs(kRunSecureCapsuleFlash, kReasonFlashCall);
  }
  if (result[kOemResultFinishedWell] == 0) {
    Print(kErrorSecureUpdate);
    return trace.FailAs(kRunSecureCapsuleFlash, kReasonFlashResult);
  }
  Print(kFlashComplete);
  gBS->Stall(kStallAfterSecureFlash);
  SetStatus_16h(0, IndexToAction_16h(result[kOemResultAction]), 0, CommonFlashFinishAction);
  return true;
}

Bool FuncUpdate_via4Ch(const UINT8* image, UINT32 size) {
  TraceScope trace(kFuncUpdateVia4Ch);
  LogPrint(kLogSettings, kTraceVia4Ch, size);
  if (!PlatformNameCheckNeeded() && !FuncOblis_1Bh(image, size)) {
    return trace.Fail(kReasonModuleCheck);
  }
  if (gOemSecurePlatform) {
    UINT8 useOrdinaryWay = 0;
    if (RunOemSecureFlash(image, size, &useOrdinaryWay)) {
      SMI_OemOdmCustom2(kOdmActionEnd, kOdmStatusGood);
      return true;
    }
    // Only a firmware that refused to verify the file can send it the ordinary way.
    if (useOrdinaryWay == 0) {
      SMI_OemOdmCustom2(kOdmActionEnd, kOdmStatusBad);
      return false;
    }
  }
  return FuncUpdate_via15h(image + gRbu.rawStart, gRbu.rawSize);
}

VOID ResetRbuState() {
  gRbu = {};
  gOemSecurePlatform = false;
}
