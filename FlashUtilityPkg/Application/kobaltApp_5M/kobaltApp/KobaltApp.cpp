// The launcher's main run: the driver out of the own slot into LoadImage and StartImage, the
// update by name through the driver's directory, the end of the run reported to the firmware,
// the driver unloaded, and the outcome as a UEFI status. What the update does is the driver's.
#include "LauncherInternal.h"

using namespace launcher;

namespace {

// Where loading the driver stopped; each stage has its line.
enum LoadStage : UINT8 { kStageNone, kStageEmptySlot, kStageCopy, kStageLoadImage, kStageStartImage };

constexpr const CHAR16* kStageLines[] = {
    nullptr,
    u"Driver not in buffer\r\n",
    u"Load driver from buffer failed!\r\n",
    u"LoadImage() failed! %r\r\n",
    u"StartImage() failed! %r\r\n",
};
constexpr CHAR16 kUnloadFailed[] = u"UnloadImage() Failed! %r\r\n";
constexpr CHAR16 kUpdateFailed[] = u"Error: Update BIOS Failed!\r\n";

constexpr CHAR16 kUefiFlashMainName[] = u"UefiFlashMain";
constexpr CHAR16 kHookPointName[] = u"SMI_ApHookPoint";
constexpr CHAR16 kFinishName[] = u"FuncOblis_16h";
// "AP Terminate": the tool is done with the platform.
constexpr UINT32 kHookPointTerminate = 0;

// A GUID of the slot's head, read byte by byte: the head has no alignment of its own.
EFI_GUID SlotGuid(ImageView ownImage, UINT32 offset) {
  EFI_GUID guid;
  CopyBytes(reinterpret_cast<UINT8*>(&guid), ownImage.data + offset, sizeof(guid));
  return guid;
}

// The driver's bytes in the own slot; empty when the image is too short to hold the slot's head.
// A size that claims more than the slot reserves or the image holds gives no data.
ImageView DriverInSlot(ImageView ownImage) {
  if (ownImage.data == nullptr || ownImage.length < kLauncherDriverOffset) {
    return {nullptr, 0};
  }
  UINT32 capacity = ReadLe32(ownImage.data + kLauncherSlotCapacityOffset);
  UINT32 size = ReadLe32(ownImage.data + kLauncherSlotSizeOffset);
  Bool fits = size <= capacity && size <= ownImage.length - kLauncherDriverOffset;
  return {fits ? ownImage.data + kLauncherDriverOffset : nullptr, size};
}

// LoadImage, StartImage (the driver's entry installs its directory) and the loaded image's
// base, then the hidden volume back in place.
EFI_STATUS StartDriver(EFI_HANDLE parent, ImageView ownImage, UINT8* copy, UINT32 size, LoadStage* stage) {
  EFI_BOOT_SERVICES* services = gLauncher.bootServices;
  EFI_STATUS status = services->LoadImage(false, parent, nullptr, copy, size, &gLauncher.driverHandle);
  if (EFI_ERROR(status)) {
    *stage = kStageLoadImage;
    return status;
  }
  *stage = kStageStartImage;
  status = services->StartImage(gLauncher.driverHandle, nullptr, nullptr);
  if (EFI_ERROR(status)) {
    return status;
  }
  EFI_GUID loadedImageGuid = SlotGuid(ownImage, kLauncherImageGuidOffset);
  VOID* interface = nullptr;
  status = services->HandleProtocol(gLauncher.driverHandle, &loadedImageGuid, &interface);
  if (EFI_ERROR(status)) {
    return status;
  }
  *stage = kStageNone;
  auto* loaded = static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(interface);
  if (loaded == nullptr || !RestoreHiddenVolume(static_cast<UINT8*>(loaded->ImageBase), size)) {
    return EFI_LOAD_ERROR;
  }
  return EFI_SUCCESS;
}

EFI_STATUS LoadDriverFromBuffer(EFI_HANDLE parent, ImageView ownImage, LoadStage* stage) {
  ImageView driver = DriverInSlot(ownImage);
  if (driver.length == 0) {
    *stage = kStageEmptySlot;
    return EFI_NOT_FOUND;
  }
  UINT8* copy = nullptr;
  if (driver.data == nullptr || !CopyDriverImage(driver, &copy)) {
    *stage = kStageCopy;
    return EFI_LOAD_ERROR;
  }
  EFI_STATUS status = StartDriver(parent, ownImage, copy, driver.length, stage);
  FreeBytes(copy);
  // A load that stopped early never put the volume back; its copy goes too.
  FreeBytes(gLauncher.hiddenVolumeCopy);
  return status;
}

template <typename Function>
Function Lookup(FunctionDirectoryProtocol* directory, const CHAR16* name) {
  return reinterpret_cast<Function>(directory->LookupFunction(name));
}

// The update, then the end of the run whatever the update returned: hook point 0 and the final
// report, which can end in a reset. True when UefiFlashMain returned true.
Bool RunUpdate(ImageView ownImage) {
  EFI_GUID directoryGuid = SlotGuid(ownImage, kLauncherDirectoryGuidOffset);
  VOID* interface = nullptr;
  if (EFI_ERROR(gLauncher.bootServices->LocateProtocol(&directoryGuid, nullptr, &interface)) || interface == nullptr) {
    return false;
  }
  auto* directory = static_cast<FunctionDirectoryProtocol*>(interface);
  auto uefiFlashMain = Lookup<RunFunction>(directory, kUefiFlashMainName);
  Bool updated = uefiFlashMain != nullptr && uefiFlashMain();
  auto hookPoint = Lookup<HookPointFunction>(directory, kHookPointName);
  if (hookPoint != nullptr) {
    hookPoint(kHookPointTerminate);
  }
  auto finish = Lookup<RunFunction>(directory, kFinishName);
  if (finish != nullptr) {
    finish();
  }
  return updated;
}

}  // namespace

EFI_STATUS KobaltAppMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable, ImageView ownImage) {
  gLauncher = {};
  SetLauncherTables(systemTable);
  // Text mode 0 stays set after the run.
  if (systemTable->ConOut != nullptr) {
    systemTable->ConOut->SetMode(systemTable->ConOut, 0);
  }

  LoadStage stage = kStageNone;
  EFI_STATUS status = LoadDriverFromBuffer(imageHandle, ownImage, &stage);
  Bool updated = false;
  if (EFI_ERROR(status)) {
    if (stage != kStageNone) {
      Print(kStageLines[stage], status);
    }
  } else {
    updated = RunUpdate(ownImage);
  }

  // After a failed LoadImage the handle is null, and what UnloadImage says of it is the result.
  status = gLauncher.bootServices->UnloadImage(gLauncher.driverHandle);
  if (EFI_ERROR(status)) {
    Print(kUnloadFailed, status);
    return status;
  }
  if (!updated) {
    Print(kUpdateFailed);
    return EFI_UNSUPPORTED;
  }
  return EFI_SUCCESS;
}
