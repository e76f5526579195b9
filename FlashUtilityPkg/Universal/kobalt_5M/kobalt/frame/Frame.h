// What the frame folder offers: the entry, the mains and their shared steps, and the stored host
// settings (arguments, image handle, directory, execute callback). The file layer, which the
// lower folders use too, has a header of its own.
#pragma once

#include "KobaltBase.h"
#include "FunctionDirectory.h"
#include "frame/FileLayer.h"

// Driver entry; the IA32 build's efi_main and the host's image loader both call it.
EFI_STATUS EFIAPI KobaltDriverEntry(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable);

// Mains and their shared steps.
Bool EFIAPI ShellFlashMain();
Bool EFIAPI UefiFlashMain();
Bool Initialize();
Bool CallingNecessarySmi();
VOID FreeResource();
UINT8 GetRunMode();
// The staged EC image block Initialize takes; null before it and after FreeResource.
UINT8* GetEcBuffer();

// Directory.
VOID* EFIAPI LookupFunction(const CHAR16* name);
VOID EFIAPI SetCurrentDirectory(const CHAR16* path);
VOID EFIAPI SetCommandLineArgument(UINT32 count, CHAR16** vector);
VOID EFIAPI SetImageHandle(EFI_HANDLE imageHandle);
VOID EFIAPI SetShellExecuteCallback(ShellExecuteCallback callback);
UINT32 GetArgumentCount();
CHAR16** GetArgumentVector();
EFI_STATUS RunShellCommand(const CHAR16* text);

// State. Each file of the folder keeps its state in one record; ResetFrameState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetFrameState();
VOID ResetDirectoryState();
VOID ResetFileLayerState();
VOID ResetRunSequenceState();
// The whole driver as a fresh load leaves it, folder by folder, the firmware tables included.
VOID ResetDriverState();
