// The block writer: lays an image into an update buffer that mirrors the ROM, and writes it block
// by block through function 15h with compare, write and verify, the BVDT block last. Which
// blocks are open is the block table's business, which regions are selected region selection's.
#include "checks/Checks.h"
#include "config/Config.h"
#include "HostSettings.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

constexpr UINT32 kUpdateBufferSlack = 0x1000;
constexpr UINT32 kHookPointStartWriteRom = 3;
constexpr UINT8 kExternalBios = 1;
constexpr UINT8 kExternalMe = 2;
constexpr UINT32 kMeProbeWarningStall = 100000;   // 100 ms
constexpr UINT32 kLauncherResultStall = 2000000;  // 2 s
constexpr UINT8 kOdmActionStart = 1;
constexpr UINT8 kOdmActionEnd = 2;
constexpr UINT8 kOdmStatusGood = 1;
constexpr UINT8 kOdmStatusBad = 2;
constexpr UINT8 kFinishCompleteSuccess = 1;

constexpr UINT16 kMarkProtected = '.';
constexpr UINT16 kMarkHeldBack = 'X';

constexpr CHAR16 kFuncUpdateVia15h[] = u"FuncUpdate_via15h";
constexpr CHAR16 kEfiUpdateVia15h[] = u"EfiUpdate_via15h";
constexpr CHAR16 kWriteBlocks[] = u"WriteBlocks";
constexpr CHAR16 kSmiWriteRom[] = u"SMI_WriteRom";

constexpr CHAR16 kErrorAllocateUpdate[] = u"ERROR!\r\nallocate memory for updating failed. (0x%x)\r\n";
constexpr CHAR16 kErrorSizeNotMatch[] =
    u"ERROR!\r\nSize not match!\r\n-----+---------\r\n  ROM  0x%x\r\n File  0x%x\r\n";
constexpr CHAR16 kTraceImageSize[] = u" Image Size 0x%x\r\n";
constexpr CHAR16 kTraceEfiUpdate[] = u" Efi update via15h\r\n-----+------------\r\n   FD  0x%x\r\n";
constexpr CHAR16 kTraceEntireLegacy[] = u" entire Legacy\r\n-----+------\r\n  13h  0x%x\r\n   FD  0x%x\r\n   EC  %dK";
constexpr CHAR16 kTraceRegionLegacy[] = u" region Legacy\r\n-----+------\r\n  17h  0x%x\r\n   FD  0x%x\r\n   EC  %dK";
constexpr CHAR16 kErrorBlocksPastRom[] = u"ERROR!\r\nThe flash blocks reach past the ROM size. (0x%x)\r\n";
constexpr CHAR16 kErrorBlocksShortOfRom[] =
    u"ERROR!\r\nThe flash blocks cover 0x%x bytes of the ROM's 0x%x: the firmware's block table is incomplete.\r\n";
constexpr CHAR16 kErrorBlocksPastBuffer[] = u"ERROR!\r\nThe flash blocks reach past the update buffer. (0x%x)\r\n";
constexpr CHAR16 kLabelBlockTable[] = u"===== Rom Block Protect Table =====\r\n";
constexpr CHAR16 kTraceWriteBvdt[] = u"Write BVDT block 0x%08x size 0x%x\r\n";
constexpr CHAR16 kTraceVerifyFailed[] = u"Verify failed (%d)\r\n";
constexpr CHAR16 kTraceCompareFail[] = u"CompareCurrentFD() |fail|\r\n";
constexpr CHAR16 kTraceMeProbe[] = u"verify status | ME| 0x%x\r\n";
constexpr CHAR16 kWarningMeLocked[] =
    u"\r                           *** Warning ***\n\r                           ME locked, skip update region ME\n";

constexpr CHAR16 kReasonAllocate[] = u"Allocate update buffer failed";
constexpr CHAR16 kReasonExternalMaps[] = u"Get external maps failed";
constexpr CHAR16 kReasonRegionMap[] = u"Region map not usable";
constexpr CHAR16 kReasonLayout[] = u"Image layout failed";
constexpr CHAR16 kReasonOdmStart[] = u"OemOdmCustom2 start failed";
constexpr CHAR16 kReasonWrite[] = u"Write ROM failed";
constexpr CHAR16 kReasonOemMe[] = u"Update OEM ME failed";
constexpr CHAR16 kReasonModuleCheck[] = u"Skip model check verify failed";
constexpr CHAR16 kReasonBlockTable[] = u"Copy block table failed";
constexpr CHAR16 kReasonBlocksNotRom[] = u"Block table does not make up the ROM";
constexpr CHAR16 kReasonVerify[] = u"Verify failed";

