// The EC update: the firmware's word on the size of an EC image (function 21h) and the write of
// the staged image through function 20h, in one call or block by block under the protect mask.
// Staging the image (KeepEcImage) belongs to the road that found it; the mains choose the road.
#include "checks/Checks.h"
#include "config/Config.h"
#include "HostSettings.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "PlatformSeams.h"
#include "update/UpdateInternal.h"

namespace {

constexpr UINT32 kHookPointStartWriteEc = 4;
constexpr UINT32 kSignatureBytes = 8;
constexpr CHAR8 kRequestSignature[kSignatureBytes] = {'$', 'B', 'U', 'F', 'F', 'E', 'R', '_'};
constexpr CHAR8 kPartTableSignature[kSignatureBytes] = {'$', 'E', 'C', 'I', 'N', 'F', 'O', '_'};
constexpr UINT32 kRequestSizeOffset = 8;
constexpr UINT32 kPartCountOffset = 8;
constexpr UINT32 kPartSizesOffset = 12;
constexpr UINT32 kAlphaDumpBytes = 16;
constexpr UINT32 kDataDumpBytes = 0x20;
constexpr UINT32 kSmallBlockBytes = 0x1000;
constexpr UINT32 kLargeBlockBytes = 0x10000;
constexpr UINT8 kSmallBlockSetting = 4;
constexpr UINT32 kBlockCountLimit = 0xFF;  // the block number travels in CH
static_assert(kPartSizesOffset + kEcPartLimit * 4 == kEcInfoRecordBytes, "the kept answer holds ten parts");

// The EC sizes that functions 21h and 20h name by index.
constexpr UINT32 kSizeIndexBytes[] = {0x10000, 0x20000, 0x40000, 0x80000, 0x100000, 0x200000};
constexpr UINT8 kSizeIndexCount = sizeof(kSizeIndexBytes) / sizeof(kSizeIndexBytes[0]);

// CL of function 20h.
constexpr UINT8 kActionMoreBlocks = 0xEF;
constexpr UINT8 kActionLastBlock = 0;
constexpr UINT8 kActionLastReboot = 1;
constexpr UINT8 kActionLastShutdown = 5;
// The run's finish actions (SetStatus_16h) that a last block can carry.
constexpr UINT8 kFinishShutdown = 1;
constexpr UINT8 kFinishReboot = 2;

constexpr CHAR16 kFuncOblis21h[] = u"FuncOblis_21h";
constexpr CHAR16 kOblis21h[] = u"Oblis_21h";
constexpr CHAR16 kWriteEcBlockByBlock[] = u"WriteEcBlockByBlock";
constexpr CHAR16 kSmiWriteEc[] = u"SMI_WriteEc";
constexpr CHAR16 kOblis20h[] = u"Oblis_20h";

constexpr CHAR16 kReasonAllocateOblis[] = u"Allocate OBLIS memory failed";
constexpr CHAR16 kReasonAllocate[] = u"Allocate memory failed";
constexpr CHAR16 kReasonNotSuccess[] = u"BIOS return not success";
constexpr CHAR16 kReasonWriteEc[] = u"Write EC failed";
constexpr CHAR16 kReason20hFailed[] = u"OBLIS 20h failed";
constexpr CHAR16 kReasonBlockPastBuffer[] = u"EC block past the EC buffer";
constexpr CHAR16 kReasonPieceTooLarge[] = u"Piece size over OBLIS buffer";
constexpr CHAR16 kReasonTooManyBlocks[] = u"Too many EC blocks";

constexpr CHAR16 kDockWarningDefault[] = u"Get EC part information fail.\r\n";
constexpr CHAR16 kTraceNewSizeIndex[] = u"new size index |%2d| (%dK) 0x%x\r\n";
constexpr CHAR16 kLabel21hAlpha[] = u"===== 21h alpha =====\r\n";
constexpr CHAR16 kLabel21hInfo[] = u"===== 21h Info =====\r\n";
constexpr CHAR16 kTraceNotSupported[] = u"OBLIS function not support\r\n";
constexpr CHAR16 kTraceIgnore21h[] = u"Ignore 21h enabled.\r\n";
constexpr CHAR16 kTrace21hFailed[] = u"OBLIS 21h failed. (0x%x)\r\n";
constexpr CHAR16 kTraceCurrentIndex[] = u"curr Size Index |%2x| (%dK)\r\n";
constexpr CHAR16 kTraceSignatureInvalid[] = u"Signature invalid\r\n";
constexpr CHAR16 kTracePartHead[] = u"EC part information (21h)\r\n     |    size\r\n-----+-----------\r\n";
constexpr CHAR16 kTracePart[] = u" %d    0x%lx\r\n";
constexpr CHAR16 kTraceSizeNotMatch[] = u"size |NOT| match with current(%dK/%dK)\r\n";
constexpr CHAR16 kTraceSizeMatch[] = u"size |EC| n/c (%dK/%dK)\r\n";
constexpr CHAR16 kStartEcUpdate[] = u"\r\n                           Start EC Update";
constexpr CHAR16 kEcUpdateComplete[] = u"\r                           Updating EC complete.\n";
constexpr CHAR16 kTraceEcData[] = u"===== EC Data (%d)=====\r\n";
constexpr CHAR16 kTraceEcDataEnd[] = u"===== EC Data =====\r\n";
constexpr CHAR16 kTrace20hRequest[] = u" Size %X\r\n Action %2X\r\n";
constexpr CHAR16 kTrace20hAction[] = u"Set 20h |Actn| %d\r\n";
constexpr CHAR16 kTraceCommandEcbp[] = u" Command -ecbp\r\n";
constexpr CHAR16 kTraceCommandEcb[] = u" Command -ecb\r\n";
constexpr CHAR16 kTraceProgressBarOn[] = u" ProgressBar=1\r\n";
constexpr CHAR16 kTraceProgressBarOff[] = u" ProgressBar=0\r\n";

// What the firmware itself leaves undefined is refused here, before the EC hears of it.
constexpr CHAR16 kErrorEcEmpty[] = u"ERROR!\r\nThe EC file is empty.\r\nNothing was written.\r\n";
constexpr CHAR16 kErrorEcTooLarge[] =
    u"ERROR!\r\nThe EC file (0x%x bytes) is larger than the EC buffer (0x%x bytes).\r\nNothing was written.\r\n";
constexpr CHAR16 kErrorSingleBlockTooLarge[] =
    u"ERROR!\r\nThe EC image (%dK) does not fit one OBLIS call (%dK): write it block by block.\r\n"
    u"Nothing was written to the EC.\r\n";
constexpr CHAR16 kErrorTooManyBlocks[] =
    u"ERROR!\r\nThe EC image (%dK) needs %d blocks of %dK; at most 255 can be numbered.\r\n"
    u"Nothing was written to the EC.\r\n";

constexpr UINT8 kAccept20h[] = {kOblisSuccess};
constexpr UINT8 kAccept21h[] = {kOblisSuccess, kOblisUnsupported};
// A firmware without function 21h says so at once: no retries, no delay.
constexpr UINT8 kLoopEnding21h[] = {kOblisUnsupported};

struct EcState {
  UINT32 partInfo[kEcPartLimit];
  UINT32 partCount;
};
constinit EcState gEc = {};

struct SizeCall {
  UINT8 sizeIndex;
  UINT32 esi;
  UINT8 answerIndex;  // CL of the last answer
};

struct BlockCall {
  UINT8 action;
  UINT8 block;
  UINT32 size;
  UINT32 esi;
};

// The index of the table that names exactly this size, or the one that says "no index".
UINT8 SizeToIndex(UINT32 size) {
  for (UINT8 index = 0; index < kSizeIndexCount; ++index) {
    if (kSizeIndexBytes[index] == size) {
      return index;
    }
  }
  return kEcSizeIndexUnknown;
}

UINT32 IndexToSize(UINT8 index) { return index < kSizeIndexCount ? kSizeIndexBytes[index] : 0; }

// What the firmware's parts hold together; a sum past 32 bits is as good as unlimited.
UINT32 PartsTotal() {
  UINT64 total = gEc.partInfo[0];
  for (UINT32 i = 1; i < gEc.partCount; ++i) {
    total += gEc.partInfo[i];
  }
  return total > 0xFFFFFFFFull ? 0xFFFFFFFFu : (UINT32)total;
}

Bool WriteEcSingleBlock(UINT32 size) {
  // The whole image travels in the shared buffer; a larger one would be copied past its end.
  if (size > kOblisBufferSize) {
    Print(kErrorSingleBlockTooLarge, size / 1024, kOblisBufferSize / 1024);
    return false;
  }
  return SMI_WriteEc(0, size, true);
}

}  // namespace

