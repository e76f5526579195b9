// The direct write of -e:Offset,Size,Address: a stretch of the file goes to a physical flash
// address block by block, with the block writer's compare and verify. No BVDT, model, version,
// protection or region logic applies; what the stretch covers is the user's choice.
#include "checks/Checks.h"
#include "config/Config.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

constexpr UINT32 kHookPointStartWriteRom = 3;
constexpr UINT32 kFileAlignment = 0x10000;
constexpr UINT8 kFinishNothing = 0;
constexpr UINT8 kFinishShutdown = 1;
constexpr UINT8 kFinishReboot = 2;
constexpr UINT8 kFinishPartial = 2;

constexpr CHAR16 kFuncCommandE[] = u"FuncCommand_e";
constexpr CHAR16 kErrorAddressZero[] = u"Error: Bad argument. Update Address is 0.\r\n";
constexpr CHAR16 kErrorAddressLow[] = u"Error: Bad argument. Update Address must higher than 0x%lx.\r\n";
constexpr CHAR16 kErrorOffsetPastFile[] = u"Error: File offest 0x%x is bigger than file size 0x%x.\r\n";
constexpr CHAR16 kErrorStretchPastFile[] = u"Error: File offest + size 0x%x is bigger than file size 0x%x.\r\n";
constexpr CHAR16 kErrorAlignment[] = u"Error: File size msut be sector size alignment.\r\n";
// Every step writes a whole block, so the last one must still lie inside the file.
constexpr CHAR16 kErrorBlockPastFile[] =
    u"Error: The last block of 0x%x bytes ends at file offest 0x%x, past file size 0x%x.\r\n";
constexpr CHAR16 kTraceInvalid[] = u"IsValidCommand_e() |fail|\r\n";
constexpr CHAR16 kTraceStart[] = u" Start Address 0x%08X\r\n";
constexpr CHAR16 kTraceEnd[] = u" End Address 0x%08X\r\n";
constexpr CHAR16 kUpdating[] = u"\r         Command -e updating\r\n";
constexpr CHAR16 kProgressStart[] = u"\r         ";
constexpr CHAR16 kProgressTen[] = u"%d";
constexpr CHAR16 kProgressDot[] = u".";
constexpr CHAR16 kLineEnd[] = u"\r\n";
constexpr CHAR16 kReasonWrite[] = u"Write ROM failed";

// The bytes the request covers: an empty size runs to the end of the file.
UINT32 StretchSize(UINT32 fileSize) {
  const CommandFlags* flags = Flags();
  return flags->eSize != 0 ? flags->eSize : fileSize - flags->eOffset;
}

// offset * 100 / size in 32 bits: exact up to a stretch of 42 MB, by hundredths beyond.
UINT8 StretchPercent(UINT32 offset, UINT32 size) {
  constexpr UINT32 kExactUpTo = 0xFFFFFFFFu / 100;
  return (UINT8)(size <= kExactUpTo ? offset * 100 / size : offset / (size / 100));
}

}  // namespace

VOID ShowWriteProgress(UINT8 percent) {
  Print(kProgressStart);
  for (UINT32 p = 0; p <= percent; p++) {
    if (p % 10 == 0) {
      Print(kProgressTen, p);
    } else if (p % 2 == 0) {
      Print(kProgressDot);
    }
  }
}

Bool IsValidCommand_e(UINT32 fileSize) {
  const CommandFlags* flags = Flags();
  if (flags->eAddress == 0) {
    Print(kErrorAddressZero);
    return false;
  }
  if (flags->eAddress < GetRomBase()) {
    Print(kErrorAddressLow, (UINT64)GetRomBase());
    return false;
  }
  if (flags->eOffset > fileSize) {
    Print(kErrorOffsetPastFile, flags->eOffset, fileSize);
    return false;
  }
  UINT64 end = (UINT64)flags->eOffset + StretchSize(fileSize);
  if (end > fileSize) {
    Print(kErrorStretchPastFile, (UINT32)end, fileSize);
    return false;
  }
  if (fileSize % kFileAlignment != 0) {
    Print(kErrorAlignment);
    return false;
  }
  UINT32 blockSize = GetBlockSize();
  UINT32 size = StretchSize(fileSize);
  // 32-bit division only: the firmware build has no 64-bit one.
  UINT32 blocks = blockSize == 0 ? 0 : size / blockSize + (size % blockSize != 0 ? 1 : 0);
  UINT64 blocksEnd = (UINT64)flags->eOffset + (UINT64)blocks * blockSize;
  if (blockSize == 0 || blocksEnd > fileSize) {
    Print(kErrorBlockPastFile, blockSize, (UINT32)blocksEnd, fileSize);
    return false;
  }
  return true;
}

Bool FuncCommand_e(const UINT8* image, UINT32 fileSize) {
  TraceScope trace(kFuncCommandE);
  if (image == nullptr || !IsValidCommand_e(fileSize)) {
    LogPrint(kLogDetail, kTraceInvalid);
    return false;
  }
  const CommandFlags* flags = Flags();
  SMI_ApHookPoint(kHookPointStartWriteRom);
  UINT32 size = StretchSize(fileSize);
  LogPrint(kLogDetail, kTraceStart, flags->eAddress);
  LogPrint(kLogDetail, kTraceEnd, flags->eAddress + size - 1);
  Print(kUpdating);
  UINT32 blockSize = GetBlockSize();
  for (UINT32 offset = 0; offset < size; offset += blockSize) {
    // The block writer only reads the block.
    ImageView block = {const_cast<UINT8*>(image) + flags->eOffset + offset, blockSize};
    if (SMI_WriteRom(flags->eAddress + offset, block) == BlockResult::Failed) {
      return trace.Fail(kReasonWrite);
    }
    ShowWriteProgress(StretchPercent(offset, size));
  }
  Print(kLineEnd);
  UINT8 action = flags->reboot ? kFinishReboot : (flags->shutdown ? kFinishShutdown : kFinishNothing);
  SetStatus_16h(kFinishLeaveAsIs, action, kFinishPartial, CommonFlashFinishAction);
  return true;
}
