// The PFAT road: a flash image with a header table and a certificate table behind it goes to the
// firmware as signed packets, one per block of the BIOS region, each announced by 41h, carried by
// 42h and judged by the firmware's answer to 41h type 5Ah. Also the image's own checks.
#include "checks/Checks.h"
#include "config/Config.h"
#include "HostSettings.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

constexpr UINT32 kSignatureBytes = 8;
constexpr UINT32 kTableHeadBytes = 32;
constexpr UINT32 kBlockCountOffset = 12;
constexpr UINT32 kHeaderSizeOffset = 16;
constexpr UINT32 kDataSizeOffset = 20;
constexpr UINT32 kCertificateSizeOffset = 16;
constexpr UINT32 kChecksumOffset = 20;
constexpr UINT8 kExternalBios = 1;
constexpr UINT8 kOdmActionEnd = 2;
constexpr UINT8 kOdmStatusGood = 1;
constexpr UINT8 kOdmStatusBad = 2;
constexpr UINT8 kFinishCompleteSuccess = 1;
constexpr UINT32 kAnswerLengthWithFurther = 0x10;

constexpr CHAR16 kFuncUpdateVia42h[] = u"FuncUpdate_via42h";
constexpr CHAR16 kFuncUpdatePfat[] = u"FuncUpdate_PFAT";
constexpr CHAR16 kGetStatus41hPfat[] = u"GetStatus41h_Pfat";
constexpr CHAR16 kGetPfatBlockTable[] = u"GetPfatBlockTable";

constexpr CHAR16 kTraceNoSignature[] = u"PFAT signature not found.\r\n";
constexpr CHAR16 kTraceCertificateFound[] = u"cert signature found. (0x%x)\r\n";
constexpr CHAR16 kTraceChecksumValid[] = u"checksum valid\r\n";
constexpr CHAR16 kTraceChecksumFailed[] = u"PFAT checksum failed. (0x%x != 0x%x)\r\n";
constexpr CHAR16 kLabelCertificateHead[] = u"===== cert hdr =====\r\n";
constexpr CHAR16 kErrorNotSigned[] = u"Error: PFAT is not signed\r\n";
constexpr CHAR16 kErrorNotValid[] = u"Error: PFAT image NOT valid.\r\n";
// The tables come from the file: what they claim must lie inside it and fit one OBLIS call.
constexpr CHAR16 kErrorTablesPastFile[] = u"Error: PFAT tables reach past the end of the file (0x%x bytes).\r\n";
constexpr CHAR16 kErrorPacketTooLarge[] =
    u"Error: A PFAT packet of 0x%x bytes does not fit the OBLIS buffer (0x%x bytes).\r\n";
constexpr CHAR16 kErrorBlocksPastData[] =
    u"Error: PFAT block count 0x%x does not match the flash data (0x%x bytes from offset 0x%x).\r\n";
constexpr CHAR16 kTraceVia42h[] = u" FuncUpdate_via42h\r\n-----+------------\r\n   FD  0x%x\r\n";
constexpr CHAR16 kErrorSizeNotMatch[] =
    u"ERROR!\r\nSize not match!\r\n-----+---------\r\n  ROM  0x%x\r\n File  0x%x\r\n";