Bool Oblis_21h(UINT32 size, UINT8* index, UINT8* record) {
  FailureTrace trace(kOblis21h);
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  CopyMem(buffer, kRequestSignature, kSignatureBytes);
  WriteU32(buffer + kRequestSizeOffset, size);
  SizeCall call = {SizeToIndex(size), PhysicalAddressOf(buffer), kEcSizeIndexUnknown};
  LogPrint(kLogDetail, kTraceNewSizeIndex, call.sizeIndex, size / 1024, size);
  if (call.sizeIndex == kEcSizeIndexUnknown) {
    HexDumpFramed(kLabel21hAlpha, buffer, kAlphaDumpBytes);
  }

  OblisRetrySpec spec = {0x21, kAccept21h, 2, kLoopEnding21h, 1, false};
  auto attempt = [](VOID* context) -> UINT8 {
    SizeCall* c = (SizeCall*)context;
    UINT16 answer = OblisCall_21h(c->sizeIndex, c->esi);
    c->answerIndex = (UINT8)(answer >> 8);
    return (UINT8)answer;
  };
  UINT8 status = kOblisNoAttempt;
  RunOblisRetries(&spec, attempt, &call, &status);
  UINT8 current = call.answerIndex;
  if (status == kOblisUnsupported) {
    LogPrint(kLogDetail, kTraceNotSupported);
    if (Settings()->updateEc.ignore21h) {
      // Without the function the size can only be taken as the firmware's.
      LogPrint(kLogDetail, kTraceIgnore21h);
      status = kOblisSuccess;
      current = SizeToIndex(size);
    }
  }
  if (status != kOblisSuccess) {
    LogPrint(kLogDetail, kTrace21hFailed, status);
    return trace.Fail(kReasonNotSuccess);
  }
  if (index != nullptr) {
    *index = current;
  }
  LogPrint(kLogDetail, kTraceCurrentIndex, current, IndexToSize(current) / 1024);
  if (current == kEcSizeIndexUnknown) {
    HexDumpFramed(kLabel21hInfo, buffer, kEcInfoRecordBytes);
    if (record != nullptr) {
      CopyMem(record, buffer, kEcInfoRecordBytes);
    }
  }
  return true;
}

