// The file layer: finds the volume's root once, and reads, writes, appends, deletes and creates
// files by names relative to the host's current directory. It reports by Bool and the trace;
// what the user is told about a failed file is left to the callers.
//
// The log writer itself appends its lines through AppendBufferToFile and deletes the old log
// through EfiDeleteFile, and every trace here goes back through the log writer. So nothing in
// this file may trace on the append's success path, the root is looked for only once, and the
// append's own failure trace is guarded against coming back into itself.
#include "frame/Frame.h"
#include "output/Output.h"

namespace {

constexpr UINTN kFullNameCharacters = 512;
constexpr UINT64 kOpenRead = EFI_FILE_MODE_READ;
constexpr UINT64 kOpenReadWrite = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
constexpr UINT64 kOpenCreate = EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;  // 0x8000000000000003
constexpr UINT64 kAttributeDirectory = 0x10;
constexpr UINT64 kPositionEnd = 0xFFFFFFFFFFFFFFFFULL;
// A device path that does not end within this many nodes is taken as malformed.
constexpr UINTN kDevicePathNodeLimit = 64;
constexpr UINT16 kDevicePathNodeHeaderBytes = 4;

constexpr CHAR16 kTraceHandleLoadedImageFail[] = u"HandleProtocol (gEfiLoadedImageProtocolGuid) fail - %r\r\n";
constexpr CHAR16 kTraceFileSystemFail[] = u"Open FileSystemProtocol fail - %r\r\n";
constexpr CHAR16 kTraceOpenVolumeFailHost[] = u"Open OpenVolume fail - %r\r\n";
constexpr CHAR16 kTraceLocateHandleBufferFail[] = u"LocateHandleBuffer() |fail|\r\n";
constexpr CHAR16 kTraceGetSubtypeFail[] = u"GetSubtype_1st() |fail| (%d)\r\n";
constexpr CHAR16 kTraceHandleProtocolFail[] = u"HandleProtocol() |fail|\r\n";
constexpr CHAR16 kTraceOpenVolumeFail[] = u"OpenVolume() |fail|\r\n";
constexpr CHAR16 kTraceSetFileHandle[] = u"SetFileHandle() |set| (%d)\r\n";
constexpr CHAR16 kTraceReadOpenFail[] = u"Open file [%s] fail - %r\n";
constexpr CHAR16 kTraceSaveFail[] = u"SaveBufferToFile() |fail| (%s)\r\n";
constexpr CHAR16 kTraceAppendOpenFail[] = u"open file (%s) fail\r\n";
constexpr CHAR16 kTraceDelete[] = u"EfiDeleteFile (%s)\r\n";
constexpr CHAR16 kTraceMakeDirectory[] = u"  Str - (%s)\r\nmkDir - (%s)\r\n";
constexpr CHAR16 kTraceMakeDirectoryFail[] = u"Create directory |fail| (%s)\n";

struct FileLayerState {
  EFI_FILE_PROTOCOL* rootDirectory;
  Bool rootLookedFor;
  Bool appendFailureTracing;
};
constinit FileLayerState gFiles = {};

// "%s\%s" of the current directory and the name. A name that starts with '\' is taken as it is
// where the caller allows that (SaveBufferToFile, MakeDirectory).
VOID BuildFullName(CHAR16* fullName, const CHAR16* name, Bool rootedNameAllowed) {
  if (name == nullptr) {
    name = u"";
  }
  if (rootedNameAllowed && name[0] == u'\\') {
    StrCopy16(fullName, kFullNameCharacters, name);
    return;
  }
  StrCopy16(fullName, kFullNameCharacters, GetCurrentDirectory());
  StrCat16(fullName, kFullNameCharacters, u"\\");
  StrCat16(fullName, kFullNameCharacters, name);
}

EFI_FILE_PROTOCOL* OpenRootOfHostImage(EFI_HANDLE hostImage) {
  VOID* interface = nullptr;
  EFI_STATUS status = gBS->HandleProtocol(hostImage, &kLoadedImageProtocolGuid, &interface);
  if (EFI_ERROR(status) || interface == nullptr) {
    LogPrint(kLogDetail, kTraceHandleLoadedImageFail, status);
    return nullptr;
  }
  EFI_HANDLE device = static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(interface)->DeviceHandle;
  interface = nullptr;
  status = gBS->HandleProtocol(device, &kSimpleFileSystemProtocolGuid, &interface);
  if (EFI_ERROR(status) || interface == nullptr) {
    LogPrint(kLogDetail, kTraceFileSystemFail, status);
    return nullptr;
  }
  auto* fileSystem = static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL*>(interface);
  EFI_FILE_PROTOCOL* root = nullptr;
  status = fileSystem->OpenVolume(fileSystem, &root);
  if (EFI_ERROR(status)) {
    LogPrint(kLogDetail, kTraceOpenVolumeFailHost, status);
    return nullptr;
  }
  return root;
}

// The first handle, in handle order, whose device path holds a USB node.
Bool GetSubtype_1st(const EFI_HANDLE* handles, UINTN count, UINTN* index) {
  for (UINTN i = 0; i < count; i++) {
    if (HandlePathHasNode(handles[i], kDevicePathTypeMessaging, kDevicePathSubtypeUsb)) {
      *index = i;
      return true;
    }
  }
  return false;
}

// Without a host image, as under the launcher: the first USB volume, else the first volume.
EFI_FILE_PROTOCOL* OpenRootOfFirstVolume() {
  UINTN count = 0;
  EFI_HANDLE* handles = nullptr;
  if (EFI_ERROR(gBS->LocateHandleBuffer(ByProtocol, &kSimpleFileSystemProtocolGuid, nullptr, &count, &handles))) {
    LogPrint(kLogDetail, kTraceLocateHandleBufferFail);
    return nullptr;
  }
  UINTN index = 0;
  Bool usbFound = handles != nullptr && GetSubtype_1st(handles, count, &index);
  if (count == 0 || handles == nullptr) {
    FreePoolAndNull(handles);
    LogPrint(kLogDetail, kTraceGetSubtypeFail, (INT32)count);
    return nullptr;
  }
  VOID* interface = nullptr;
  EFI_STATUS status = gBS->HandleProtocol(handles[index], &kSimpleFileSystemProtocolGuid, &interface);
  FreePoolAndNull(handles);
  EFI_FILE_PROTOCOL* root = nullptr;
  if (!EFI_ERROR(status) && interface != nullptr) {
    auto* fileSystem = static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL*>(interface);
    if (EFI_ERROR(fileSystem->OpenVolume(fileSystem, &root))) {
      root = nullptr;
    }
  }
  // The root is kept before any of these lines is traced: a line traced while no root is known
  // cannot reach the log, and the engineer needs to see which volume was taken and why.
  gFiles.rootDirectory = root;
  if (!usbFound) {
    LogPrint(kLogDetail, kTraceGetSubtypeFail, (INT32)count);
  }
  if (EFI_ERROR(status) || interface == nullptr) {
    LogPrint(kLogDetail, kTraceHandleProtocolFail);
    return nullptr;
  }
  if (root == nullptr) {
    LogPrint(kLogDetail, kTraceOpenVolumeFail);
    return nullptr;
  }
  LogPrint(kLogDetail, kTraceSetFileHandle, (INT32)index);
  return root;
}

}  // namespace

