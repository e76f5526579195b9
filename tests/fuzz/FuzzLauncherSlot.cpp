// The launcher's main run over any driver bytes in its slot: the copy, the search for the
// BIOSIMG tag, the volume walk and the restore into a loaded image of the driver's size stay
// inside their buffers, and every block the run takes is given back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "KobaltApp.h"

namespace {

std::vector<uint8_t> loaded;  // the loaded driver: a copy of the buffer LoadImage got
EFI_LOADED_IMAGE_PROTOCOL loadedImage;
int blocks = 0;
EFI_STATUS EFIAPI AllocatePool(EFI_MEMORY_TYPE, UINTN size, VOID** out) { return *out = std::malloc(size), ++blocks, EFI_SUCCESS; }
EFI_STATUS EFIAPI FreePool(VOID* block) { return std::free(block), --blocks, EFI_SUCCESS; }
EFI_STATUS EFIAPI LoadImage(BOOLEAN, EFI_HANDLE, EFI_DEVICE_PATH_PROTOCOL*, VOID* source, UINTN size, EFI_HANDLE* handle) {
  loaded.assign(static_cast<uint8_t*>(source), static_cast<uint8_t*>(source) + size);
  return loadedImage.ImageBase = loaded.data(), *handle = &loadedImage, EFI_SUCCESS;
}
EFI_STATUS EFIAPI StartImage(EFI_HANDLE, UINTN*, CHAR16**) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI UnloadImage(EFI_HANDLE handle) { return handle == nullptr ? EFI_INVALID_PARAMETER : EFI_SUCCESS; }
EFI_STATUS EFIAPI HandleProtocol(EFI_HANDLE handle, const EFI_GUID*, VOID** out) { return *out = handle, EFI_SUCCESS; }
EFI_STATUS EFIAPI LocateProtocol(const EFI_GUID*, VOID*, VOID**) { return EFI_NOT_FOUND; }
EFI_STATUS EFIAPI OutputString(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, const CHAR16*) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI SetMode(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN) { return EFI_SUCCESS; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  EFI_BOOT_SERVICES services{.AllocatePool = AllocatePool, .FreePool = FreePool, .HandleProtocol = HandleProtocol,
                             .LoadImage = LoadImage, .StartImage = StartImage, .UnloadImage = UnloadImage,
                             .LocateProtocol = LocateProtocol};
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL console{.OutputString = OutputString, .SetMode = SetMode};
  EFI_SYSTEM_TABLE system{.ConOut = &console, .BootServices = &services};
  // The launcher's head around the input, which is the driver file of its slot.
  std::vector<uint8_t> image(kLauncherDriverOffset, 0);
  image.insert(image.end(), data, data + size);
  for (int i = 0; i < 4; i++) image[kLauncherSlotCapacityOffset + i] = image[kLauncherSlotSizeOffset + i] = (uint8_t)(size >> (8 * i));
  KobaltAppMain(nullptr, &system, {image.data(), (UINT32)image.size()});
  if (blocks != 0) __builtin_trap();  // the run keeps no pool block
  return 0;
}
