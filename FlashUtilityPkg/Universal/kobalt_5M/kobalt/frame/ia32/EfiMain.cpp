// The IA32 image entry of the driver: gnu-efi's crt0 relocates the image and calls efi_main,
// which hands over to KobaltDriverEntry. Everything the entry does is left to the frame.
#include "frame/Frame.h"

// The firmware lays 64-bit members at natural alignment (the build passes -malign-double); a
// build without it would write Unload into ImageDataType and the driver could never be unloaded.
static_assert(offsetof(EFI_LOADED_IMAGE_PROTOCOL, ImageSize) == 40 && offsetof(EFI_LOADED_IMAGE_PROTOCOL, Unload) == 56,
              "EFI_LOADED_IMAGE_PROTOCOL must have the firmware's IA32 layout");

extern "C" EFI_STATUS efi_main(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  return KobaltDriverEntry(imageHandle, systemTable);
}
