// The command-line host of ShellFlashMain (ZAPROM-S): a UEFI application that loads kobalt.efi
// from its own directory, hands over the shell's arguments, its image handle, the current
// directory and an execute callback, runs ShellFlashMain, then raises hook point 0, sends the
// final report with FuncOblis_16h and unloads the driver.
#pragma once

#include "KobaltBase.h"

// EFI_SUCCESS when ShellFlashMain returned true, EFI_UNSUPPORTED when it returned false, or the
// status of the load step that failed.
EFI_STATUS EFIAPI ZaPromShellEntry(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable);

// The host as a fresh load leaves it (host builds and tests only).
VOID ResetZaPromShellState();
