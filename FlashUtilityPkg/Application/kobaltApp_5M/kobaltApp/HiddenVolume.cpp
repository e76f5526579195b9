// The copy of the driver that LoadImage gets, and the one firmware volume of the carried flash
// image that it must not see: the volume holding the hidden file is kept aside and filled with
// 0xFF in the copy, and put back into the loaded driver before anything runs the update. What
// the hidden file holds is the firmware's matter.
#include "LauncherInternal.h"

using namespace launcher;

namespace {

constexpr UINT32 kTagBytes = 16;
constexpr UINT32 kSlotSizeField = 20;
constexpr UINT32 kSlotHeaderBytes = 24;

// Firmware volume header.
constexpr UINT32 kVolumeFileSystemGuid = 0x10;
constexpr UINT32 kVolumeLength = 0x20;
constexpr UINT32 kVolumeSignature = 0x28;
constexpr UINT32 kVolumeHeaderLength = 0x30;
constexpr UINT32 kVolumeHeaderBytes = 0x48;
constexpr UINT32 kVolumeStep = 16;

// File header.
constexpr UINT32 kFileHeaderBytes = 24;
constexpr UINT32 kFileIntegrity = 0x11;
constexpr UINT32 kFileType = 0x12;
constexpr UINT32 kFileAttributes = 0x13;
constexpr UINT32 kFileSize = 0x14;
constexpr UINT32 kFileState = 0x17;
constexpr UINT32 kFileLargeSize = 0x18;
constexpr UINT8 kFileTypePad = 0xF0;
constexpr UINT8 kFileAttributeLarge = 0x01;
constexpr UINT32 kFileAlignment = 8;

constexpr UINT8 kVolumeSignatureBytes[] = {'_', 'F', 'V', 'H'};
constexpr UINT8 kVariableStoreSignature[] = {'$', 'V', 'S', 'S'};
// The file system of a variable store, FFF12B8D-7696-4C8B-A985-2747075B4F50.
constexpr UINT8 kVariableStoreGuid[16] = {0x8D, 0x2B, 0xF1, 0xFF, 0x96, 0x76, 0x8B, 0x4C,
                                          0xA9, 0x85, 0x27, 0x47, 0x07, 0x5B, 0x4F, 0x50};
// The name of the hidden file, 171F3C16-F178-4B6B-11D6-7E2F17C09A10.
constexpr UINT8 kHiddenFileGuid[16] = {0x16, 0x3C, 0x1F, 0x17, 0x78, 0xF1, 0x6B, 0x4B,
                                       0x11, 0xD6, 0x7E, 0x2F, 0x17, 0xC0, 0x9A, 0x10};

// The tag stands in the driver's own data with another first byte; the launcher carries the
// driver, so a whole tag here would be found by any search through the launcher file.
constexpr char kBiosImageTagTemplate[] = "#_KOBALT_BIOSIMG";
constexpr UINT8 kTagMark = '$';

VOID ComposeBiosImageTag(volatile UINT8* tag) {
  for (UINT32 i = 0; i < kTagBytes; i++) {
    tag[i] = (UINT8)kBiosImageTagTemplate[i];
  }
  tag[0] = kTagMark;
}

// The first tag in the driver, ascending. A tag whose slot header would not end inside the
// driver has no data to look at, so the search stops where a header no longer fits.
Bool FindBiosImageTag(const UINT8* driver, UINT32 size, UINT32* offset) {
  UINT8 tag[kTagBytes];
  ComposeBiosImageTag(tag);
  for (UINT32 at = 0; size >= kSlotHeaderBytes && at <= size - kSlotHeaderBytes; at++) {
    if (SameBytes(driver + at, tag, kTagBytes)) {
      *offset = at;
      return true;
    }
  }
  return false;
}

Bool IsVolumeHeader(const UINT8* at, UINT32 available) {
  if (available < kVolumeHeaderBytes || !SameBytes(at + kVolumeSignature, kVolumeSignatureBytes, 4) ||
      ReadLe16(at + kVolumeHeaderLength) != kVolumeHeaderBytes) {
    return false;
  }
  UINT16 sum = 0;
  for (UINT32 i = 0; i < kVolumeHeaderBytes; i += 2) {
    sum = (UINT16)(sum + ReadLe16(at + i));
  }
  return sum == 0;
}

Bool IsAll(const UINT8* at, UINT32 count, UINT8 value) {
  for (UINT32 i = 0; i < count; i++) {
    if (at[i] != value) {
      return false;
    }
  }
  return true;
}

Bool IsFileHeader(const UINT8* at) {
  UINT8 sum = 0;
  for (UINT32 i = 0; i < kFileHeaderBytes; i++) {
    if (i != kFileIntegrity && i != kFileState) {
      sum = (UINT8)(sum + at[i]);
    }
  }
  return sum == 0 && !IsAll(at, 16, 0xFF) && !IsAll(at, 16, 0x00);
}

// Walks the files of one volume; bytes is what of the volume lies inside the data.
Bool HoldsHiddenFile(const UINT8* volume, UINT32 bytes) {
  if (SameBytes(volume + kVolumeFileSystemGuid, kVariableStoreGuid, 16)) {
    return false;
  }
  if (bytes >= kVolumeHeaderBytes + 4 && SameBytes(volume + kVolumeHeaderBytes, kVariableStoreSignature, 4)) {
    return false;
  }
  UINT64 file = kVolumeHeaderBytes;
  while (file + kFileHeaderBytes <= bytes) {
    const UINT8* header = volume + file;
    if (!IsFileHeader(header)) {
      return false;
    }
    if (header[kFileType] != kFileTypePad && SameBytes(header, kHiddenFileGuid, 16)) {
      return true;
    }
    UINT64 size = ReadLe32(header + kFileSize) & 0xFFFFFF;
    if ((header[kFileAttributes] & kFileAttributeLarge) != 0) {
      if (file + kFileLargeSize + 4 > bytes) {
        return false;
      }
      size = ReadLe32(header + kFileLargeSize);
    }
    // A size shorter than its own header would never move the walk on.
    if (size < kFileHeaderBytes) {
      return false;
    }
    file += (size + kFileAlignment - 1) / kFileAlignment * kFileAlignment;
  }
  return false;
}

}  // namespace

