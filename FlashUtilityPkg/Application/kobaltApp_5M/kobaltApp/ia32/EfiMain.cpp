// The IA32 image of the launcher: its slot, which the linker script puts first behind the
// headers at 0x220 (image base 0, every section loaded at its file offset), and the entry that
// gnu-efi's crt0 calls once it has relocated the image.
#include "KobaltApp.h"

namespace {

#pragma pack(push, 1)
struct LauncherSlotRecord {
  EFI_GUID loadedImageGuid;
  EFI_GUID directoryGuid;
  UINT8 tag[16];
  UINT32 capacity;
  UINT32 size;
  UINT8 driver[kLauncherSlotCapacity];
};
#pragma pack(pop)

static_assert(offsetof(LauncherSlotRecord, directoryGuid) == kLauncherDirectoryGuidOffset - kLauncherImageGuidOffset);
static_assert(offsetof(LauncherSlotRecord, tag) == kLauncherSlotTagOffset - kLauncherImageGuidOffset);
static_assert(offsetof(LauncherSlotRecord, capacity) == kLauncherSlotCapacityOffset - kLauncherImageGuidOffset);
static_assert(offsetof(LauncherSlotRecord, size) == kLauncherSlotSizeOffset - kLauncherImageGuidOffset);
static_assert(offsetof(LauncherSlotRecord, driver) == kLauncherDriverOffset - kLauncherImageGuidOffset);

// Empty as built; the packing step puts a driver file in and sets the size.
__attribute__((section(".driverslot"), used)) constinit LauncherSlotRecord launcherSlot = {
    kLoadedImageProtocolGuid,
    kFunctionDirectoryProtocolGuid,
    {'$', '_', 'K', 'O', 'B', 'A', 'L', 'T', '_', 'D', 'R', 'V', '_', 'I', 'M', 'G'},
    kLauncherSlotCapacity,
    0,
    {},
};

}  // namespace

extern "C" EFI_STATUS efi_main(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  // The image starts kLauncherImageGuidOffset bytes in front of its slot.
  UINTN imageStart = reinterpret_cast<UINTN>(&launcherSlot) - kLauncherImageGuidOffset;
  ImageView ownImage = {reinterpret_cast<UINT8*>(imageStart), kLauncherDriverOffset + kLauncherSlotCapacity};
  return KobaltAppMain(imageHandle, systemTable, ownImage);
}
