// The driver's entry point and unload handler: keeps the firmware tables, publishes the function
// directory and the component name on the image handle, and marks the entry slot tags. It does
// no work of a run: no OBLIS call, no console output, no setting is read here.
#include "frame/FrameInternal.h"
#include "checks/Checks.h"
#include "config/Config.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/Update.h"

namespace {

constexpr CHAR8 kSupportedLanguages[] = "eng";
// GetDriverName hands out a non-const pointer, so the name lives in writable static storage.
constinit CHAR16 driverName[] = u"1.00.42.00";

Bool IsEnglish(const CHAR8* language) {
  // Bounded: at most the three letters and the terminator are read.
  for (UINTN i = 0; i < sizeof(kSupportedLanguages); i++) {
    if (language[i] != kSupportedLanguages[i]) {
      return false;
    }
  }
  return true;
}

EFI_STATUS EFIAPI GetDriverName(EFI_COMPONENT_NAME_PROTOCOL* /*self*/, const CHAR8* language, CHAR16** name) {
  if (language == nullptr || name == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (!IsEnglish(language)) {
    return EFI_UNSUPPORTED;
  }
  *name = driverName;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetControllerName(EFI_COMPONENT_NAME_PROTOCOL* /*self*/, EFI_HANDLE /*controller*/,
                                    EFI_HANDLE /*child*/, const CHAR8* /*language*/, CHAR16** /*name*/) {
  return EFI_UNSUPPORTED;
}

constinit FunctionDirectoryProtocol functionDirectory = {LookupFunction};
constinit EFI_COMPONENT_NAME_PROTOCOL componentName = {GetDriverName, GetControllerName, kSupportedLanguages};

}  // namespace

EFI_STATUS EFIAPI KobaltDriverEntry(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  SetFirmwareTables(imageHandle, systemTable);

  // A directory that is already there belongs to an earlier load of this driver; it stays, so a
  // host that holds its pointer keeps working.
  VOID* existing = nullptr;
  if (EFI_ERROR(gBS->LocateProtocol(&kFunctionDirectoryProtocolGuid, nullptr, &existing))) {
    EFI_HANDLE handle = imageHandle;
    EFI_STATUS status =
        gBS->InstallProtocolInterface(&handle, &kFunctionDirectoryProtocolGuid, EFI_NATIVE_INTERFACE, &functionDirectory);
    if (EFI_ERROR(status)) {
      return status;
    }
  }

  VOID* interface = nullptr;
  EFI_STATUS status = gBS->HandleProtocol(imageHandle, &kLoadedImageProtocolGuid, &interface);
  if (EFI_ERROR(status)) {
    return status;
  }
  static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(interface)->Unload = DriverUnload;

  EFI_HANDLE handle = imageHandle;
  status = gBS->InstallProtocolInterface(&handle, &kComponentNameProtocolGuid, EFI_NATIVE_INTERFACE, &componentName);
  if (EFI_ERROR(status)) {
    return status;
  }

  MarkEntrySlotTags();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DriverUnload(EFI_HANDLE imageHandle) {
  FreeResource();
  // Errors are not looked at: the platform unloads the image whatever they say.
  gBS->UninstallMultipleProtocolInterfaces(imageHandle, &kComponentNameProtocolGuid, &componentName, nullptr);
  gBS->UninstallMultipleProtocolInterfaces(imageHandle, &kFunctionDirectoryProtocolGuid, &functionDirectory, nullptr);
  ReleaseDriverMemory();
  return EFI_SUCCESS;
}

VOID ReleaseDriverMemory() {
  // The log buffer goes last, since any trace line would take it again.
  ReleaseUpdateMemory();
  ReleaseChecksMemory();
  ReleasePackageMemory();
  ReleaseOblisMemory();
  ReleaseConfigMemory();
  ReleaseOutputMemory();
}
