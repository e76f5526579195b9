// The output folder's own plumbing, shared by its files and its tests; no other folder includes it.
#pragma once

#include "output/Output.h"

// Print's limit in characters; a longer text is cut.
constexpr UINTN kPrintLimit = 320;

VOID PrintWarningBar(const CHAR16* text);
// Reads text without changing it; a line longer than width is cut to width.
CHAR16* CenterLines(UINT16 width, const CHAR16* text);
Bool IsLogEnabled();
// A new 64-byte pool text owned by the caller.
CHAR16* TimeStamp(Bool date, Bool time);
