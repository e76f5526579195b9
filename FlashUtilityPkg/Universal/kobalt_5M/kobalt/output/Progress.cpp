// The progress of the block writer: the bar on screen row 21 with its percentage and elapsed
// time, and the block map in the trace. What a block's mark means and which regions hold it is
// the block writer's business: it hands each block's facts in, and the map only formats them.
#include "PlatformSeams.h"
#include "output/OutputInternal.h"

namespace {

constexpr UINT8 kNoPercentYet = 0xEF;  // no percentage has this value, so the first call draws
constexpr UINTN kBarRow = 21;
constexpr UINTN kBarWidth = 75;
constexpr UINTN kBarWidthWithTime = 68;  // leaves room for the seconds behind the number
constexpr UINTN kAttributeBar = 0x1F;     // white on blue
constexpr UINTN kAttributeFilled = 0x7F;  // white on light grey
constexpr UINT64 kFemtosecondsPerMillisecond = 1000000000000ULL;

constexpr UINT32 kMapGroup = 128;        // entries written to the trace at a time
constexpr UINT32 kMapLineBlocks = 16;    // blocks per line
constexpr UINT32 kMapEmptyLineEvery = 256;
constexpr UINT32 kColumnChars = 19;      // "........ - ........"
constexpr UINT32 kRegionNameChars = 16;
// The region column holds a column of letters or "[ name ]" with a long name cut.
constexpr UINT32 kRegionColumnChars = kColumnChars + kRegionNameChars + 4;
// The longest line: offset and address (36 characters with their blanks), three columns with
// four blanks behind each, the region column and CR LF. A line with external regions is longer
// than one without, so a group must be sized for it or its last line loses its end.
constexpr UINT32 kLineChars = 36 + 3 * (kColumnChars + 4) + kRegionColumnChars + 2;

constexpr CHAR16 kPercent[] = u"%3d%%";
constexpr CHAR16 kPercentWithTime[] = u"%3d%%,%2dsec";
constexpr CHAR16 kText[] = u"%s";
constexpr CHAR16 kLocateFailed[] = u"Locate protocol failed\r\n";
constexpr CHAR16 kLegend[] =
    u" Hex |base32\r\n-----+------\r\n  Fh |  f\r\n 10h |  g\r\n 11h |  h\r\n 12h |  i\r\n 13h |  j\r\n 14h |  k\r\n"
    u" 15h |  l\r\n 16h |  m\r\n 17h |  n\r\n 18h |  o\r\n 19h |  p\r\n 1Ah |  q\r\n 1Bh |  r\r\n 1Ch |  s\r\n"
    u" 1Dh |  t\r\n 1Eh |  u\r\n 1Fh |  v\r\n";
constexpr CHAR16 kMapLine[] = u"[ %8x ] %08x:              %s    %s    %s    %s\r\n";
constexpr CHAR16 kRegionColumn[] = u"[ %-16s]";
constexpr CHAR16 kEmptyLine[] = u"\r\n";

// A private region carries no type of its own; its blocks show this character.
constexpr CHAR16 kPrivateRegionDigit = u'#';

struct ProgressState {
  UINT8 lastPercent;
  UINT32 ticksPerMillisecond;
  UINT64 startCount;
  UINT32 elapsed;
  BlockMapEntry* blockMap;
  UINT32 blockMapCapacity;
  UINT32 blockMapCount;
  Bool blockMapTried;
};
constexpr ProgressState kProgressStart = {kNoPercentYet, 0, 0, 0, nullptr, 0, 0, false};

constinit ProgressState progress = kProgressStart;

// 64-bit division without the compiler's runtime helpers, which a freestanding IA32 image lacks.
UINT64 DivideU64(UINT64 dividend, UINT64 divisor) {
  if (divisor == 0) {
    return 0;
  }
  UINT64 quotient = 0;
  UINT64 remainder = 0;
  for (int bit = 63; bit >= 0; bit--) {
    remainder = (remainder << 1) | ((dividend >> bit) & 1);
    if (remainder >= divisor) {
      remainder -= divisor;
      quotient |= (UINT64)1 << bit;
    }
  }
  return quotient;
}

// "\r" and then count blanks; count may be negative or zero, which leaves the carriage return.
VOID FillBar(CHAR16* text, INT32 count) {
  UINT32 at = 0;
  text[at++] = u'\r';
  for (INT32 i = 0; i < count; i++) {
    text[at++] = u' ';
  }
  text[at] = 0;
}

VOID SetCursor(UINTN column, UINTN row) {
  if (gST->ConOut->SetCursorPosition != nullptr) {
    gST->ConOut->SetCursorPosition(gST->ConOut, column, row);
  }
}

CHAR16 Base32Digit(UINT8 value) {
  if (value > 0x1F) {
    return u'?';
  }
  return value < 10 ? (CHAR16)(u'0' + value) : (CHAR16)(u'a' + value - 10);
}

// Column 3: the type of the protection region, or the private mark, that holds the block.
CHAR16 MapRegionCharacter(const BlockMapEntry& entry) {
  if (entry.inProtectionRegion) {
    return Base32Digit(entry.protectionType);
  }
  return entry.inPrivateRegion ? kPrivateRegionDigit : u'.';
}

VOID EmptyColumn(CHAR16* column) {
  for (UINT32 i = 0; i < kColumnChars; i++) {
    column[i] = u'.';
  }
  column[8] = u' ';
  column[9] = u'-';
  column[10] = u' ';
  column[kColumnChars] = 0;
}

// Place of block i (0 to 15) of a line in its column: eight, a " - ", eight.
UINT32 ColumnPlace(UINT32 i) { return i < 8 ? i : i + 3; }

// One line of 16 entries starting at first.
VOID WriteMapLine(CHAR16* text, UINT32 capacity, const BlockMapEntry* first) {
  CHAR16 protect[kColumnChars + 1];
  CHAR16 marks[kColumnChars + 1];
  CHAR16 types[kColumnChars + 1];
  CHAR16 regions[kRegionColumnChars];
  EmptyColumn(protect);
  EmptyColumn(marks);
  EmptyColumn(types);
  EmptyColumn(regions);
  Bool anyRegion = false;
  Bool sameRegion = true;
  for (UINT32 i = 0; i < kMapLineBlocks; i++) {
    const BlockMapEntry& entry = first[i];
    UINT32 place = ColumnPlace(i);
    if (entry.protectedBlock) {
      protect[place] = u'R';
    }
    types[place] = MapRegionCharacter(entry);
    anyRegion = anyRegion || entry.externalRegionsKnown;
    if (entry.externalType != kNoExternalRegion) {
      const CHAR16* name = entry.externalName;
      regions[place] = (name != nullptr && name[0] != 0) ? name[0] : u'?';
    }
    if (entry.externalType != first[0].externalType) {
      sameRegion = false;
    }
  }
  // A mark of 0 ends the column's text at its place: nothing happened to that block or after.
  for (UINT32 i = kMapLineBlocks; i > 0; i--) {
    marks[ColumnPlace(i - 1)] = (CHAR16)first[i - 1].mark;
  }
  if (!anyRegion) {
    regions[0] = 0;
  } else if (sameRegion && first[0].externalType != kNoExternalRegion) {
    FormatText(regions, sizeof(regions) / sizeof(regions[0]), kRegionColumn, first[0].externalName);
  }
  FormatText(text, capacity, kMapLine, first[0].offset, first[0].address, protect, marks, types, regions);
}

// The last full group of 128 entries, as one text at level 4.
VOID WriteMapGroup() {
  constexpr UINT32 kLines = kMapGroup / kMapLineBlocks;
  constexpr UINT32 kCapacity = kLines * kLineChars + 4;
  CHAR16* text = static_cast<CHAR16*>(AllocateZeroPool(kCapacity * sizeof(CHAR16)));
  if (text == nullptr) {
    return;
  }
  const BlockMapEntry* group = progress.blockMap + (progress.blockMapCount - kMapGroup);
  for (UINT32 line = 0; line < kLines; line++) {
    UINTN used = StrLen16(text);
    WriteMapLine(text + used, (UINT32)(kCapacity - used), group + line * kMapLineBlocks);
  }
  LogPrint(kLogDetail, kText, text);
  FreePoolAndNull(text);
  if (progress.blockMapCount % kMapEmptyLineEvery == 0) {
    LogPrint(kLogDetail, kEmptyLine);
  }
}

}  // namespace

