// What the host handed in and what a run holds for every folder: the arguments, current
// directory, image handle and execute callback a shell host sets through the function directory,
// the run mode a main sets, and the EC image block Initialize takes. It sits with the file layer
// below every folder: the frame sets it, the others only read it (the EC block is filled by the
// update that finds an EC image in front of the BIOS).
#pragma once

#include "FunctionDirectory.h"
#include "KobaltBase.h"

constexpr UINT8 kRunModeShell = 0;
constexpr UINT8 kRunModeUefi = 1;
constexpr UINT32 kEcBufferBytes = 0x200000;  // 2 MiB, the largest EC image there is

// The host's settings, kept as handed in (the directory in the form relative names need).
VOID EFIAPI SetCurrentDirectory(const CHAR16* path);
VOID EFIAPI SetCommandLineArgument(UINT32 count, CHAR16** vector);
VOID EFIAPI SetImageHandle(EFI_HANDLE imageHandle);
VOID EFIAPI SetShellExecuteCallback(ShellExecuteCallback callback);
UINT32 GetArgumentCount();
CHAR16** GetArgumentVector();
// The prefix of relative file names, never null.
const CHAR16* GetCurrentDirectory();
EFI_HANDLE GetHostImageHandle();
// EFI_UNSUPPORTED without a host callback: there is no shell to run the command then.
EFI_STATUS RunShellCommand(const CHAR16* text);

// kRunModeShell or kRunModeUefi, as the main that runs set it.
UINT8 GetRunMode();
VOID SetRunMode(UINT8 mode);

// The staged EC image block: taken once by Initialize (a second take keeps the first block),
// null before it and after ReleaseEcBuffer.
Bool ReserveEcBuffer();
VOID ReleaseEcBuffer();
UINT8* GetEcBuffer();
// Copies an EC image (at most the block's size) into the block; without data or block the kept
// size is 0.
VOID KeepEcImage(const UINT8* data, UINT32 size);
// The bytes KeepEcImage staged last; 0 before.
UINT32 KeptEcSize();

// Everything above as a fresh load leaves it (host builds and tests only).
VOID ResetHostState();
