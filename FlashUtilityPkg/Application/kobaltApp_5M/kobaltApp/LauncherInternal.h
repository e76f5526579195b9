// What the launcher's own files share: its state, its pool and byte helpers and its print. The
// host build links the launcher into one program with the driver, so all of it stays in its own
// namespace, clear of the driver's names.
#pragma once

#include "KobaltApp.h"

namespace launcher {

struct LauncherState {
  EFI_SYSTEM_TABLE* systemTable;
  EFI_BOOT_SERVICES* bootServices;
  EFI_HANDLE driverHandle;           // null until LoadImage has given it
  HiddenVolumeRecord hiddenVolume;   // the stretch of the driver that was taken out
  UINT8* hiddenVolumeCopy;           // its bytes, runtime-services pool
};
extern LauncherState gLauncher;

// Pool memory of the given type, or null.
UINT8* AllocateBytes(EFI_MEMORY_TYPE type, UINT32 size);
VOID FreeBytes(UINT8*& block);

VOID CopyBytes(UINT8* to, const UINT8* from, UINT32 count);
VOID FillBytes(UINT8* to, UINT32 count, UINT8 value);
Bool SameBytes(const UINT8* left, const UINT8* right, UINT32 count);
inline UINT16 ReadLe16(const UINT8* at) { return (UINT16)(at[0] | (at[1] << 8)); }
inline UINT32 ReadLe32(const UINT8* at) {
  return (UINT32)at[0] | ((UINT32)at[1] << 8) | ((UINT32)at[2] << 16) | ((UINT32)at[3] << 24);
}

// Formats into one line of at most 320 characters (the rest is cut) and hands it to the
// console. The dialect is the tool's: %r a status by its name, %s a 16-bit text, %% a percent.
VOID Print(const CHAR16* format, ...);

}  // namespace launcher
