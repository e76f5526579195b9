// The function directory that the driver publishes on its image handle: one GUID, one member,
// and the signatures of the eight functions a host may ask for by name.
#pragma once

#include "KobaltBase.h"

constexpr EFI_GUID kFunctionDirectoryProtocolGuid = {0x530D4469, 0x5683, 0x4EAD,
                                                     {0xAF, 0x79, 0x54, 0xD1, 0x88, 0x2B, 0x8A, 0x35}};

struct FunctionDirectoryProtocol {
  // The pointer of the named function, or null. Names compare in full, letters without case.
  VOID*(EFIAPI* LookupFunction)(const CHAR16* name);
};

typedef EFI_STATUS(EFIAPI* ShellExecuteCallback)(const CHAR16* commandLine);

typedef VOID(EFIAPI* SetCurrentDirectoryFunction)(const CHAR16* path);
typedef VOID(EFIAPI* SetCommandLineArgumentFunction)(UINT32 count, CHAR16** vector);
typedef VOID(EFIAPI* SetImageHandleFunction)(EFI_HANDLE imageHandle);
typedef VOID(EFIAPI* SetShellExecuteCallbackFunction)(ShellExecuteCallback callback);
typedef Bool(EFIAPI* HookPointFunction)(UINT32 point);
typedef Bool(EFIAPI* RunFunction)(VOID);
