// The frame folder's own plumbing, shared by its files and its tests; no other folder includes it.
#pragma once

#include "frame/Frame.h"

// The 16 MiB work block Initialize takes; null before it and after FreeResource.
UINT8* GetImageWorkBuffer();
// The driver's unload handler, set into its EFI_LOADED_IMAGE_PROTOCOL by the entry.
EFI_STATUS EFIAPI DriverUnload(EFI_HANDLE imageHandle);
