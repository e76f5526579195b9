// The launcher kobaltApp: the UEFI application that the firmware starts. Its own image carries
// the whole driver in one slot; it starts the driver from memory, runs UefiFlashMain by name,
// reports the end of the run to the firmware and unloads the driver. It shares no code with the
// driver: one GUID and three names are all that pass between them.
#pragma once

#include "FunctionDirectory.h"

// The launcher file's fixed layout. Its image base is 0 and the slot's section is loaded where
// it stands in the file, so these offsets are addresses in the loaded image as well; nothing is
// searched.
constexpr UINT32 kLauncherImageGuidOffset = 0x220;      // EFI_LOADED_IMAGE_PROTOCOL
constexpr UINT32 kLauncherDirectoryGuidOffset = 0x230;  // FunctionDirectoryProtocol
constexpr UINT32 kLauncherSlotTagOffset = 0x240;        // "$_KOBALT_DRV_IMG"
constexpr UINT32 kLauncherSlotCapacityOffset = 0x250;
constexpr UINT32 kLauncherSlotSizeOffset = 0x254;       // 0: the slot is empty
constexpr UINT32 kLauncherDriverOffset = 0x258;         // the driver's complete file
// What the slot reserves for the driver's file in this build.
constexpr UINT32 kLauncherSlotCapacity = 0x800000;

// The main run. ownImage is the launcher's own file as it lies in memory, from its first byte:
// the firmware build hands in its loaded image, a host the bytes of a launcher file. Returns
// EFI_SUCCESS, EFI_UNSUPPORTED for an update that did not happen, or the status of a failed
// UnloadImage.
EFI_STATUS KobaltAppMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable, ImageView ownImage);

// The first firmware volume in data that holds the hidden file, which the driver copy handed to
// LoadImage must not show; offset and length of the volume.
Bool FindHiddenVolume(const UINT8* data, UINT32 length, UINT32* offset, UINT32* volumeLength);