Bool ParseEcPartInfo(UINT8 index, const UINT8* record) {
  gEc = {};
  gEc.partInfo[0] = IndexToSize(index);
  gEc.partCount = 1;
  if (index != kEcSizeIndexUnknown) {
    return true;
  }
  if (record == nullptr || CompareMem(record, kPartTableSignature, kSignatureBytes) != 0) {
    LogPrint(kLogDetail, kTraceSignatureInvalid);
    return false;
  }
  LogPrint(kLogDetail, kTracePartHead);
  // The kept answer has room for ten sizes; a larger count is the firmware's mistake.
  UINT32 count = ReadU32(record + kPartCountOffset);
  gEc.partCount = count < kEcPartLimit ? count : kEcPartLimit;
  for (UINT32 i = 0; i < gEc.partCount; ++i) {
    gEc.partInfo[i] = ReadU32(record + kPartSizesOffset + 4 * i);
    LogPrint(kLogDetail, kTracePart, i, (UINT64)gEc.partInfo[i]);
  }
  return true;
}

const UINT32* EcPartInfo() { return gEc.partInfo; }
UINT32 EcPartCount() { return gEc.partCount; }

Bool FuncOblis_21h(UINT32 size) {
  TraceScope trace(kFuncOblis21h);
  UINT8 record[kEcInfoRecordBytes] = {};
  UINT8 index = kEcSizeIndexUnknown;
  if (!Oblis_21h(size, &index, record)) {
    // A message from the settings is text, never a format.
    const CHAR16* text = GetMessageText(Settings()->updateEc.ecDockWarning, kDockWarningDefault);
    Print(u"%s", text);
    FreeMessageText(text, kDockWarningDefault);
    return false;
  }
  if (!ParseEcPartInfo(index, record)) {
    return false;
  }
  // An image larger than the first part may still fit the parts together.
  UINT32 total = size > gEc.partInfo[0] ? PartsTotal() : gEc.partInfo[0];
  if (size > total) {
    LogPrint(kLogDetail, kTraceSizeNotMatch, size / 1024, total / 1024);
    return false;
  }
  LogPrint(kLogDetail, kTraceSizeMatch, size / 1024, total / 1024);
  return true;
}