struct BlockWriterState {
  UINT8* updateBuffer;
  UINT32 updateBufferBytes;
};
constinit BlockWriterState gWriter = {};

// One allocation for the run, whichever entry comes first; a later entry reuses it if it fits.
Bool TakeUpdateBuffer(UINT32 romSize) {
  UINT32 wanted = romSize + kUpdateBufferSlack;
  if (gWriter.updateBuffer != nullptr && gWriter.updateBufferBytes >= wanted) {
    ZeroMem(gWriter.updateBuffer, gWriter.updateBufferBytes);
    return true;
  }
  FreePoolAndNull(gWriter.updateBuffer);
  gWriter.updateBufferBytes = 0;
  gWriter.updateBuffer = static_cast<UINT8*>(AllocateZeroPool(wanted));
  if (gWriter.updateBuffer == nullptr) {
    return false;
  }
  gWriter.updateBufferBytes = wanted;
  return true;
}

Bool CompareEnabled() {
  return Settings()->others.disableCompare == 0 && !Flags()->dc && !DisableComparison();
}

// Zero switches the retries off, not the write: a block that differs gets one attempt. Taking
// zero as "no attempt" would leave every differing block old and still report a good update.
UINT32 WriteAttempts() {
  UINT32 attempts = 0;
  if (Flags()->vrt) {
    attempts = Flags()->vrtCount;
  } else if (Settings()->others.verifyErrorRetry > 0) {
    attempts = (UINT32)Settings()->others.verifyErrorRetry;
  }
  return attempts == 0 ? 1 : attempts;
}

// The blocks are laid end to end from the start of the buffer; a part whose blocks add up to
// more than bytes is refused before anything is written.
UINT64 BlocksTotal(const FlashBlock* table, UINT32 count) {
  UINT64 total = 0;
  for (UINT32 i = 0; i < count; i++) {
    total += table[i].size;
  }
  return total;
}

// The blocks must make up the ROM exactly: a table that stops short would leave part of the
// image unwritten and still end in a completed update, one that reaches past it would write
// beyond 4 GB and read past the image.
Bool BlocksMakeUpRom(const FlashBlock* table, UINT32 count) {
  UINT64 total = BlocksTotal(table, count);
  if (total > GetRomSize()) {
    Print(kErrorBlocksPastRom, GetRomSize());
    return false;
  }
  if (total < GetRomSize()) {
    Print(kErrorBlocksShortOfRom, (UINT32)total, GetRomSize());
    return false;
  }
  return true;
}

}  // namespace

// The firmware's block table is judged before the image is: a ROM size that the blocks do not
// make up would otherwise be taken for an EC part in front of the image, or reach the firmware's
// module check and the ME tool, before the write loop refuses it.
Bool BlockTableMakesUpRom() {
  PoolBuffer table;
  table.Adopt((UINT8*)CopyBlockTable(), sizeof(FlashBlock) * kFlashBlockEntries);
  UINT32 count = GetBlockCount() < kFlashBlockEntries ? GetBlockCount() : kFlashBlockEntries;
  return table && BlocksMakeUpRom((const FlashBlock*)table.Data(), count);
}