constexpr CHAR16 kTraceRegion[] = u" region PFAT\r\n-----+------\r\n  17h  0x%x\r\n   FD  0x%x\r\n   EC  %dK";
constexpr CHAR16 kTraceEntire[] = u" entire PFAT\r\n-----+------\r\n  13h  0x%x\r\n   FD  0x%x\r\n   EC  %dK";
constexpr CHAR16 kTraceNotSupported[] = u"N.support |PFAT| (0x%x)\r\n";
constexpr CHAR16 kTraceEnabled[] = u"SCU PFAT |enable|\r\n";
constexpr CHAR16 kTraceProtected[] = u"%02d block protected ( 0x%08x )\n";
constexpr CHAR16 kPfatUpdating[] = u"\r                           PFAT updating    %3ld %% ";
constexpr CHAR16 kLabelBiosRegion[] = u"===== BIOS region Table =====\r\n";
constexpr CHAR16 kLabelPfatTable[] = u"===== PFAT Table =====\r\n";
constexpr CHAR16 kTraceBlockUpdating[] = u"%3d block updating ( 0x%02x )\n";
constexpr CHAR16 kErrorPrefixed[] = u"\r\n%s";
constexpr CHAR16 kErrorInterface[] = u"Error: PFAT interface error.\r\n";
constexpr CHAR16 kErrorWrite[] = u"Error: PFAT write error.\r\n";
constexpr CHAR16 kErrorCommunication[] = u"OBLIS: Extra Data communcation error in SMI!\r\n";
constexpr CHAR16 kLineEnd[] = u"\r\n";
constexpr CHAR16 kErrorUpdateFailed[] = u"Error: PFAT update failed.\r\nError code: 0x%016llX\r\n";
constexpr CHAR16 kErrorBlockSize[] = u"BIOS report block size = 0x%X\nData size index = 0x%X\r\n";
constexpr CHAR16 kErrorPhysicalSize[] = u"BIOS report physical size = 0x%lX\nData size for write request = 0x%lX\r\n";
constexpr CHAR16 kErrorTypeNotSupported[] = u"Type not support.\r\n";
constexpr CHAR16 kErrorDataIncorrect[] = u"BIOS return data incorrect!";

constexpr CHAR16 kReasonSize[] = u"PFAT size check failed";
constexpr CHAR16 kReasonModuleCheck[] = u"Skip model check verify failed";
constexpr CHAR16 kReasonOemMe[] = u"Update OEM ME failed";
constexpr CHAR16 kReasonAllocate[] = u"Allocate memory failed";
constexpr CHAR16 kReasonWrite[] = u"Write PFAT block failed";

// What the tables of the image say, checked once against the image's length.
struct PfatState {
  Bool isPfat;
  Bool isSigned;
  Bool checksumValid;
  UINT32 headerTable;
  UINT32 certificateTable;
  UINT32 blockCount;
  UINT32 headerSize;
  UINT32 dataSize;
  UINT32 certificateSize;
  UINT32 dataStart;  // where the first block's data lies in the image
};
constinit PfatState gPfat = {};

// The table signatures are composed at run time: a file that carries this driver must not match.
VOID Signature(UINT8* out, CHAR8 c5, CHAR8 c6, CHAR8 c7) {
  const UINT8 text[kSignatureBytes] = {'#', 'P', 'F', 'A', 'T', (UINT8)c5, (UINT8)c6, (UINT8)c7};
  CopyMem(out, text, kSignatureBytes);
  out[0] = '$';
}

// Whether count records of size bytes behind a table head at offset lie inside the image.
Bool TableFits(UINT32 offset, UINT32 count, UINT32 size, UINT32 length) {
  UINT64 end = (UINT64)offset + kTableHeadBytes + (UINT64)count * size;
  return end <= length;
}

UINT32 PacketSize() { return gPfat.headerSize + gPfat.dataSize + gPfat.certificateSize; }

// The last block that is sent; 0 when all are protected.
UINT32 LastOpenBlock(const PfatBlock* blocks, UINT32 count) {
  UINT32 last = 0;
  for (UINT32 i = 0; i < count; i++) {
    if (blocks[i].protectedFlag == 0) {
      last = i;
    }
  }
  return last;
}

}  // namespace