Bool Set20hAction(UINT8* action) {
  if (!Settings()->updateEc.action20h || !IsCommonFlashActive() || !IsVendor(kVendorAcer)) {
    return false;
  }
  UINT8 finish = GetFinishAction();
  UINT8 value = kActionLastBlock;
  if (finish == kFinishShutdown) {
    value = kActionLastShutdown;
  } else if (finish == kFinishReboot) {
    value = kActionLastReboot;
  }
  LogPrint(kLogDetail, kTrace20hAction, value);
  if (action != nullptr) {
    *action = value;
  }
  return true;
}

Bool Oblis_20h(const UINT8* data, UINT32 count, UINT8 action, UINT8 block) {
  TraceScope trace(kOblis20h);
  if (data == nullptr || count > kOblisBufferSize) {
    return trace.Fail(kReasonPieceTooLarge);
  }
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  LogPrint(kLogDetail, kTrace20hRequest, count, action);
  CopyMem(buffer, data, count);
  BlockCall call = {action, block, count, PhysicalAddressOf(buffer)};
  OblisRetrySpec spec = {0x20, kAccept20h, 1, nullptr, 0, false};
  auto attempt = [](VOID* context) -> UINT8 {
    BlockCall* c = (BlockCall*)context;
    return (UINT8)OblisCall_20h(c->action, c->block, c->size, c->esi);
  };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr)) {
    return trace.Fail(refusal);
  }
  return true;
}

Bool SMI_WriteEc(UINT8 block, UINT32 count, Bool isLast) {
  TraceScope trace(kSmiWriteEc);
  UINT8 action = kActionMoreBlocks;
  if (isLast) {
    action = kActionLastBlock;
    Set20hAction(&action);
  }
  // The block is a slice of the staged image: it must lie inside the EC buffer.
  const UINT8* ecBuffer = GetEcBuffer();
  if (ecBuffer == nullptr || (UINT64)block * count + count > kEcBufferBytes) {
    return trace.Fail(kReasonBlockPastBuffer);
  }
  PoolBuffer copy(count);
  if (!copy) {
    return trace.Fail(kReasonAllocate);
  }
  CopyMem(copy.Data(), ecBuffer + (UINT32)block * count, count);
  LogPrint(kLogDetail, kTraceEcData, block);
  HexDump(copy.Data(), count < kDataDumpBytes ? count : kDataDumpBytes);
  LogPrint(kLogDetail, kTraceEcDataEnd);
  if (!Oblis_20h(copy.Data(), count, action, block)) {
    return trace.Fail(kReason20hFailed);
  }
  return true;
}