namespace {

// The bar's position for block index of count: integer percent; a single-block flash shows 0
// while it writes and 100 once the loop is through.
UINT8 BlockPercent(UINT32 index, UINT32 count) {
  if (count <= 1) {
    return 0;
  }
  return (UINT8)((index * 100) / (count - 1));
}

Bool InRange(UINT32 address, UINT32 first, UINT32 last) { return address >= first && address <= last; }

// The flash range that holds the BVDT; a zero size means no block is held back for last.
struct BvdtRange {
  UINT32 address;
  UINT32 size;
};

// A block is held back for the second pass exactly when its first or last byte lies in the
// BVDT range.
Bool OverlapsBvdt(const FlashBlock& block, BvdtRange bvdt) {
  if (bvdt.size == 0) {
    return false;
  }
  UINT32 bvdtLast = bvdt.address + bvdt.size - 1;
  UINT32 blockLast = block.address + block.size - 1;
  return InRange(block.address, bvdt.address, bvdtLast) || InRange(blockLast, bvdt.address, bvdtLast);
}

// On the launcher path a locked ME region is found by reading it once: the firmware answers
// such a read with 0x2A, and the update then leaves the region alone instead of failing in it.
VOID ProbeMeLock(UINT32 size) {
  if ((GetRegionFlags() & kRegionMe) == 0 || size != GetRomSize()) {
    return;
  }
  UINT32 offset = 0;
  UINT32 regionSize = 0;
  UINT8 access = 0;
  if (!FindCurrentRegion(kExternalMe, &offset, &regionSize, &access)) {
    return;
  }
  UINT32 address = GetRomBase() + offset;
  LogPrint(kLogDetail, kTraceMeProbe, address);
  SMI_ReadRom(address, GetBlockSize(), {});
  if (IsMeLocked()) {
    SetSkipMeRegion();
    Print(kWarningMeLocked);
    gBS->Stall(kMeProbeWarningStall);
  }
}

// What both entries share before the write: the region maps when a part of the ROM is chosen,
// then the image laid into the update buffer. Gives the reason of a failure (null on success);
// the entry closes its own trace with it.
const CHAR16* LayOutImage(const UINT8* image, UINT32 size, UINT32 romSize, Bool launcher) {
  if (GetRegionFlags() != 0 || size < romSize) {
    if (!GetExternalMaps(image, size)) {
      return kReasonExternalMaps;
    }
    if (GetRegionFlags() != 0 && !CheckCurrentRegions(size >= romSize)) {
      return kReasonRegionMap;
    }
  }
  if (launcher) {
    ProbeMeLock(size);
  }
  Bool laidOut = size < romSize ? UpdateRegionLegacy(image, size) : UpdateEntireLegacy(image, size);
  return laidOut ? nullptr : kReasonLayout;
}

// The facts of a block are gathered for the block map only, which lives in the trace log: a
// run without a log skips the map lookups of every block.
VOID MarkBlock(UINT32 address, UINT16 mark) {
  if (BlockMapWanted()) {
    AddBlockMark(DescribeBlock(address, mark));
  }
}

}  // namespace

Bool FuncUpdate_via15h(const UINT8* image, UINT32 size) {
  UINT32 romSize = GetRomSize();
  TraceScope trace(kFuncUpdateVia15h);
  if (!TakeUpdateBuffer(romSize)) {
    Print(kErrorAllocateUpdate, romSize);
    return trace.Fail(kReasonAllocate);
  }
  LogPrint(kLogSettings, kTraceImageSize, size);
  if (!BlockTableMakesUpRom()) {
    return trace.Fail(kReasonBlocksNotRom);
  }
  if (const CHAR16* reason = LayOutImage(image, size, romSize, false)) {
    return trace.Fail(reason);
  }
  // Without the tool's own platform name check the firmware sees the whole ROM image first.
  if (!PlatformNameCheckNeeded() && !FuncOblis_1Bh(gWriter.updateBuffer, romSize)) {
    return trace.Fail(kReasonModuleCheck);
  }
  // The ME tool runs last before the first block is written; its failure leaves the BIOS alone.
  if (!UpdateOemME()) {
    return trace.Fail(kReasonOemMe);
  }
  Bool written = WriteBlocks({gWriter.updateBuffer, gWriter.updateBufferBytes});
  SMI_OemOdmCustom2(kOdmActionEnd, written ? kOdmStatusGood : kOdmStatusBad);
  if (!written) {
    return trace.Fail(kReasonWrite);
  }
  SetStatus_16h(kFinishLeaveAsIs, kFinishLeaveAsIs, kFinishCompleteSuccess, CommonFlashFinishAction);
  return true;
}