Bool PfatChecksum(const UINT8* image, UINT32 length) {
  if (!gPfat.isSigned || !TableFits(gPfat.certificateTable, 0, 0, length)) {
    return false;
  }
  // The four bytes of the stored sum count as 0; the image itself stays as it is.
  UINT32 field = gPfat.certificateTable + kChecksumOffset;
  UINT32 sum = 0;
  for (UINT32 i = 0; i < length; i++) {
    if (i < field || i >= field + 4) {
      sum += image[i];
    }
  }
  UINT32 stored = ReadU32(image + field);
  if (sum != stored) {
    LogPrint(kLogDetail, kTraceChecksumFailed, sum, stored);
    HexDumpFramed(kLabelCertificateHead, image + gPfat.certificateTable, kTableHeadBytes);
    return false;
  }
  return true;
}

Bool AnalyzePfatImage(const UINT8* image, UINT32 length) {
  gPfat = {};
  UINT8 signature[kSignatureBytes];
  Signature(signature, 'H', 'D', 'R');
  if (image == nullptr || !FindSignature(image, length, signature, kSignatureBytes, &gPfat.headerTable)) {
    LogPrint(kLogDetail, kTraceNoSignature);
    return false;
  }
  gPfat.isPfat = true;
  Signature(signature, 'C', 'E', 'R');
  if (FindSignature(image, length, signature, kSignatureBytes, &gPfat.certificateTable)) {
    gPfat.isSigned = true;
    LogPrint(kLogDetail, kTraceCertificateFound, gPfat.certificateTable);
  }
  if (PfatChecksum(image, length)) {
    gPfat.checksumValid = true;
    LogPrint(kLogDetail, kTraceChecksumValid);
  }
  // The heads are read here, where the image's length is known; their claims are checked next.
  if (TableFits(gPfat.headerTable, 0, 0, length)) {
    gPfat.blockCount = ReadU32(image + gPfat.headerTable + kBlockCountOffset);
    gPfat.headerSize = ReadU32(image + gPfat.headerTable + kHeaderSizeOffset);
    gPfat.dataSize = ReadU32(image + gPfat.headerTable + kDataSizeOffset);
  }
  if (gPfat.isSigned && TableFits(gPfat.certificateTable, 0, 0, length)) {
    gPfat.certificateSize = ReadU32(image + gPfat.certificateTable + kCertificateSizeOffset);
  }
  return true;
}

Bool CheckPfatImage(UINT32 length) {
  if (!gPfat.isSigned) {
    Print(kErrorNotSigned);
    return false;
  }
  if (!gPfat.checksumValid) {
    Print(kErrorNotValid);
    return false;
  }
  if (!TableFits(gPfat.headerTable, gPfat.blockCount, gPfat.headerSize, length) ||
      !TableFits(gPfat.certificateTable, gPfat.blockCount, gPfat.certificateSize, length)) {
    Print(kErrorTablesPastFile, length);
    return false;
  }
  UINT64 packet = (UINT64)gPfat.headerSize + gPfat.dataSize + gPfat.certificateSize;
  if (packet > kOblisBufferSize) {
    Print(kErrorPacketTooLarge, (UINT32)packet, kOblisBufferSize);
    return false;
  }
  // The blocks' data lies in the flash data, in front of the header table.
  if (gPfat.dataSize == 0 || (UINT64)gPfat.blockCount * gPfat.dataSize > gPfat.headerTable) {
    Print(kErrorBlocksPastData, gPfat.blockCount, gPfat.headerTable, 0);
    return false;
  }
  return true;
}

Bool IsPfatImage() { return gPfat.isPfat; }
UINT32 GetPfatFdSize() { return gPfat.headerTable; }

Bool IsPfatEnabled() {
  UINT8 answer[kExtraDataAnswerBytes] = {};
  if (!Oblis_41h(kExtraDataTypePacket, kExtraDataSizeFieldCounts, 0, answer)) {
    return false;
  }
  UINT16 status = ReadU16(answer + offsetof(OblisExtraDataRecord, status));
  if ((status & kExtraDataTypeUnsupported) != 0) {
    LogPrint(kLogDetail, kTraceNotSupported, status);
    return false;
  }
  LogPrint(kLogDetail, kTraceEnabled);
  return true;
}