Bool BuildEcBlockPlan(UINT32 size, EcBlockPlan* plan) {
  if (plan == nullptr) {
    return false;
  }
  ZeroMem(plan, sizeof(*plan));
  const auto& settings = Settings()->updateEc;
  plan->blockSize = settings.ecBlockSize == kSmallBlockSetting ? kSmallBlockBytes : kLargeBlockBytes;
  UINT32 count = size / plan->blockSize + (size % plan->blockSize != 0 ? 1 : 0);
  // The count must not wrap: a block number that came round again would overwrite block 0.
  if (count > kBlockCountLimit) {
    return false;
  }
  plan->blockCount = (UINT8)count;
  if (settings.enableEcProtectMask) {
    UINT32 inForce = settings.protectMaskBitCount < count ? settings.protectMaskBitCount : count;
    // Bit i of the mask protects block i; -ec_crisis writes exactly the protected ones instead.
    Bool crisis = Flags()->ecCrisis;
    for (UINT32 i = 0; i < inForce; ++i) {
      Bool set = ((settings.maskByte[i / 8] >> (i % 8)) & 1) != 0;
      plan->skip[i] = set != crisis ? 1 : 0;
    }
  }
  for (UINT32 i = 0; i < count; ++i) {
    if (plan->skip[i] == 0) {
      plan->lastBlock = (UINT8)i;
    }
  }
  return true;
}

Bool WriteEcBlockByBlock(UINT32 size) {
  TraceScope trace(kWriteEcBlockByBlock);
  EcBlockPlan plan;
  // The plan is made before the firmware hears that the EC write starts, so that a refused
  // image leaves no trace on its side.
  if (!BuildEcBlockPlan(size, &plan)) {
    UINT32 blockSize = Settings()->updateEc.ecBlockSize == kSmallBlockSetting ? kSmallBlockBytes : kLargeBlockBytes;
    Print(kErrorTooManyBlocks, size / 1024, (size + blockSize - 1) / blockSize, blockSize / 1024);
    return trace.Fail(kReasonTooManyBlocks);
  }
  SMI_ApHookPoint(kHookPointStartWriteEc);
  Print(kStartEcUpdate);
  // The firmware keeps every block until the last one, which carries the finish mark; a mask
  // that skips the highest blocks moves that mark down to the highest block written.
  Bool isLast = false;
  for (UINT32 i = 0; i < plan.blockCount; ++i) {
    isLast = isLast || i == plan.lastBlock;
    if (plan.skip[i] != 0) {
      continue;
    }
    if (!SMI_WriteEc((UINT8)i, plan.blockSize, isLast)) {
      return trace.Fail(kReasonWriteEc);
    }
  }
  Print(kEcUpdateComplete);
  return true;
}

Bool WriteEc(Bool singleBlock) {
  UINT32 size = KeptEcSize();
  return singleBlock ? WriteEcSingleBlock(size) : WriteEcBlockByBlock(size);
}

Bool EcImageFits(UINT32 size) {
  if (size == 0) {
    Print(kErrorEcEmpty);
    return false;
  }
  if (size > kEcBufferBytes) {
    Print(kErrorEcTooLarge, size, kEcBufferBytes);
    return false;
  }
  return true;
}

Bool FlashEcOnly(const UINT8* image, UINT32 size) {
  if (image == nullptr || !EcImageFits(size)) {
    return false;
  }
  KeepEcImage(image, size);
  return WriteEc(!Flags()->ecp);
}

Bool UpdateEcAfterBios() {
  const CommandFlags* flags = Flags();
  Bool secureImage = IsSecureImage(nullptr);
  if (flags->ecbp && !secureImage) {
    LogPrint(kLogDetail, kTraceCommandEcbp);
    return WriteEc(false);
  }
  if (flags->ecb && !secureImage) {
    LogPrint(kLogDetail, kTraceCommandEcb);
    return WriteEc(true);
  }
  // A secure platform got the EC slot with the whole image; only a legacy one needs the tool.
  if (HasSecureEc(nullptr) && !SMI_IsSecurePlatform()) {
    Bool blockByBlock = Settings()->updateEc.progressBar;
    LogPrint(kLogDetail, blockByBlock ? kTraceProgressBarOn : kTraceProgressBarOff);
    return WriteEc(!blockByBlock);
  }
  return true;
}

VOID ResetEcState() {
  gEc = {};
}
