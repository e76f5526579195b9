// The flash part of function 13h: the ROM size and base, the block count and size, and
// FlashBlockTable with one entry a block, the one flag per block that the writers obey and its
// display. Which regions to mark is decided by the marking step (BlockMarking.cpp).
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT8 kSizeIndexSpecified = 0xFF;
constexpr UINT8 kLastSizeIndex = 8;
constexpr UINT32 kSmallestRom = 0x10000;
constexpr UINT16 kBlockMapEndZero = 0;
constexpr UINT16 kBlockMapEndOnes = 0xFFFF;
constexpr UINT32 kBlockUnit = 256;

struct FlashPartState {
  UINT32 romSize;
  UINT32 romBase;
  UINT32 blockCount;
  UINT32 blockSize;
  FlashBlock table[kFlashBlockEntries];
};
constinit FlashPartState gFlash = {};

const CHAR16 kReasonAllocate[] = u"Allocate memory failed";
const CHAR16 kReasonBlockCount[] = u"Block count > 0x1000";
const CHAR16 kTracePartHead[] = u"Flash part information (13h)\r\n----------------+---------------\r\n";
const CHAR16 kTraceSizeIndex[] = u"     Size Index | 0x%x\r\n";
const CHAR16 kTraceVendor[] = u"         Vendor | (31-bytes)\r\n";
const CHAR16 kTraceType[] = u"           Type | (32-bytes)\r\n";
const CHAR16 kTraceDeviceId[] = u"      Device ID | 0x%x\r\n";
const CHAR16 kTraceSizeSpecified[] = u" Size Specified | 0x%x\r\n";
const CHAR16 kTraceBlank[] = u"                |\r\n";
const CHAR16 kTraceBlockEntry[] = u"     Block size | %x\r\n    Block times | %x\r\n";
const CHAR16 kTraceRomSize[] = u"       Rom Size | 0x%x\r\n";
const CHAR16 kTraceBaseAddr[] = u"      Base Addr | 0x%x\r\n";
const CHAR16 kTraceBlockCount[] = u"    Block Count | 0x%x\r\n";
const CHAR16 kBlockTableLine[] = u"[ %6d ] %08x:  %a     %a\n";
const CHAR16 kBlockSizeText[] = u"( %2dK )";
const CHAR16 kBlockTableFlush[] = u"%a\r\n";

constexpr UINT32 kBlocksPerLine = 16;
constexpr UINT32 kLinesPerFlush = 16;
constexpr UINT32 kBlockTableTextBytes = 0x1000;
constexpr UINT32 kLineCharacters = 128;

// Entries of the block map up to its end: a size of 0 or 0xFFFF, or 255 entries.
UINT32 CountMapEntries(const UINT8* map) {
  UINT32 entries = 0;
  while (entries < kBlockMapEntryLimit) {
    UINT16 size = ReadU16(map + entries * sizeof(OblisBlockMapEntry));
    if (size == kBlockMapEndZero || size == kBlockMapEndOnes) {
      break;
    }
    ++entries;
  }
  return entries;
}

// Each entry by itself may not exceed the table, and neither may their sum: either would make
// the table build run past its 0x1000 entries.
Bool BlockCountFits(const UINT8* map, UINT32 entries, UINT32* total) {
  UINT32 sum = 0;
  for (UINT32 index = 0; index < entries; ++index) {
    UINT32 count = ReadU16(map + index * sizeof(OblisBlockMapEntry) + 2);
    if (count > kFlashBlockEntries) {
      return false;
    }
    sum += count;
    if (sum > kFlashBlockEntries) {
      return false;
    }
  }
  *total = sum;
  return true;
}

}  // namespace

UINT32 SizeIndexToBytes(UINT8 index) { return index <= kLastSizeIndex ? kSmallestRom << index : 0; }

Bool FuncOblis_13h() {
  TraceScope trace(u"FuncOblis_13h");
  PoolBuffer partAnswer(kOblisAnswerBytes);
  PoolBuffer mapAnswer(kOblisAnswerBytes);
  if (!partAnswer || !mapAnswer) {
    return trace.Fail(kReasonAllocate);
  }
  if (!Oblis_13h(partAnswer.View(), mapAnswer.View())) {
    return trace.Fail(u"OBLIS 13h failed");
  }
  const UINT8* part = partAnswer.Data();
  const UINT8* map = mapAnswer.Data();
  static_assert(kBlockMapEntryLimit * sizeof(OblisBlockMapEntry) <= kOblisAnswerBytes, "map walk bounded");
  UINT32 entries = CountMapEntries(map);
  UINT32 blockCount = 0;
  if (!BlockCountFits(map, entries, &blockCount)) {
    return trace.Fail(kReasonBlockCount);
  }

  UINT8 sizeIndex = part[offsetof(OblisFlashPartRecord, sizeIndex)];
  UINT32 deviceId = ReadU32(part + offsetof(OblisFlashPartRecord, deviceId));
  UINT32 sizeSpecified = ReadU32(part + offsetof(OblisFlashPartRecord, sizeSpecified));
  LogPrint(kLogDetail, kTracePartHead);
  LogPrint(kLogDetail, kTraceSizeIndex, sizeIndex);
  LogPrint(kLogDetail, kTraceVendor);
  LogPrint(kLogDetail, kTraceType);
  LogPrint(kLogDetail, kTraceDeviceId, deviceId);
  LogPrint(kLogDetail, kTraceSizeSpecified, sizeSpecified);
  LogPrint(kLogDetail, kTraceBlank);
  for (UINT32 index = 0; index < entries; ++index) {
    const UINT8* entry = map + index * sizeof(OblisBlockMapEntry);
    LogPrint(kLogDetail, kTraceBlockEntry, ReadU16(entry), ReadU16(entry + 2));
  }
  LogPrint(kLogDetail, kTraceBlank);

  UINT32 romSize = SizeIndexToBytes(sizeIndex);
  if (romSize == 0 && sizeIndex == kSizeIndexSpecified) {
    romSize = sizeSpecified;
  }
  gFlash.romSize = romSize;
  gFlash.romBase = 0u - romSize;
  gFlash.blockCount = blockCount;
  gFlash.blockSize = entries != 0 ? (UINT32)ReadU16(map) * kBlockUnit : 0;
  LogPrint(kLogDetail, kTraceRomSize, gFlash.romSize);
  LogPrint(kLogDetail, kTraceBaseAddr, gFlash.romBase);
  LogPrint(kLogDetail, kTraceBlockCount, gFlash.blockCount);

  ZeroMem(gFlash.table, sizeof(gFlash.table));
  UINT32 address = gFlash.romBase;
  UINT32 block = 0;
  for (UINT32 index = 0; index < entries; ++index) {
    const UINT8* entry = map + index * sizeof(OblisBlockMapEntry);
    UINT32 size = (UINT32)ReadU16(entry) * kBlockUnit;
    UINT32 count = ReadU16(entry + 2);
    for (UINT32 repeat = 0; repeat < count && block < kFlashBlockEntries; ++repeat, ++block) {
      gFlash.table[block].address = address;
      gFlash.table[block].size = size;
      gFlash.table[block].protectedFlag = 0;
      address += size;
    }
  }
  return true;
}

