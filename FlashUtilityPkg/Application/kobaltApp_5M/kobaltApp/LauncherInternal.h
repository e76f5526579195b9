// What the launcher's own files share: its steps, its state, its pool and byte helpers and its
// print. The host build links the launcher into one program with the driver, so the helpers stay
// in a namespace of their own and the steps carry names the driver does not use.
#pragma once

#include "KobaltApp.h"

// The firmware tables the steps below use; the main run sets them first.
VOID SetLauncherTables(EFI_SYSTEM_TABLE* systemTable);
// A pool copy of the driver file, handed to *copy, with the firmware volume that holds the
// hidden file (if the BIOSIMG slot has one) kept aside and filled with 0xFF in the copy. False,
// with nothing kept, when the pool has no room or such a volume runs past the driver.
Bool CopyDriverImage(ImageView driver, UINT8** copy);
// Puts the volume kept aside back at its offset from the loaded driver's first byte; true when
// nothing was kept aside.
Bool RestoreHiddenVolume(UINT8* imageBase, UINT32 size);

namespace launcher {

// The stretch of the driver that CopyDriverImage took out.
struct HiddenVolumeRecord {
  Bool found;
  UINT32 offset;  // from the driver file's first byte
  UINT32 length;
};

struct LauncherState {
  EFI_SYSTEM_TABLE* systemTable;
  EFI_BOOT_SERVICES* bootServices;
  EFI_HANDLE driverHandle;           // null until LoadImage has given it
  HiddenVolumeRecord hiddenVolume;
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
// console. The dialect is the tool's, as far as the launcher's lines need it: %r is a status by
// its name, %% a percent sign.
VOID Print(const CHAR16* format, ...);

}  // namespace launcher
