// What the image folder offers: the shared byte search and the driver's own slot tags.
#pragma once

#include "KobaltBase.h"

// First match of pattern at any byte offset; offset (if given) is 0xFFFFFFFF without one.
Bool FindSignature(const UINT8* buffer, UINT32 length, const UINT8* pattern, UINT32 patternLength, UINT32* offset);

// Builds the tag constants of the running driver; the last step of Initialize.
VOID InitSlotTags();
// Writes '$' over the first byte of the secure-image record and the two certificate tags.
VOID MarkEntrySlotTags();

// The driver's own slot chain as it stands in memory: the secure-image record first, the driver
// signature last. Read-only; for the steps that take the driver's slots at their fixed places.
const UINT8* DriverSlotChain();
UINT32 DriverSlotChainSize();