// Nodes are walked by their own length.
Bool HandlePathHasNode(EFI_HANDLE handle, UINT8 type, UINT8 subtype) {
  VOID* interface = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(handle, &kDevicePathProtocolGuid, &interface)) || interface == nullptr) {
    return false;
  }
  const UINT8* node = static_cast<const UINT8*>(interface);
  for (UINTN i = 0; i < kDevicePathNodeLimit; i++) {
    if (node[0] == kDevicePathTypeEnd) {
      return false;
    }
    if (node[0] == type && node[1] == subtype) {
      return true;
    }
    UINT16 length = ReadU16(node + 2);
    if (length < kDevicePathNodeHeaderBytes) {
      return false;
    }
    node += length;
  }
  return false;
}

EFI_FILE_PROTOCOL* GetRootDirectory() {
  // Looked for once: the traces below go through the log, which asks for the root again.
  if (gFiles.rootLookedFor || gBS == nullptr) {
    return gFiles.rootDirectory;
  }
  gFiles.rootLookedFor = true;
  EFI_HANDLE hostImage = GetHostImageHandle();
  if (hostImage != nullptr) {
    gFiles.rootDirectory = OpenRootOfHostImage(hostImage);
  } else {
    gFiles.rootDirectory = OpenRootOfFirstVolume();
  }
  return gFiles.rootDirectory;
}