Bool GetStatus41h_Pfat(UINT8 type, UINT8 sizeIndex, UINT32 size, UINT64* result) {
  TraceScope trace(kGetStatus41hPfat);
  UINT8 answer[kExtraDataAnswerBytes] = {};
  // A failed call leaves the answer zero, which the index test below refuses.
  FuncOblis_41h(type, sizeIndex, size, answer);
  UINT8 blockIndex = answer[offsetof(OblisExtraDataRecord, type)];
  UINT8 dataIndex = answer[offsetof(OblisExtraDataRecord, sizeIndex)];
  if (blockIndex != kExtraDataSizeFieldCounts && dataIndex != kExtraDataSizeFieldCounts) {
    Print(kErrorBlockSize, blockIndex, dataIndex);
    return false;
  }
  UINT32 taken = dataIndex == kExtraDataSizeFieldCounts ? ReadU32(answer + offsetof(OblisExtraDataRecord, size))
                                                        : SizeIndexToBytes(dataIndex);
  if (taken < size) {
    Print(kErrorPhysicalSize, (UINT64)taken, (UINT64)size);
    return false;
  }
  UINT16 status = ReadU16(answer + offsetof(OblisExtraDataRecord, status));
  UINT32 answerLength = ReadU32(answer + offsetof(OblisExtraDataRecord, length));
  if ((status & kExtraDataFurtherValid) != 0 && answerLength > kAnswerLengthWithFurther) {
    if (result != nullptr) {
      CopyMem(result, answer + offsetof(OblisExtraDataRecord, further), sizeof(UINT64));
    }
    status &= (UINT16)~kExtraDataFurtherValid;
  }
  if (status == 0) {
    return true;
  }
  Print((status & kExtraDataTypeUnsupported) != 0 ? kErrorTypeNotSupported : kErrorDataIncorrect);
  return false;
}

Bool WritePfatBlock(UINT8* packet, UINT32 size, UINT8 block, UINT8 lastMark) {
  LogPrint(kLogDetail, kTraceBlockUpdating, block, lastMark);
  if (!GetStatus41h_Pfat(kExtraDataTypePacket, kExtraDataSizeFieldCounts, size, nullptr)) {
    Print(kErrorPrefixed, kErrorInterface);
    return false;
  }
  if (!FuncOblis_42h(lastMark, packet, size, block)) {
    Print(kErrorPrefixed, kErrorWrite);
    return false;
  }
  UINT64 result = 0;
  if (!GetStatus41h_Pfat(kExtraDataTypeResult, kExtraDataSizeFieldCounts, 0, &result)) {
    Print(kErrorPrefixed, kErrorCommunication);
    return false;
  }
  if (result != 0) {
    Print(kLineEnd);
    Print(kErrorUpdateFailed, result);
    return false;
  }
  return true;
}

