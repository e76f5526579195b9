// Reading the flash: the read of the whole ROM in block table order through SMI_ReadRom, and the
// -g command that saves it to a file. What a locked ME means for an update is region selection's
// business; the query dispatcher lives in Queries.cpp.
#include "FileLayer.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

constexpr UINT32 kHookPointStartReadRom = 2;

constexpr CHAR16 kReadWholeRom[] = u"ReadWholeRom";
constexpr CHAR16 kReasonAllocate[] = u"Allocate memory failed";
constexpr CHAR16 kReasonNoBlockTable[] = u"No block table";
constexpr CHAR16 kReasonBlocksPastRom[] = u"Blocks reach past the ROM size";
constexpr CHAR16 kReasonBlocksNotRom[] = u"Block table does not make up the ROM";
constexpr CHAR16 kReasonReadFailed[] = u"Read ROM failed";

constexpr CHAR16 kReadProgress[] = u"\r                           Read Progress: %3d%% ";
constexpr CHAR16 kErrorNoFileName[] = u"\r\nError: No file name input!\r\n";
constexpr CHAR16 kErrorSaveFile[] = u"\r\nError: command -g fail.\r\nsave to file (%s) fail\r\n";
constexpr CHAR16 kReadRomStart[] = u"                           Read current ROM start!\r\n";
constexpr CHAR16 kErrorOblisFail[] = u"\r\nError: command -g fail. (Oblis fail)\r\n";
constexpr CHAR16 kReadCompleted[] = u"\r                           Read Progress: Completed\r\n\r\n\r\n\r\n\r\n";
constexpr CHAR16 kWarningMeLocked[] = u"Warning!\r\nME is locked. The ME region of the saved file is invalid.\r\n";

// done * 100 / total without a 64-bit division, which the 32-bit build has no helper for.
UINT32 Percent(UINT32 done, UINT32 total) {
  if (total == 0) {
    return 100;
  }
  UINT32 percent = done <= 0xFFFFFFFFu / 100 ? done * 100 / total : done / (total / 100);
  return percent > 100 ? 100 : percent;
}

}  // namespace

// The protected flag plays no part: -g saves the whole part, protected blocks included.
Bool ReadWholeRom(UINT8** data, UINT32* size) {
  TraceScope trace(kReadWholeRom);
  if (data == nullptr || size == nullptr) {
    return trace.Fail(kReasonAllocate);
  }
  *data = nullptr;
  *size = 0;
  UINT32 romSize = GetRomSize();
  UINT32 count = GetBlockCount();
  if (count > kFlashBlockEntries) {
    count = kFlashBlockEntries;
  }
  if (romSize == 0 || count == 0) {
    return trace.Fail(kReasonNoBlockTable);
  }
  // A table that does not make up the ROM would save a file of which a part was never read.
  if (!BlockTableMakesUpRom()) {
    return trace.Fail(kReasonBlocksNotRom);
  }
  PoolBuffer tableBlock;
  tableBlock.Adopt(reinterpret_cast<UINT8*>(CopyBlockTable()), kFlashBlockEntries * sizeof(FlashBlock));
  PoolBuffer buffer(romSize);
  if (!tableBlock || !buffer) {
    return trace.Fail(kReasonAllocate);
  }
  const FlashBlock* table = reinterpret_cast<const FlashBlock*>(tableBlock.Data());
  UINT32 done = 0;
  for (UINT32 index = 0; index < count; ++index) {
    UINT32 blockSize = table[index].size;
    // The blocks go to consecutive parts of the buffer; a table that claims more than the ROM
    // holds must not have them written past its end.
    if (blockSize > romSize - done) {
      return trace.Fail(kReasonBlocksPastRom);
    }
    if (!SMI_ReadRom(table[index].address, blockSize, {buffer.Data() + done, romSize - done})) {
      return trace.Fail(kReasonReadFailed);
    }
    done += blockSize;
    Print(kReadProgress, Percent(done, romSize));
  }
  *data = buffer.Release();
  *size = romSize;
  return true;
}

// -g. The file is created before the read so that a name that cannot be written is told at
// once; the data is written only when all of it has been read.
Bool SaveRomToFile(const CHAR16* name) {
  if (name == nullptr || name[0] == 0) {
    Print(kErrorNoFileName);
    return false;
  }
  if (!SaveBufferToFile(name, nullptr, 0)) {
    Print(kErrorSaveFile, name);
    return false;
  }
  Print(kReadRomStart);
  SMI_ApHookPoint(kHookPointStartReadRom);
  UINT8* data = nullptr;
  UINT32 size = 0;
  if (!ReadWholeRom(&data, &size)) {
    Print(kErrorOblisFail);
    return false;
  }
  Bool saved = SaveBufferToFile(name, data, size);
  FreePoolAndNull(data);
  if (!saved) {
    Print(kErrorSaveFile, name);
    return false;
  }
  Print(kReadCompleted);
  if (IsMeLocked()) {
    Print(kWarningMeLocked);
  }
  return true;
}
