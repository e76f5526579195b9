// What the frame folder offers: the entry, the mains and their shared steps, and the function
// directory. The file layer and the host's settings, which the lower folders use too, have
// headers of their own.
#pragma once

#include "KobaltBase.h"
#include "FunctionDirectory.h"
#include "FileLayer.h"
#include "HostSettings.h"

// Driver entry; the IA32 build's efi_main and the host's image loader both call it.
EFI_STATUS EFIAPI KobaltDriverEntry(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable);

// Mains and their shared steps.
Bool EFIAPI ShellFlashMain();
Bool EFIAPI UefiFlashMain();
Bool Initialize();
Bool CallingNecessarySmi();
VOID FreeResource();
// What the folders kept for the whole run goes back to the pool; the unload's last step.
VOID ReleaseDriverMemory();

// Directory.
VOID* EFIAPI LookupFunction(const CHAR16* name);

// State. Each file of the folder keeps its state in one record; ResetFrameState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetFrameState();
VOID ResetFileLayerState();
VOID ResetRunSequenceState();
// The whole driver as a fresh load leaves it, folder by folder, the firmware tables included.
VOID ResetDriverState();