PfatBlock* GetPfatBlockTable(UINT32 count, UINT32 blockSize) {
  TraceScope trace(kGetPfatBlockTable);
  FlashBlock* flash = CopyBlockTable();
  PoolBuffer flashHeld;
  flashHeld.Adopt((UINT8*)flash, sizeof(FlashBlock) * kFlashBlockEntries);
  UINT32 flashCount = GetBlockCount() < kFlashBlockEntries ? GetBlockCount() : kFlashBlockEntries;
  UINT32 regionOffset = 0;
  UINT32 regionSize = 0;
  UINT8 access = 0;
  if (flash == nullptr || !FindCurrentRegion(kExternalBios, &regionOffset, &regionSize, &access)) {
    return nullptr;
  }
  UINT32 start = GetRomBase() + regionOffset;
  UINT32 first = 0;
  while (first < flashCount && flash[first].address < start) {
    first++;
  }
  if (first < flashCount && flash[first].size != 0) {
    UINT32 shown = regionSize / flash[first].size;
    if (shown > flashCount - first) {
      shown = flashCount - first;
    }
    LogPrint(kLogDetail, kLabelBiosRegion);
    ShowBlockTable(flash + first, shown);
    LogPrint(kLogDetail, kLabelBiosRegion);
  }
  PfatBlock* blocks = static_cast<PfatBlock*>(AllocateZeroPool(sizeof(PfatBlock) * (count == 0 ? 1 : count)));
  if (blocks == nullptr) {
    return nullptr;
  }
  for (UINT32 i = 0; i < count; i++) {
    blocks[i].address = start + i * blockSize;
    blocks[i].size = blockSize;
    UINT64 last = (UINT64)blocks[i].address + blockSize - 1;
    // A flash block flagged anywhere inside the packet's block keeps the whole packet back.
    for (UINT32 f = 0; f < flashCount; f++) {
      UINT64 flashLast = (UINT64)flash[f].address + flash[f].size - 1;
      if (flash[f].protectedFlag != 0 && flashLast >= blocks[i].address && flash[f].address <= last) {
        blocks[i].protectedFlag = 1;
        break;
      }
    }
  }
  HexDumpFramed(kLabelPfatTable, blocks, count * (UINT32)sizeof(PfatBlock));
  return blocks;
}

Bool FuncUpdate_PFAT(const UINT8* image, UINT32 fdSize, UINT8 lastValue) {
  TraceScope trace(kFuncUpdatePfat);
  UINT32 count = gPfat.blockCount;
  UINT32 packetSize = PacketSize();
  // The data of the last block must lie in the flash data, from where the BIOS data starts.
  if ((UINT64)gPfat.dataStart + (UINT64)count * gPfat.dataSize > fdSize) {
    Print(kErrorBlocksPastData, count, fdSize, gPfat.dataStart);
    return trace.Fail(kReasonSize);
  }
  PoolBuffer packet(packetSize);
  if (!packet) {
    return trace.Fail(kReasonAllocate);
  }
  SetRsvd_13h(IsSecureBootSupport);
  PfatBlock* table = GetPfatBlockTable(count, gPfat.dataSize);
  PoolBuffer tableHeld;
  tableHeld.Adopt((UINT8*)table, sizeof(PfatBlock) * (count == 0 ? 1 : count));
  if (table == nullptr) {
    return trace.Fail(kReasonAllocate);
  }
  UINT32 lastOpen = LastOpenBlock(table, count);
  UINT8 lastMark = kExtraDataMorePieces;
  const UINT8* data = image + gPfat.dataStart;
  const UINT8* header = image + gPfat.headerTable + kTableHeadBytes;
  const UINT8* certificate = image + gPfat.certificateTable + kTableHeadBytes;
  for (UINT32 i = 0; i < count; i++) {
    ZeroMem(packet.Data(), packetSize);
    CopyMem(packet.Data(), header, gPfat.headerSize);
    CopyMem(packet.Data() + gPfat.headerSize, data, gPfat.dataSize);
    CopyMem(packet.Data() + gPfat.headerSize + gPfat.dataSize, certificate, gPfat.certificateSize);
    header += gPfat.headerSize;
    data += gPfat.dataSize;
    certificate += gPfat.certificateSize;
    if (table[i].protectedFlag != 0) {
      LogPrint(kLogDetail, kTraceProtected, i, table[i].address);
      continue;
    }
    if (i == lastOpen) {
      lastMark = lastValue;
    }
    if (!WritePfatBlock(packet.Data(), packetSize, (UINT8)i, lastMark)) {
      return trace.Fail(kReasonWrite);
    }
    Print(kPfatUpdating, (UINT64)((i + 1) * 100) / count);
  }
  Print(kPfatUpdating, (UINT64)100);
  return true;
}

