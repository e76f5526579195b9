// The image folder's own declarations, shared by its files and its tests; no other folder
// includes it.
#pragma once

#include "image/Image.h"

Bool HasDrvSignature();
// Parses the INI slot of a secure image as settings.
Bool LoadImageConfig(const UINT8* image, UINT32 length);
Bool LoadConfigFormal(CHAR16* imageName);
Bool LoadConfigPackage();

// The state of each file, put back by ResetImageState().
VOID ResetBvdtState();
VOID ResetImageAnalysisState();
VOID ResetSlotChainState();
VOID ResetPackageState();