VOID StartProgressTimer() {
  progress.lastPercent = kNoPercentYet;
  progress.ticksPerMillisecond = 0;
  progress.startCount = 0;
  progress.elapsed = 0;
  EFI_CPU_ARCH_PROTOCOL* cpu = nullptr;
  EFI_STATUS status = gBS->LocateProtocol(&kCpuArchProtocolGuid, nullptr, reinterpret_cast<VOID**>(&cpu));
  if (EFI_ERROR(status) || cpu == nullptr || cpu->GetTimerValue == nullptr) {
    // Without the timer the seconds shown mean nothing; the update goes on all the same.
    Print(kLocateFailed);
  } else {
    UINT64 value = 0;
    UINT64 period = 0;  // femtoseconds per tick
    if (!EFI_ERROR(cpu->GetTimerValue(cpu, 0, &value, &period)) && period != 0) {
      progress.ticksPerMillisecond = (UINT32)DivideU64(kFemtosecondsPerMillisecond, period);
    }
  }
  progress.startCount = ReadTimeStampCounter();
}

VOID ShowProgress(UINT8 percent) {
  if (percent > 100) {
    percent = 100;
  }
  Bool withTime = ElapsedTimeShown();
  UINT32 width = withTime ? kBarWidthWithTime : kBarWidth;
  CHAR16 bar[kBarWidth + 2];
  CHAR16 filled[kBarWidth + 2];
  FillBar(bar, (INT32)width - 1);
  FillBar(filled, (INT32)(percent * width / 100) - 1);

  if (gST->ConOut->EnableCursor != nullptr) {
    gST->ConOut->EnableCursor(gST->ConOut, false);
  }
  SetCursor(width, kBarRow);
  if (withTime) {
    UINT64 ticks = ReadTimeStampCounter() - progress.startCount;
    progress.elapsed = (UINT32)DivideU64(ticks, progress.ticksPerMillisecond);
    Print(kPercentWithTime, (UINT32)percent, progress.elapsed / 1000);
  } else {
    Print(kPercent, (UINT32)percent);
  }
  if (percent != progress.lastPercent) {
    SetCursor(0, kBarRow);
    SetConsoleAttribute(kAttributeBar);
    Print(kText, bar);
    SetConsoleAttribute(kAttributeFilled);
    Print(kText, filled);
    progress.lastPercent = percent;
  }
  SetConsoleAttribute(kAttributeWhiteOnBlack);
}

Bool BlockMapWanted() { return IsLogEnabled(); }

VOID AddBlockMark(const BlockMapEntry& entry) {
  if (!IsLogEnabled()) {
    return;
  }
  if (!progress.blockMapTried) {
    // One array for the run, filled once; if it cannot be had the marks are dropped.
    progress.blockMapTried = true;
    progress.blockMapCapacity = entry.blocksInPart + 1;
    progress.blockMap = static_cast<BlockMapEntry*>(AllocateZeroPool(progress.blockMapCapacity * sizeof(BlockMapEntry)));
    LogPrint(kLogDetail, kLegend);
  }
  if (progress.blockMap == nullptr || progress.blockMapCount >= progress.blockMapCapacity) {
    return;
  }
  progress.blockMap[progress.blockMapCount] = entry;
  progress.blockMapCount++;
  if (progress.blockMapCount % kMapGroup == 0) {
    WriteMapGroup();
  }
}

VOID ResetProgressState() {
  progress = kProgressStart;
}

VOID ReleaseProgressMemory() { FreePoolAndNull(progress.blockMap); }