Bool EfiUpdate_via15h(const UINT8* image, UINT32 size) {
  UINT32 romSize = GetRomSize();
  TraceScope trace(kEfiUpdateVia15h);
  if (!TakeUpdateBuffer(romSize)) {
    Print(kErrorAllocateUpdate, romSize);
    return trace.Fail(kReasonAllocate);
  }
  // The shell path tells the firmware in its own sequence; the launcher path does it here.
  if (!SMI_OemOdmCustom2(kOdmActionStart, 0)) {
    return trace.Fail(kReasonOdmStart);
  }
  LogPrint(kLogSettings, kTraceEfiUpdate, size);
  if (!BlockTableMakesUpRom()) {
    return trace.Fail(kReasonBlocksNotRom);
  }
  if (const CHAR16* reason = LayOutImage(image, size, romSize, true)) {
    return trace.Fail(reason);
  }
  Bool written = WriteBlocks({gWriter.updateBuffer, gWriter.updateBufferBytes});
  SMI_OemOdmCustom2(kOdmActionEnd, written ? kOdmStatusGood : kOdmStatusBad);
  gBS->Stall(kLauncherResultStall);
  if (!written) {
    return trace.Fail(kReasonWrite);
  }
  SetStatus_16h(kFinishLeaveAsIs, kFinishLeaveAsIs, kFinishCompleteSuccess, CommonFlashFinishAction);
  return true;
}

Bool UpdateEntireLegacy(const UINT8* image, UINT32 size) {
  UINT32 romSize = GetRomSize();
  if (image == nullptr || gWriter.updateBuffer == nullptr || size < romSize) {
    return false;
  }
  // What stands in front of the last ROM-size bytes is an EC image.
  UINT32 ecSize = size - romSize;
  LogPrint(kLogSettings, kTraceEntireLegacy, romSize, size, ecSize / 1024);
  if (!FuncChk_SizeEC(ecSize)) {
    return false;
  }
  if (ecSize != 0) {
    KeepEcImage(image, ecSize);
  }
  CopyMem(gWriter.updateBuffer, image + ecSize, romSize);
  if (GetRegionFlags() != 0) {
    SetRsvd_17h();
  }
  SetRsvd_13h(IsSecureBootSupport);
  return true;
}

Bool UpdateRegionLegacy(const UINT8* image, UINT32 size) {
  UINT32 romSize = GetRomSize();
  if (image == nullptr || gWriter.updateBuffer == nullptr) {
    return false;
  }
  if (GetRegionFlags() == 0) {
    Print(kErrorSizeNotMatch, romSize, size);
    return false;
  }
  UINT32 biosOffset = 0;
  UINT32 biosSize = 0;
  UINT8 access = 0;
  Bool haveBios = FindCurrentRegion(kExternalBios, &biosOffset, &biosSize, &access);
  UINT32 ecSize = 0;
  if ((GetRegionFlags() & kRegionBios) != 0) {
    // Unsigned on purpose: a file smaller than the BIOS region gives a huge EC size, which the
    // EC size check refuses.
    ecSize = size - biosSize;
  }
  LogPrint(kLogSettings, kTraceRegionLegacy, biosSize, size, ecSize / 1024);
  if (!FuncChk_SizeEC(ecSize)) {
    return false;
  }
  if (!CheckRegionSize(size - ecSize)) {
    return false;
  }
  if (ecSize == 0) {
    PlaceRegionImage(gWriter.updateBuffer, image, size);
  } else {
    UINT32 biosBytes = size - ecSize;
    // The BIOS part must land inside the ROM; a map that says otherwise writes nothing.
    if (!haveBios || biosOffset > romSize || biosBytes > romSize - biosOffset) {
      Print(kErrorSizeNotMatch, romSize, size);
      return false;
    }
    KeepEcImage(image, ecSize);
    CopyMem(gWriter.updateBuffer + biosOffset, image + ecSize, biosBytes);
  }
  SetRsvd_17h();
  SetRsvd_13h(IsSecureBootSupport);
  return true;
}