// An image of ROM size or more: the EC part stands in front, and the blocks' data starts where
// the BIOS region starts in the ROM image behind it.
Bool FuncSize_entire42h(const UINT8* image, UINT32 fdSize) {
  UINT32 romSize = GetRomSize();
  UINT32 ecSize = fdSize - romSize;
  LogPrint(kLogSettings, kTraceEntire, romSize, fdSize, ecSize / 1024);
  if (!FuncChk_SizeEC(ecSize)) {
    return false;
  }
  if (ecSize != 0) {
    KeepEcImage(image, ecSize);
  }
  if (GetRegionFlags() != 0) {
    if (!GetExternalMaps(image + ecSize, fdSize - ecSize)) {
      return false;
    }
    SetRsvd_17h();
  }
  SetRsvd_13h(IsSecureBootSupport);
  UINT32 biosOffset = 0;
  UINT32 biosSize = 0;
  UINT8 access = 0;
  if (!FindCurrentRegion(kExternalBios, &biosOffset, &biosSize, &access) &&
      (!GetExternalMaps(nullptr, 0) || !FindCurrentRegion(kExternalBios, &biosOffset, &biosSize, &access))) {
    return false;
  }
  gPfat.dataStart = ecSize + biosOffset;
  return true;
}

// An image smaller than the ROM holds the selected regions: its blocks' data starts behind the
// EC part.
Bool FuncSize_region42h(const UINT8* image, UINT32 fdSize) {
  UINT32 romSize = GetRomSize();
  if (GetRegionFlags() == 0) {
    Print(kErrorSizeNotMatch, romSize, fdSize);
    return false;
  }
  if (!GetExternalMaps(nullptr, 0)) {
    return false;
  }
  UINT32 biosOffset = 0;
  UINT32 biosSize = 0;
  UINT8 access = 0;
  FindCurrentRegion(kExternalBios, &biosOffset, &biosSize, &access);
  // Unsigned on purpose: a file smaller than the region gives a huge EC size, which its check refuses.
  UINT32 ecSize = (GetRegionFlags() & kRegionBios) != 0 ? fdSize - biosSize : 0;
  LogPrint(kLogSettings, kTraceRegion, biosSize, fdSize, ecSize / 1024);
  if (!FuncChk_SizeEC(ecSize) || !CheckRegionSize(fdSize - ecSize)) {
    return false;
  }
  if (ecSize != 0) {
    KeepEcImage(image, ecSize);
  }
  SetRsvd_17h();
  SetRsvd_13h(IsSecureBootSupport);
  gPfat.dataStart = ecSize;
  return true;
}

Bool FuncUpdate_via42h(const UINT8* image, UINT32 size) {
  TraceScope trace(kFuncUpdateVia42h);
  UINT32 romSize = GetRomSize();
  UINT32 fdSize = GetPfatFdSize();
  if (image == nullptr || fdSize > size) {
    return trace.Fail(kReasonSize);
  }
  LogPrint(kLogSettings, kTraceVia42h, fdSize);
  Bool sized = fdSize < romSize ? FuncSize_region42h(image, fdSize) : FuncSize_entire42h(image, fdSize);
  if (!sized) {
    return trace.Fail(kReasonSize);
  }
  if (!PlatformNameCheckNeeded() && !FuncOblis_1Bh(image, fdSize)) {
    return trace.Fail(kReasonModuleCheck);
  }
  // A firmware that takes no packets gets the flash data through the block writer.
  if (!IsPfatEnabled()) {
    return FuncUpdate_via15h(image, fdSize);
  }
  if (!UpdateOemME()) {
    return trace.Fail(kReasonOemMe);
  }
  if (!FuncUpdate_PFAT(image, fdSize, kExtraDataLastPiece)) {
    SMI_OemOdmCustom2(kOdmActionEnd, kOdmStatusBad);
    return false;
  }
  SMI_OemOdmCustom2(kOdmActionEnd, kOdmStatusGood);
  SetStatus_16h(kFinishLeaveAsIs, kFinishLeaveAsIs, kFinishCompleteSuccess, CommonFlashFinishAction);
  return true;
}

VOID ResetPfatState() { gPfat = {}; }
