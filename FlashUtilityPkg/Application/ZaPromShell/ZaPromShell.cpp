// ZAPROM-S, the command-line host of ShellFlashMain: loads kobalt.efi from its own directory,
// hands the driver the shell's arguments, its image handle, the current directory and an execute
// callback, runs the main and closes the run. All flashing, messages and logging are the driver's.
#include "ZaPromShell.h"

#include "FunctionDirectory.h"

// Everything here is private to the host: the host build links this file into one program with
// the driver, so no name may clash with the driver's own tables and helpers.
namespace {

struct ShellHostState {
  EFI_SYSTEM_TABLE* systemTable;
  EFI_BOOT_SERVICES* bootServices;
  EFI_HANDLE imageHandle;
  EFI_SHELL_PROTOCOL* shell;
};
constinit ShellHostState gHost = {};

constexpr const CHAR16 kDriverFileName[] = u"kobalt.efi";
constexpr UINTN kLineCapacity = 160;

UINTN TextLength(const CHAR16* text) {
  UINTN length = 0;
  while (text != nullptr && text[length] != 0) {
    length++;
  }
  return length;
}

VOID CopyBytes(VOID* destination, const VOID* source, UINTN length) {
  UINT8* to = static_cast<UINT8*>(destination);
  const UINT8* from = static_cast<const UINT8*>(source);
  for (UINTN i = 0; i < length; i++) {
    to[i] = from[i];
  }
}

// Appends text to line (capacity in characters, terminator included), cutting what does not fit.
VOID Append(CHAR16* line, UINTN capacity, const CHAR16* text) {
  UINTN at = TextLength(line);
  for (UINTN i = 0; text[i] != 0 && at + 1 < capacity; i++) {
    line[at++] = text[i];
  }
  line[at] = 0;
}

// The status as the firmware's own logs show it: 0x followed by the hex digits, no leading zeros.
VOID AppendStatus(CHAR16* line, UINTN capacity, EFI_STATUS status) {
  CHAR16 digits[2 + sizeof(EFI_STATUS) * 2 + 1];
  UINTN count = 0;
  digits[count++] = u'0';
  digits[count++] = u'x';
  Bool started = false;
  for (int shift = (int)(sizeof(EFI_STATUS) * 8) - 4; shift >= 0; shift -= 4) {
    UINTN nibble = (status >> shift) & 0xF;
    if (nibble != 0 || started || shift == 0) {
      started = true;
      digits[count++] = (CHAR16)(nibble < 10 ? u'0' + nibble : u'A' + nibble - 10);
    }
  }
  digits[count] = 0;
  Append(line, capacity, digits);
}

VOID ShowText(const CHAR16* text) {
  if (gHost.systemTable != nullptr && gHost.systemTable->ConOut != nullptr) {
    gHost.systemTable->ConOut->OutputString(gHost.systemTable->ConOut, text);
  }
}

// "ZAPROM-S: <step> failed - <status>", one line per failed load step.
EFI_STATUS ReportFailure(const CHAR16* step, EFI_STATUS status) {
  CHAR16 line[kLineCapacity];
  line[0] = 0;
  Append(line, kLineCapacity, u"ZAPROM-S: ");
  Append(line, kLineCapacity, step);
  Append(line, kLineCapacity, u" failed - ");
  AppendStatus(line, kLineCapacity, status);
  Append(line, kLineCapacity, u"\r\n");
  ShowText(line);
  return status;
}

VOID* AllocateZeroed(UINTN size) {
  VOID* block = nullptr;
  if (EFI_ERROR(gHost.bootServices->AllocatePool(EfiBootServicesData, size, &block)) || block == nullptr) {
    return nullptr;
  }
  UINT8* bytes = static_cast<UINT8*>(block);
  for (UINTN i = 0; i < size; i++) {
    bytes[i] = 0;
  }
  return block;
}

VOID FreeBlock(VOID* block) {
  if (block != nullptr) {
    gHost.bootServices->FreePool(block);
  }
}

UINTN NodeLength(const EFI_DEVICE_PATH_PROTOCOL* node) {
  return (UINTN)node->Length[0] | ((UINTN)node->Length[1] << 8);
}

// The bytes of a device path before its first end node. A node shorter than its own header
// would loop forever, so it ends the walk as well.
UINTN DevicePathPrefixSize(const EFI_DEVICE_PATH_PROTOCOL* path) {
  const UINT8* start = reinterpret_cast<const UINT8*>(path);
  const UINT8* at = start;
  for (;;) {
    const EFI_DEVICE_PATH_PROTOCOL* node = reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(at);
    UINTN length = NodeLength(node);
    if (node->Type == kDevicePathTypeEnd || length < sizeof(EFI_DEVICE_PATH_PROTOCOL)) {
      return (UINTN)(at - start);
    }
    at += length;
  }
}

// The text of all file path nodes of the image's own path joined, cut behind its last '\', with
// the driver's file name appended: the driver is looked for beside this application.
CHAR16* DriverFilePathText(const EFI_DEVICE_PATH_PROTOCOL* imagePath) {
  UINTN capacity = TextLength(kDriverFileName) + 2;
  const UINT8* at = reinterpret_cast<const UINT8*>(imagePath);
  for (;;) {
    const EFI_DEVICE_PATH_PROTOCOL* node = reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(at);
    UINTN length = NodeLength(node);
    if (node->Type == kDevicePathTypeEnd || length < sizeof(EFI_DEVICE_PATH_PROTOCOL)) {
      break;
    }
    capacity += length / sizeof(CHAR16) + 1;
    at += length;
  }
  CHAR16* text = static_cast<CHAR16*>(AllocateZeroed(capacity * sizeof(CHAR16)));
  if (text == nullptr) {
    return nullptr;
  }
  UINTN used = 0;
  at = reinterpret_cast<const UINT8*>(imagePath);
  for (;;) {
    const EFI_DEVICE_PATH_PROTOCOL* node = reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(at);
    UINTN length = NodeLength(node);
    if (node->Type == kDevicePathTypeEnd || length < sizeof(EFI_DEVICE_PATH_PROTOCOL)) {
      break;
    }
    if (node->Type == kDevicePathTypeMedia && node->SubType == kDevicePathSubtypeFilePath) {
      // Node text may be unaligned in the path, so it is read byte by byte.
      const UINT8* characters = at + sizeof(EFI_DEVICE_PATH_PROTOCOL);
      UINTN count = (length - sizeof(EFI_DEVICE_PATH_PROTOCOL)) / sizeof(CHAR16);
      Bool first = true;
      for (UINTN i = 0; i < count && used + 2 < capacity; i++) {
        CHAR16 c = (CHAR16)(characters[2 * i] | (characters[2 * i + 1] << 8));
        if (c == 0) {
          break;
        }
        // Consecutive file nodes name one path; join them with exactly one separator.
        if (first && used > 0 && text[used - 1] != u'\\' && c != u'\\') {
          text[used++] = u'\\';
        }
        first = false;
        text[used++] = c;
      }
    }
    at += length;
  }
  UINTN directoryEnd = 0;
  for (UINTN i = 0; i < used; i++) {
    if (text[i] == u'\\') {
      directoryEnd = i + 1;
    }
  }
  text[directoryEnd] = 0;
  if (directoryEnd == 0) {
    text[0] = u'\\';
    text[1] = 0;
  }
  Append(text, capacity, kDriverFileName);
  return text;
}

// The device of this application's image, then one file path node naming kobalt.efi beside it.
EFI_STATUS BuildDriverDevicePath(EFI_LOADED_IMAGE_PROTOCOL* loadedImage, EFI_DEVICE_PATH_PROTOCOL** path) {
  EFI_DEVICE_PATH_PROTOCOL* devicePath = nullptr;
  EFI_STATUS status = gHost.bootServices->HandleProtocol(loadedImage->DeviceHandle, &kDevicePathProtocolGuid,
                                                       reinterpret_cast<VOID**>(&devicePath));
  if (EFI_ERROR(status) || devicePath == nullptr) {
    return EFI_ERROR(status) ? status : EFI_NOT_FOUND;
  }
  CHAR16* fileText = DriverFilePathText(loadedImage->FilePath);
  if (fileText == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }
  UINTN prefix = DevicePathPrefixSize(devicePath);
  UINTN fileNode = sizeof(EFI_DEVICE_PATH_PROTOCOL) + (TextLength(fileText) + 1) * sizeof(CHAR16);
  UINT8* bytes = static_cast<UINT8*>(AllocateZeroed(prefix + fileNode + sizeof(EFI_DEVICE_PATH_PROTOCOL)));
  if (bytes == nullptr || fileNode > 0xFFFF) {
    FreeBlock(bytes);
    FreeBlock(fileText);
    return EFI_OUT_OF_RESOURCES;
  }
  CopyBytes(bytes, devicePath, prefix);
  UINT8* node = bytes + prefix;
  node[0] = kDevicePathTypeMedia;
  node[1] = kDevicePathSubtypeFilePath;
  node[2] = (UINT8)fileNode;
  node[3] = (UINT8)(fileNode >> 8);
  CopyBytes(node + sizeof(EFI_DEVICE_PATH_PROTOCOL), fileText, (TextLength(fileText) + 1) * sizeof(CHAR16));
  UINT8* end = node + fileNode;
  end[0] = kDevicePathTypeEnd;
  end[1] = kDevicePathSubtypeEndEntire;
  end[2] = (UINT8)sizeof(EFI_DEVICE_PATH_PROTOCOL);
  end[3] = 0;
  FreeBlock(fileText);
  *path = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(bytes);
  return EFI_SUCCESS;
}

Bool IsBlank(CHAR16 c) { return c == u' ' || c == u'\t'; }

// Without the shell's parameters protocol: the load options cut at blanks; a double-quoted
// stretch stays one argument, without its quotes. Text and vector are one pool block that lives
// for the run, since the driver reads and blanks arguments in place.
Bool SplitLoadOptions(const EFI_LOADED_IMAGE_PROTOCOL* loadedImage, UINT32* count, CHAR16*** vector) {
  UINTN characters = loadedImage->LoadOptions != nullptr ? loadedImage->LoadOptionsSize / sizeof(CHAR16) : 0;
  UINTN maxArguments = characters / 2 + 1;
  UINTN vectorBytes = maxArguments * sizeof(CHAR16*);
  UINT8* block = static_cast<UINT8*>(AllocateZeroed(vectorBytes + (characters + 1) * sizeof(CHAR16)));
  if (block == nullptr) {
    return false;
  }
  CHAR16** arguments = reinterpret_cast<CHAR16**>(block);
  CHAR16* text = reinterpret_cast<CHAR16*>(block + vectorBytes);
  CopyBytes(text, loadedImage->LoadOptions, characters * sizeof(CHAR16));
  text[characters] = 0;
  UINT32 found = 0;
  UINTN read = 0;
  UINTN write = 0;
  while (read < characters && text[read] != 0) {
    while (read < characters && IsBlank(text[read])) {
      read++;
    }
    if (read >= characters || text[read] == 0) {
      break;
    }
    CHAR16* argument = text + write;
    Bool quoted = false;
    while (read < characters && text[read] != 0 && (quoted || !IsBlank(text[read]))) {
      if (text[read] == u'"') {
        quoted = !quoted;
      } else {
        text[write++] = text[read];
      }
      read++;
    }
    // The terminator overwrites at most the blank that ended the argument, never unread text.
    read++;
    text[write++] = 0;
    if (found < maxArguments) {
      arguments[found++] = argument;
    }
  }
  *count = found;
  *vector = arguments;
  return true;
}

Bool GetArguments(EFI_HANDLE imageHandle, const EFI_LOADED_IMAGE_PROTOCOL* loadedImage, UINT32* count,
                  CHAR16*** vector) {
  EFI_SHELL_PARAMETERS_PROTOCOL* parameters = nullptr;
  if (!EFI_ERROR(gHost.bootServices->HandleProtocol(imageHandle, &kShellParametersProtocolGuid,
                                                  reinterpret_cast<VOID**>(&parameters))) &&
      parameters != nullptr) {
    *count = (UINT32)parameters->Argc;
    *vector = parameters->Argv;
    return true;
  }
  return SplitLoadOptions(loadedImage, count, vector);
}

EFI_STATUS EFIAPI ExecuteThroughShell(const CHAR16* commandLine) {
  if (gHost.shell == nullptr || gHost.shell->Execute == nullptr) {
    return EFI_UNSUPPORTED;
  }
  EFI_STATUS commandStatus = EFI_SUCCESS;
  EFI_STATUS status = gHost.shell->Execute(&gHost.imageHandle, const_cast<CHAR16*>(commandLine), nullptr, &commandStatus);
  return EFI_ERROR(status) ? status : commandStatus;
}

VOID* Lookup(FunctionDirectoryProtocol* directory, const CHAR16* name) {
  VOID* function = directory->LookupFunction(name);
  if (function == nullptr) {
    CHAR16 step[kLineCapacity];
    step[0] = 0;
    Append(step, kLineCapacity, u"LookupFunction of ");
    Append(step, kLineCapacity, name);
    ReportFailure(step, EFI_NOT_FOUND);
  }
  return function;
}

// Hands the run's context to the loaded driver, runs ShellFlashMain and closes the run. The
// closing calls go out whatever the main returned: the firmware decides there what comes next.
EFI_STATUS RunDriver(EFI_HANDLE imageHandle, UINT32 argumentCount, CHAR16** argumentVector) {
  FunctionDirectoryProtocol* directory = nullptr;
  EFI_STATUS status = gHost.bootServices->LocateProtocol(&kFunctionDirectoryProtocolGuid, nullptr,
                                                       reinterpret_cast<VOID**>(&directory));
  if (EFI_ERROR(status) || directory == nullptr || directory->LookupFunction == nullptr) {
    return ReportFailure(u"LocateProtocol of the function directory", EFI_ERROR(status) ? status : EFI_NOT_FOUND);
  }
  auto setArguments = reinterpret_cast<SetCommandLineArgumentFunction>(Lookup(directory, u"SetCommandLineArgument"));
  auto setImage = reinterpret_cast<SetImageHandleFunction>(Lookup(directory, u"SetImageHandle"));
  auto setDirectory = reinterpret_cast<SetCurrentDirectoryFunction>(Lookup(directory, u"SetCurrentDirectory"));
  auto setCallback = reinterpret_cast<SetShellExecuteCallbackFunction>(Lookup(directory, u"SetShellExecuteCallback"));
  auto shellFlashMain = reinterpret_cast<RunFunction>(Lookup(directory, u"ShellFlashMain"));
  auto hookPoint = reinterpret_cast<HookPointFunction>(Lookup(directory, u"SMI_ApHookPoint"));
  auto finish = reinterpret_cast<RunFunction>(Lookup(directory, u"FuncOblis_16h"));
  if (setArguments == nullptr || setImage == nullptr || setDirectory == nullptr || setCallback == nullptr ||
      shellFlashMain == nullptr || hookPoint == nullptr || finish == nullptr) {
    return EFI_NOT_FOUND;
  }

  const CHAR16* currentDirectory = nullptr;
  if (gHost.shell != nullptr && gHost.shell->GetCurDir != nullptr) {
    currentDirectory = gHost.shell->GetCurDir(nullptr);
  }
  setArguments(argumentCount, argumentVector);
  setImage(imageHandle);
  setDirectory(currentDirectory != nullptr ? currentDirectory : u"");
  setCallback(ExecuteThroughShell);

  Bool updated = shellFlashMain();
  hookPoint(0);
  finish();
  return updated ? EFI_SUCCESS : EFI_UNSUPPORTED;
}

}  // namespace