VOID SetLauncherTables(EFI_SYSTEM_TABLE* systemTable) {
  gLauncher.systemTable = systemTable;
  gLauncher.bootServices = systemTable != nullptr ? systemTable->BootServices : nullptr;
}

Bool FindHiddenVolume(const UINT8* data, UINT32 length, UINT32* offset, UINT32* volumeLength) {
  UINT32 at = 0;
  while (at < length) {
    const UINT8* volume = data + at;
    UINT32 available = length - at;
    UINT32 bytes = IsVolumeHeader(volume, available) ? ReadLe32(volume + kVolumeLength) : 0;
    // A volume shorter than its own header is no volume: the walk steps over it.
    if (bytes < kVolumeHeaderBytes) {
      at += kVolumeStep;
      continue;
    }
    if (HoldsHiddenFile(volume, bytes < available ? bytes : available)) {
      *offset = at;
      *volumeLength = bytes;
      return true;
    }
    if (bytes >= available) {
      break;
    }
    at += bytes;
  }
  return false;
}

Bool CopyDriverImage(ImageView driver, UINT8** copy) {
  UINT8* bytes = AllocateBytes(EfiBootServicesData, driver.length);
  if (bytes == nullptr) {
    return false;
  }
  CopyBytes(bytes, driver.data, driver.length);
  UINT32 tag = 0;
  if (!FindBiosImageTag(bytes, driver.length, &tag)) {
    *copy = bytes;
    return true;
  }
  // The slot's size field is the packing step's word; the walk keeps inside the copy whatever
  // it says.
  UINT32 dataStart = tag + kSlotHeaderBytes;
  UINT32 dataLength = ReadLe32(bytes + tag + kSlotSizeField);
  if (dataLength > driver.length - dataStart) {
    dataLength = driver.length - dataStart;
  }
  UINT32 offset = 0;
  UINT32 length = 0;
  if (!FindHiddenVolume(bytes + dataStart, dataLength, &offset, &length)) {
    *copy = bytes;
    return true;
  }
  offset += dataStart;
  if (length > driver.length - offset) {
    FreeBytes(bytes);
    return false;
  }
  // It must outlive the boot-service copy until the loaded image has it back.
  gLauncher.hiddenVolumeCopy = AllocateBytes(EfiRuntimeServicesData, length);
  if (gLauncher.hiddenVolumeCopy == nullptr) {
    FreeBytes(bytes);
    return false;
  }
  CopyBytes(gLauncher.hiddenVolumeCopy, bytes + offset, length);
  FillBytes(bytes + offset, length, 0xFF);
  gLauncher.hiddenVolume = {true, offset, length};
  *copy = bytes;
  return true;
}

// The driver's file offsets are its loaded offsets (its section and file alignments are equal),
// so the volume goes back at the offset it was taken from.
Bool RestoreHiddenVolume(UINT8* imageBase, UINT32 size) {
  const HiddenVolumeRecord& hidden = gLauncher.hiddenVolume;
  if (!hidden.found) {
    return true;
  }
  if (hidden.length > size || hidden.offset > size - hidden.length || gLauncher.hiddenVolumeCopy == nullptr ||
      imageBase == nullptr) {
    return false;
  }
  CopyBytes(imageBase + hidden.offset, gLauncher.hiddenVolumeCopy, hidden.length);
  FreeBytes(gLauncher.hiddenVolumeCopy);
  return true;
}
