// The host's settings and the run's shared blocks, declared in Include/HostSettings.h.
#include "HostSettings.h"

namespace {

constexpr UINTN kCurrentDirectoryCharacters = 512;
// The copy of the host's path holds 255 characters and the terminator; a longer path is cut.
constexpr UINTN kPathCopyCharacters = 256;

struct HostState {
  CHAR16 currentDirectory[kCurrentDirectoryCharacters];
  CHAR16 pathCopy[kPathCopyCharacters];
  EFI_HANDLE hostImageHandle;
  UINT32 argumentCount;
  CHAR16** argumentVector;
  ShellExecuteCallback shellExecuteCallback;
  UINT8 runMode;
  UINT8* ecBuffer;
  UINT32 keptEcSize;
};
constinit HostState gHost = {};

}  // namespace

VOID EFIAPI SetCurrentDirectory(const CHAR16* path) {
  StrCopy16(gHost.pathCopy, kPathCopyCharacters, path);
  UINTN colon = 0;
  while (gHost.pathCopy[colon] != 0 && gHost.pathCopy[colon] != u':') {
    colon++;
  }
  if (gHost.pathCopy[colon] == 0) {
    StrCopy16(gHost.currentDirectory, kCurrentDirectoryCharacters, gHost.pathCopy);
    return;
  }
  // The volume name falls away: "fs0:\efi\tool" becomes ".\efi\tool\".
  StrCopy16(gHost.currentDirectory, kCurrentDirectoryCharacters, u".");
  StrCat16(gHost.currentDirectory, kCurrentDirectoryCharacters, gHost.pathCopy + colon + 1);
  StrCat16(gHost.currentDirectory, kCurrentDirectoryCharacters, u"\\");
}

const CHAR16* GetCurrentDirectory() { return gHost.currentDirectory; }

VOID EFIAPI SetCommandLineArgument(UINT32 count, CHAR16** vector) {
  // The vector stays the host's; options are read and blanked in place during the run.
  gHost.argumentCount = count;
  gHost.argumentVector = vector;
}

UINT32 GetArgumentCount() { return gHost.argumentCount; }
CHAR16** GetArgumentVector() { return gHost.argumentVector; }

VOID EFIAPI SetImageHandle(EFI_HANDLE imageHandle) { gHost.hostImageHandle = imageHandle; }
EFI_HANDLE GetHostImageHandle() { return gHost.hostImageHandle; }

VOID EFIAPI SetShellExecuteCallback(ShellExecuteCallback callback) { gHost.shellExecuteCallback = callback; }

EFI_STATUS RunShellCommand(const CHAR16* text) {
  if (gHost.shellExecuteCallback == nullptr) {
    return EFI_UNSUPPORTED;
  }
  return gHost.shellExecuteCallback(text);
}

UINT8 GetRunMode() { return gHost.runMode; }
VOID SetRunMode(UINT8 mode) { gHost.runMode = mode; }

Bool ReserveEcBuffer() {
  if (gHost.ecBuffer == nullptr) {
    gHost.ecBuffer = static_cast<UINT8*>(AllocateZeroPool(kEcBufferBytes));
  }
  return gHost.ecBuffer != nullptr;
}

VOID ReleaseEcBuffer() { FreePoolAndNull(gHost.ecBuffer); }

UINT8* GetEcBuffer() { return gHost.ecBuffer; }

VOID KeepEcImage(const UINT8* data, UINT32 size) {
  if (data == nullptr || gHost.ecBuffer == nullptr) {
    gHost.keptEcSize = 0;
    return;
  }
  if (size > kEcBufferBytes) {
    size = kEcBufferBytes;
  }
  ZeroMem(gHost.ecBuffer, kEcBufferBytes);
  CopyMem(gHost.ecBuffer, data, size);
  gHost.keptEcSize = size;
}

UINT32 KeptEcSize() { return gHost.keptEcSize; }

VOID ResetHostState() { gHost = {}; }