Bool ReadFile(const CHAR16* name, UINT8** buffer, UINT32* size) {
  EFI_FILE_PROTOCOL* root = GetRootDirectory();
  if (root == nullptr) {
    return false;
  }
  CHAR16 fullName[kFullNameCharacters];
  BuildFullName(fullName, name, false);
  EFI_FILE_PROTOCOL* file = nullptr;
  EFI_STATUS status = root->Open(root, &file, fullName, kOpenRead, 0);
  if (EFI_ERROR(status) || file == nullptr) {
    LogPrint(kLogDetail, kTraceReadOpenFail, fullName, status);
    return false;
  }
  UINT64 position = 0;
  file->SetPosition(file, kPositionEnd);
  if (EFI_ERROR(file->GetPosition(file, &position))) {
    position = 0;  // a directory has no position: it reads as empty
  }
  file->SetPosition(file, 0);
  // The size travels as u32; a larger file cannot be held and is refused.
  if (position > 0xFFFFFFFFULL) {
    file->Close(file);
    return false;
  }
  UINT32 fileSize = (UINT32)position;
  if (size != nullptr) {
    *size = fileSize;
  }
  if (buffer != nullptr) {
    // One byte more than the file, so an empty file still gives the caller a valid block.
    UINT8* data = static_cast<UINT8*>(AllocateZeroPool((UINTN)fileSize + 1));
    if (data == nullptr) {
      file->Close(file);
      return false;
    }
    if (fileSize != 0) {
      UINTN readSize = fileSize;
      if (EFI_ERROR(file->Read(file, &readSize, data)) || readSize != fileSize) {
        FreePoolAndNull(data);
        file->Close(file);
        return false;
      }
    }
    *buffer = data;
  }
  file->Close(file);
  return true;
}

Bool SaveBufferToFile(const CHAR16* name, const VOID* data, UINT32 size) {
  EFI_FILE_PROTOCOL* root = GetRootDirectory();
  if (root == nullptr) {
    return false;
  }
  CHAR16 fullName[kFullNameCharacters];
  BuildFullName(fullName, name, true);
  EFI_FILE_PROTOCOL* file = nullptr;
  // Open does not truncate: an older, longer file would keep its tail behind the new content,
  // so it goes first.
  if (!EFI_ERROR(root->Open(root, &file, fullName, kOpenReadWrite, 0)) && file != nullptr) {
    file->Delete(file);
  }
  file = nullptr;
  if (EFI_ERROR(root->Open(root, &file, fullName, kOpenCreate, 0)) || file == nullptr) {
    LogPrint(kLogDetail, kTraceSaveFail, fullName);
    return false;
  }
  UINTN writeSize = size;
  EFI_STATUS status = EFI_SUCCESS;
  if (size != 0) {
    status = file->Write(file, &writeSize, data);
  }
  file->Flush(file);
  file->Close(file);
  return !EFI_ERROR(status) && writeSize == size;
}

Bool AppendBufferToFile(const CHAR16* name, const VOID* data, UINT32 size) {
  EFI_FILE_PROTOCOL* root = GetRootDirectory();
  if (root == nullptr) {
    return false;
  }
  CHAR16 fullName[kFullNameCharacters];
  BuildFullName(fullName, name, false);
  EFI_FILE_PROTOCOL* file = nullptr;
  if (EFI_ERROR(root->Open(root, &file, fullName, kOpenCreate, 0)) || file == nullptr) {
    // The trace of this failure is itself appended to the log; if that append fails too, its
    // failure is not traced again.
    if (!gFiles.appendFailureTracing) {
      gFiles.appendFailureTracing = true;
      LogPrint(kLogDetail, kTraceAppendOpenFail, fullName);
      gFiles.appendFailureTracing = false;
    }
    return false;
  }
  file->SetPosition(file, kPositionEnd);
  UINTN writeSize = size;
  EFI_STATUS status = EFI_SUCCESS;
  if (size != 0) {
    status = file->Write(file, &writeSize, data);
  }
  file->Close(file);
  return !EFI_ERROR(status) && writeSize == size;
}

Bool EfiDeleteFile(const CHAR16* name) {
  CHAR16 fullName[kFullNameCharacters];
  BuildFullName(fullName, name, false);
  // The root first: finding it traces, and the log's first line arrives here before the log
  // writer has formatted its own text.
  EFI_FILE_PROTOCOL* root = GetRootDirectory();
  LogPrint(kLogDetail, kTraceDelete, fullName);
  if (root == nullptr) {
    return false;
  }
  EFI_FILE_PROTOCOL* file = nullptr;
  if (EFI_ERROR(root->Open(root, &file, fullName, kOpenReadWrite, 0)) || file == nullptr) {
    return true;  // what cannot be opened is not there
  }
  // Delete closes the handle whatever it answers.
  return !EFI_ERROR(file->Delete(file));
}

Bool MakeDirectory(const CHAR16* name) {
  CHAR16 fullName[kFullNameCharacters];
  BuildFullName(fullName, name, true);
  EFI_FILE_PROTOCOL* root = GetRootDirectory();
  LogPrint(kLogDetail, kTraceMakeDirectory, name != nullptr ? name : u"", fullName);
  if (root == nullptr) {
    return false;
  }
  EFI_FILE_PROTOCOL* directory = nullptr;
  if (EFI_ERROR(root->Open(root, &directory, fullName, kOpenCreate, kAttributeDirectory)) || directory == nullptr) {
    LogPrint(kLogDetail, kTraceMakeDirectoryFail, fullName);
    return false;
  }
  directory->Close(directory);
  return true;
}

VOID ResetFileLayerState() {
  gFiles = {};
}
