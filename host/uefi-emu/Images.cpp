// Images in the emulated environment: the host's own image handle (with shell parameters and
// the shell protocol for a command-line host), and LoadImage/StartImage/UnloadImage over
// images linked into the host program, registered by file name. No PE loading happens here: a
// driver handed over in a buffer brings only its slot chain into the linked driver.
#include <cstdio>
#include <cstring>

#include "EmuInternal.h"

namespace emu::detail {
namespace {

constexpr size_t kTagBytes = 16;
constexpr size_t kRecordBytes = 20;
// The chain's secure-image record behind its first byte: "ISB" and its GUID, mixed-endian.
constexpr uint8_t kRecordTail[kRecordBytes - 1] = {'I',  'S',  'B',  0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3, 0xAE,
                                                   0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB, 0xB8};
constexpr char kEcTagTail[] = "_KOBALT_EC_IMG_";

// A driver file carries '#' in front of its record and tags until they are marked with '$'.
bool MarkedAt(const uint8_t* at, const void* tail, size_t tailBytes) {
  return (at[0] == '#' || at[0] == '$') && std::memcmp(at + 1, tail, tailBytes) == 0;
}

// The offset of the first slot chain in the buffer: its record with the EC tag right behind it.
bool FindSlotChain(const uint8_t* buffer, size_t size, size_t& offset) {
  for (size_t at = 0; at + kRecordBytes + kTagBytes <= size; ++at) {
    if (MarkedAt(buffer + at, kRecordTail, sizeof kRecordTail) &&
        MarkedAt(buffer + at + kRecordBytes, kEcTagTail, kTagBytes - 1)) {
      offset = at;
      return true;
    }
  }
  return false;
}

void AppendNode(std::vector<uint8_t>& path, uint8_t type, uint8_t subtype, const std::vector<uint8_t>& body) {
  size_t length = 4 + body.size();
  path.push_back(type);
  path.push_back(subtype);
  path.push_back(static_cast<uint8_t>(length));
  path.push_back(static_cast<uint8_t>(length >> 8));
  path.insert(path.end(), body.begin(), body.end());
}

// A media file-path node naming "\<fileName>", then the end node.
std::vector<uint8_t> FilePathOf(const std::u16string& text) {
  std::vector<uint8_t> body;
  for (char16_t c : text) {
    body.push_back(static_cast<uint8_t>(c));
    body.push_back(static_cast<uint8_t>(c >> 8));
  }
  body.push_back(0);
  body.push_back(0);
  std::vector<uint8_t> path;
  AppendNode(path, kDevicePathTypeMedia, kDevicePathSubtypeFilePath, body);
  AppendNode(path, kDevicePathTypeEnd, kDevicePathSubtypeEndEntire, {});
  return path;
}

// The text of the last run of file-path nodes of a device path (consecutive nodes concatenate
// to one path), read node by node within each node's own length.
bool LastFilePath(const EFI_DEVICE_PATH_PROTOCOL* devicePath, std::u16string& path) {
  const auto* p = reinterpret_cast<const uint8_t*>(devicePath);
  bool found = false;
  bool previousWasFile = false;
  for (int nodes = 0; nodes < 256; ++nodes) {
    uint8_t type = p[0], subtype = p[1];
    size_t length = p[2] | (p[3] << 8);
    if (type == kDevicePathTypeEnd || length < 4) break;
    if (type == kDevicePathTypeMedia && subtype == kDevicePathSubtypeFilePath) {
      if (!previousWasFile) path.clear();
      std::u16string part;
      for (size_t i = 4; i + 1 < length; i += 2) {
        char16_t c = static_cast<char16_t>(p[i] | (p[i + 1] << 8));
        if (c == 0) break;
        part += c;
      }
      // Consecutive nodes are directory and name: join them with one separator.
      if (!path.empty() && path.back() != u'\\' && !part.empty() && part.front() != u'\\') path += u'\\';
      path += part;
      found = true;
      previousWasFile = true;
    } else {
      previousWasFile = false;
    }
    p += length;
  }
  return found;
}

ImageRecord* FindImage(EFI_HANDLE handle) {
  if (handle == nullptr) return nullptr;
  for (auto& image : g->images) {
    if (image->handle == handle) return image.get();
  }
  return nullptr;
}

ImageRecord& NewImage(EFI_HANDLE parent, EFI_HANDLE device, const std::u16string& filePath) {
  auto image = std::make_unique<ImageRecord>();
  image->loaded = std::make_unique<EFI_LOADED_IMAGE_PROTOCOL>();
  image->filePath = FilePathOf(filePath);
  EFI_LOADED_IMAGE_PROTOCOL& loaded = *image->loaded;
  loaded.Revision = 0x1000;
  loaded.ParentHandle = parent;
  loaded.SystemTable = &g->systemTable;
  loaded.DeviceHandle = device;
  loaded.FilePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(image->filePath.data());
  loaded.ImageCodeType = EfiLoaderCode;
  loaded.ImageDataType = EfiLoaderData;
  InstallProtocol(&image->handle, kLoadedImageProtocolGuid, image->loaded.get());
  g->images.push_back(std::move(image));
  return *g->images.back();
}

const CHAR16* EFIAPI ShellGetCurDir(const CHAR16*) { return g->currentDirectory.c_str(); }

EFI_STATUS EFIAPI ShellExecute(EFI_HANDLE*, CHAR16* commandLine, CHAR16**, EFI_STATUS* statusCode) {
  if (commandLine == nullptr) return EFI_INVALID_PARAMETER;
  std::u16string command(commandLine);
  g->executed.push_back(command);
  EFI_STATUS status = g->executeHandler ? g->executeHandler(command) : EFI_SUCCESS;
  if (statusCode != nullptr) *statusCode = status;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI LoadImage(BOOLEAN, EFI_HANDLE parent, EFI_DEVICE_PATH_PROTOCOL* devicePath, VOID* source,
                            UINTN sourceSize, EFI_HANDLE* imageHandle) {
  if (imageHandle == nullptr) return EFI_INVALID_PARAMETER;
  *imageHandle = nullptr;
  ImageRecord* parentImage = FindImage(parent);
  if (parentImage == nullptr) return EFI_INVALID_PARAMETER;
  std::u16string path;
  const LinkedImage* linked = nullptr;
  uint8_t* imageBase = nullptr;
  if (devicePath != nullptr && LastFilePath(devicePath, path)) {
    size_t slash = path.find_last_of(u'\\');
    std::u16string name = FoldCase(slash == std::u16string::npos ? path : path.substr(slash + 1));
    for (auto& candidate : g->linkedImages) {
      if (FoldCase(candidate.fileName) == name) linked = &candidate;
    }
    if (linked == nullptr) {
      std::fprintf(stderr, "zaprom-emu: LoadImage of %s: no linked image has that name\n", ToUtf8(path).c_str());
      return EFI_NOT_FOUND;
    }
  } else if (source != nullptr && sourceSize != 0 && g->linkedImages.size() == 1) {
    // A buffer cannot be matched by name; the host program links one driver, and what the
    // buffer brings of it is the slot chain.
    linked = &g->linkedImages.front();
    const auto* buffer = static_cast<const uint8_t*>(source);
    size_t chain = 0;
    if (linked->slotChain == nullptr || !FindSlotChain(buffer, sourceSize, chain) ||
        linked->slotChainSize > sourceSize - chain) {
      return EFI_LOAD_ERROR;
    }
    std::memcpy(linked->slotChain, buffer + chain, linked->slotChainSize);
    // Only the chain is in place, so only offsets inside it address loaded bytes.
    imageBase = reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(linked->slotChain) - chain);
    path = u"\\" + linked->fileName;
  } else {
    return EFI_NOT_FOUND;
  }
  ImageRecord& image = NewImage(parent, parentImage->loaded->DeviceHandle, path);
  image.entry = linked->entry;
  if (imageBase != nullptr) {
    image.loaded->ImageBase = imageBase;
    image.loaded->ImageSize = sourceSize;
  }
  *imageHandle = image.handle;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI StartImage(EFI_HANDLE handle, UINTN* exitDataSize, CHAR16** exitData) {
  if (exitDataSize != nullptr) *exitDataSize = 0;
  if (exitData != nullptr) *exitData = nullptr;
  ImageRecord* image = FindImage(handle);
  if (image == nullptr || image->entry == nullptr || image->started) return EFI_INVALID_PARAMETER;
  image->started = true;
  return image->entry(handle, &g->systemTable);
}

EFI_STATUS EFIAPI UnloadImage(EFI_HANDLE handle) {
  ImageRecord* image = FindImage(handle);
  if (image == nullptr) return EFI_INVALID_PARAMETER;
  if (image->started) {
    if (image->loaded->Unload == nullptr) return EFI_UNSUPPORTED;
    EFI_STATUS status = image->loaded->Unload(handle);
    if (EFI_ERROR(status)) return status;
  }
  // Whatever the image left on its handle goes with it.
  for (auto& record : g->handles) {
    if (record.get() == handle) {
      record->protocols.clear();
      break;
    }
  }
  for (auto it = g->handles.begin(); it != g->handles.end(); ++it) {
    if (it->get() == handle) {
      g->handles.erase(it);
      break;
    }
  }
  for (auto it = g->images.begin(); it != g->images.end(); ++it) {
    if (it->get() == image) {
      g->images.erase(it);
      break;
    }
  }
  return EFI_SUCCESS;
}

}  // namespace

void InstallImageServices(EFI_BOOT_SERVICES& services) {
  services.LoadImage = LoadImage;
  services.StartImage = StartImage;
  services.UnloadImage = UnloadImage;
}

}  // namespace emu::detail

namespace emu {

using namespace detail;

EFI_HANDLE Environment::CreateImageHandle(const std::u16string& fileName, const std::vector<std::u16string>& arguments) {
  EFI_HANDLE device = g->volumes.empty() ? nullptr : g->volumes[std::min(g->options.toolVolume, g->volumes.size() - 1)].handle;
  ImageRecord& image = NewImage(nullptr, device, u"\\" + fileName);
  image.started = true;  // the host's own image is running already
  if (!arguments.empty()) {
    image.argumentText = arguments;
    for (auto& text : image.argumentText) image.argv.push_back(text.data());
    image.argv.push_back(nullptr);
    image.parameters = std::make_unique<EFI_SHELL_PARAMETERS_PROTOCOL>();
    image.parameters->Argv = image.argv.data();
    image.parameters->Argc = arguments.size();
    InstallProtocol(&image.handle, kShellParametersProtocolGuid, image.parameters.get());
    if (!g->shellInstalled) {
      g->shell.Execute = ShellExecute;
      g->shell.GetCurDir = ShellGetCurDir;
      g->shellHandle = nullptr;
      InstallProtocol(&g->shellHandle, kShellProtocolGuid, &g->shell);
      g->shellInstalled = true;
    }
  }
  return image.handle;
}

void Environment::RegisterLinkedImage(const std::u16string& fileName, EFI_IMAGE_ENTRY_POINT entry, uint8_t* slotChain,
                                      size_t slotChainSize) {
  g->linkedImages.push_back({fileName, entry, slotChain, slotChainSize});
}

void Environment::SetShellCurrentDirectory(const std::u16string& directory) { g->currentDirectory = directory; }

const std::vector<std::u16string>& Environment::ExecutedCommands() const { return g->executed; }

void Environment::SetShellExecuteHandler(std::function<EFI_STATUS(const std::u16string&)> handler) {
  g->executeHandler = std::move(handler);
}

}  // namespace emu
