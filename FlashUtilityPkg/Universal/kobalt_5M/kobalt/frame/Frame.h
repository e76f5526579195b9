// What the frame folder offers: the mains and their shared steps, the stored host settings
// (arguments, image handle, directory, execute callback) and the file layer.
#pragma once

#include "KobaltBase.h"
#include "FunctionDirectory.h"

// Driver entry; the IA32 build's efi_main and the host's image loader both call it.
EFI_STATUS EFIAPI KobaltDriverEntry(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable);

// Mains and their shared steps.
Bool EFIAPI ShellFlashMain();
Bool EFIAPI UefiFlashMain();
Bool Initialize();
Bool CallingNecessarySmi();
VOID FreeResource();
UINT8 GetRunMode();
// The two large blocks Initialize takes; null before it and after FreeResource.
UINT8* GetImageWorkBuffer();
UINT8* GetEcBuffer();
// The driver's unload handler, set into its EFI_LOADED_IMAGE_PROTOCOL by the entry.
EFI_STATUS EFIAPI DriverUnload(EFI_HANDLE imageHandle);

// Directory.
VOID* EFIAPI LookupFunction(const CHAR16* name);
VOID EFIAPI SetCurrentDirectory(const CHAR16* path);
VOID EFIAPI SetCommandLineArgument(UINT32 count, CHAR16** vector);
VOID EFIAPI SetImageHandle(EFI_HANDLE imageHandle);
VOID EFIAPI SetShellExecuteCallback(ShellExecuteCallback callback);
UINT32 GetArgumentCount();
CHAR16** GetArgumentVector();
EFI_STATUS RunShellCommand(const CHAR16* text);
// What the host gave: the prefix of relative file names (never null) and its image handle.
const CHAR16* GetCurrentDirectory();
EFI_HANDLE GetHostImageHandle();

// File layer. Names are relative to the current directory; see the file's comments.
EFI_FILE_PROTOCOL* GetRootDirectory();
// Whether the handle's device path holds a node of the type and subtype. A handle without a path,
// a node shorter than its header or a path without an end within a bounded walk count as no.
Bool HandlePathHasNode(EFI_HANDLE handle, UINT8 type, UINT8 subtype);
Bool ReadFile(const CHAR16* name, UINT8** buffer, UINT32* size);
Bool SaveBufferToFile(const CHAR16* name, const VOID* data, UINT32 size);
Bool AppendBufferToFile(const CHAR16* name, const VOID* data, UINT32 size);
Bool EfiDeleteFile(const CHAR16* name);
Bool MakeDirectory(const CHAR16* name);

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