Bool WriteBlocks(ImageView buffer) {
  TraceScope trace(kWriteBlocks);
  FlashBlock* table = CopyBlockTable();
  PoolBuffer tableHeld;
  tableHeld.Adopt((UINT8*)table, sizeof(FlashBlock) * kFlashBlockEntries);
  UINT32 count = GetBlockCount();
  if (table == nullptr || buffer.data == nullptr) {
    return trace.Fail(kReasonBlockTable);
  }
  if (count > kFlashBlockEntries) {
    count = kFlashBlockEntries;
  }
  if (!BlocksMakeUpRom(table, count)) {
    return trace.Fail(kReasonBlocksNotRom);
  }
  if (BlocksTotal(table, count) > buffer.length) {
    Print(kErrorBlocksPastBuffer, buffer.length);
    return trace.Fail(kReasonBlockTable);
  }
  StartProgressTimer();
  HexDumpFramed(kLabelBlockTable, table, count * (UINT32)sizeof(FlashBlock));
  SMI_ApHookPoint(kHookPointStartWriteRom);

  // The block or blocks that hold the BVDT go after all others, so that a stopped update
  // leaves the old identity in place and the firmware still knows what it runs.
  BvdtRange bvdt = {0, 0};
  if (!FindBvdtBlock(&bvdt.address, &bvdt.size)) {
    bvdt.size = 0;
  }

  UINT32 offset = 0;
  for (UINT32 i = 0; i < count; i++) {
    const FlashBlock& block = table[i];
    ImageView data = {buffer.data + offset, block.size};
    offset += block.size;
    ShowProgress(BlockPercent(i, count));
    if (block.protectedFlag != 0) {
      MarkBlock(block.address, kMarkProtected);
      continue;
    }
    if (OverlapsBvdt(block, bvdt)) {
      MarkBlock(block.address, kMarkHeldBack);
      continue;
    }
    BlockResult result = SMI_WriteRom(block.address, data);
    if (result == BlockResult::Failed) {
      return trace.Fail(kReasonWrite);
    }
    MarkBlock(block.address, (UINT16)result);
  }

  offset = 0;
  for (UINT32 i = 0; i < count; i++) {
    const FlashBlock& block = table[i];
    ImageView data = {buffer.data + offset, block.size};
    offset += block.size;
    if (block.protectedFlag != 0 || !OverlapsBvdt(block, bvdt)) {
      continue;
    }
    LogPrint(kLogDetail, kTraceWriteBvdt, block.address, block.size);
    if (SMI_WriteRom(block.address, data) == BlockResult::Failed) {
      return trace.Fail(kReasonWrite);
    }
  }

  ShowProgress(100);
  if (count != 0) {
    MarkBlock(table[count - 1].address, kMarkProtected);
  }
  return true;
}

BlockResult SMI_WriteRom(UINT32 address, ImageView block) {
  TraceScope trace(kSmiWriteRom);
  Bool verify = Settings()->others.disableVerify == 0;
  UINT32 attempts = WriteAttempts();
  if (CompareEnabled() && CompareCurrentFD(address, block.length, block.data)) {
    return BlockResult::Compared;
  }
  Bool verifyFailed = false;
  for (UINT32 attempt = 0; attempt < attempts; attempt++) {
    UINT8 status = 0;
    // The channel has already retried a failing call; a refused write is not tried again here.
    if (!Oblis_15h(block.data, block.length, address, &status)) {
      trace.SetReason(kReasonWrite);
      return BlockResult::Failed;
    }
    if (status == kOblisBlockSkipped) {
      // The firmware skipped this block: there is nothing of ours to read back.
      verify = false;
    }
    if (!verify) {
      break;
    }
    if (CompareCurrentFD(address, block.length, block.data)) {
      return BlockResult::Verified;
    }
    verifyFailed = true;
    LogPrint(kLogDetail, kTraceVerifyFailed, attempt);
  }
  if (verifyFailed) {
    trace.SetReason(kReasonVerify);
    return BlockResult::Failed;
  }
  return BlockResult::Written;
}

Bool CompareCurrentFD(UINT32 address, UINT32 size, const UINT8* data) {
  if (data == nullptr) {
    return false;
  }
  PoolBuffer current(size);
  if (!current) {
    return false;
  }
  // A read into the locked ME region counts as read: the buffer then decides.
  if (!SMI_ReadRom(address, size, current.View())) {
    LogPrint(kLogDetail, kTraceCompareFail);
    return false;
  }
  return CompareMem(current.Data(), data, size) == 0;
}

VOID ResetBlockWriterState() {
  gWriter = {};
}

VOID ResetUpdateState() {
  ResetBlockWriterState();
  ResetCapsuleState();
  ResetEcState();
  ResetOemMeState();
  ResetRegionState();
  ResetPfatState();
  ResetRbuState();
}

VOID ReleaseUpdateMemory() {
  FreePoolAndNull(gWriter.updateBuffer);
  ReleaseRegionMemory();
}