EFI_STATUS EFIAPI ZaPromShellEntry(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  if (systemTable == nullptr || systemTable->BootServices == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  gHost.systemTable = systemTable;
  gHost.bootServices = systemTable->BootServices;
  gHost.imageHandle = imageHandle;
  gHost.shell = nullptr;

  EFI_LOADED_IMAGE_PROTOCOL* loadedImage = nullptr;
  EFI_STATUS status = gHost.bootServices->HandleProtocol(imageHandle, &kLoadedImageProtocolGuid,
                                                       reinterpret_cast<VOID**>(&loadedImage));
  if (EFI_ERROR(status) || loadedImage == nullptr) {
    return ReportFailure(u"HandleProtocol of its own loaded image", EFI_ERROR(status) ? status : EFI_NOT_FOUND);
  }
  if (EFI_ERROR(gHost.bootServices->LocateProtocol(&kShellProtocolGuid, nullptr, reinterpret_cast<VOID**>(&gHost.shell)))) {
    gHost.shell = nullptr;
  }

  UINT32 argumentCount = 0;
  CHAR16** argumentVector = nullptr;
  if (!GetArguments(imageHandle, loadedImage, &argumentCount, &argumentVector)) {
    return ReportFailure(u"Reading the command line", EFI_OUT_OF_RESOURCES);
  }

  EFI_DEVICE_PATH_PROTOCOL* driverPath = nullptr;
  status = BuildDriverDevicePath(loadedImage, &driverPath);
  if (EFI_ERROR(status)) {
    return ReportFailure(u"Device path of kobalt.efi", status);
  }
  EFI_HANDLE driver = nullptr;
  status = gHost.bootServices->LoadImage(false, imageHandle, driverPath, nullptr, 0, &driver);
  FreeBlock(driverPath);
  if (EFI_ERROR(status)) {
    return ReportFailure(u"LoadImage of kobalt.efi", status);
  }
  status = gHost.bootServices->StartImage(driver, nullptr, nullptr);
  if (EFI_ERROR(status)) {
    ReportFailure(u"StartImage of kobalt.efi", status);
    gHost.bootServices->UnloadImage(driver);
    return status;
  }

  EFI_STATUS result = RunDriver(imageHandle, argumentCount, argumentVector);

  status = gHost.bootServices->UnloadImage(driver);
  if (EFI_ERROR(status)) {
    return ReportFailure(u"UnloadImage of kobalt.efi", status);
  }
  return result;
}

VOID ResetZaPromShellState() { gHost = {}; }