UINT32 GetRomSize() { return gFlash.romSize; }
UINT32 GetRomBase() { return gFlash.romBase; }
UINT32 GetBlockCount() { return gFlash.blockCount; }
UINT32 GetBlockSize() { return gFlash.blockSize; }

FlashBlock* CopyBlockTable() {
  FlashBlock* copy = (FlashBlock*)AllocateZeroPool(sizeof(gFlash.table));
  if (copy != nullptr) {
    CopyMem(copy, gFlash.table, sizeof(gFlash.table));
  }
  return copy;
}

VOID MarkBlocks(UINT32 start, UINT32 end, UINT8 flag) {
  // Only a block's first byte is tested: a region that starts inside a block leaves that block
  // alone, one that ends inside a block takes the whole block.
  for (UINT32 index = 0; index < gFlash.blockCount && index < kFlashBlockEntries; ++index) {
    UINT32 address = gFlash.table[index].address;
    if (start <= address && address <= end) {
      gFlash.table[index].protectedFlag = flag;
    }
  }
}

UINT32 RegionEnd(UINT32 start, UINT32 size) {
  UINT32 end = start + size - 1;
  return end < start ? 0xFFFFFFFFu : end;
}

UINT8 BlockFlagAt(UINT32 address) {
  for (UINT32 index = 0; index < gFlash.blockCount && index < kFlashBlockEntries; ++index) {
    const FlashBlock& block = gFlash.table[index];
    if (block.size != 0 && address >= block.address && address - block.address < block.size) {
      return block.protectedFlag;
    }
  }
  return 0;
}

namespace {

// Appends a 16-bit text to the 8-bit text buffer, low bytes only, never past its capacity.
VOID AppendNarrow(CHAR8* text, UINT32* length, const CHAR16* line) {
  for (; *line != 0 && *length + 1 < kBlockTableTextBytes; ++line) {
    text[(*length)++] = (CHAR8)*line;
  }
  text[*length] = 0;
}

VOID FlushBlockTableText(CHAR8* text, UINT32* length) {
  LogPrint(kLogDetail, kBlockTableFlush, text);
  ZeroMem(text, kBlockTableTextBytes);
  *length = 0;
}

}  // namespace

VOID ShowBlockTable(const FlashBlock* table, UINT32 count) {
  if (table == nullptr || count == 0) {
    return;
  }
  if (count > kFlashBlockEntries) {
    count = kFlashBlockEntries;
  }
  PoolBuffer textBuffer(kBlockTableTextBytes);
  if (!textBuffer) {
    return;
  }
  CHAR8* text = (CHAR8*)textBuffer.Data();
  UINT32 length = 0;
  UINT32 lines = 0;
  for (UINT32 first = 0; first < count; first += kBlocksPerLine) {
    // 16 marks and " - " behind the eighth, terminated.
    CHAR8 marks[kBlocksPerLine + 4];
    UINT32 used = 0;
    for (UINT32 index = first; index < count && index < first + kBlocksPerLine; ++index) {
      marks[used++] = table[index].protectedFlag == 0 ? '.' : 'R';
      if (index - first == 7) {
        marks[used++] = ' ';
        marks[used++] = '-';
        marks[used++] = ' ';
      }
    }
    marks[used] = 0;
    CHAR16 sizeText[kLineCharacters];
    FormatText(sizeText, kLineCharacters, kBlockSizeText, table[first].size / 1024);
    CHAR8 sizeNarrow[kLineCharacters];
    UnicodeToAscii(sizeNarrow, kLineCharacters, sizeText);
    CHAR16 line[kLineCharacters];
    FormatText(line, kLineCharacters, kBlockTableLine, first, table[first].address, sizeNarrow, marks);
    AppendNarrow(text, &length, line);
    if (++lines % kLinesPerFlush == 0) {
      FlushBlockTableText(text, &length);
    }
  }
  if (length != 0) {
    FlushBlockTableText(text, &length);
  }
}

VOID ResetBlockTableState() {
  gFlash = {};
}
