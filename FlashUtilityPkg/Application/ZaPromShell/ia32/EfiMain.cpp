// The IA32 image entry of ZAPROM-S: gnu-efi's crt0 relocates the image and calls efi_main,
// which hands over to ZaPromShellEntry; the host build calls that entry directly instead.
#include "ZaPromShell.h"

extern "C" EFI_STATUS efi_main(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  return ZaPromShellEntry(imageHandle, systemTable);
}
