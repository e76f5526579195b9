// The volumes of the emulated environment: one handle per host directory with a file system
// and a device path of its kind, and EFI_FILE_PROTOCOL over that directory with the answers of
// a FAT volume ('\' separators, names matched without regard to case). Nothing outside the
// volume's directory can be named; following a symbolic link the user placed there is allowed.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <set>

#include "EmuInternal.h"

namespace emu::detail {
namespace {

constexpr EFI_STATUS kWarnDeleteFailure = 2;
constexpr UINT64 kModeRead = EFI_FILE_MODE_READ;
constexpr UINT64 kModeReadWrite = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
constexpr UINT64 kModeCreate = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE;
constexpr size_t kInfoHeaderSize = offsetof(EFI_FILE_INFO, FileName);

struct FileState {
  size_t volume = 0;
  std::vector<std::string> components;  // host names below the volume's directory
  bool directory = false;
  bool writable = false;
  int fd = -1;
  uint64_t position = 0;
  std::vector<std::string> entries;  // a directory's listing, taken at open and at position 0
  size_t nextEntry = 0;
};

// Standard layout, so that the This pointer of a file call leads back to its state.
struct FileObject {
  EFI_FILE_PROTOCOL protocol;
  FileState* state;
};

std::set<FileObject*> gOpenFiles;

std::string HostPath(size_t volume, const std::vector<std::string>& components) {
  std::string path = g->volumes[volume].hostDirectory;
  for (auto& part : components) path += "/" + part;
  return path;
}

std::vector<std::string> List(const std::string& directory) {
  std::vector<std::string> names;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The host name in directory that a FAT volume would take name for: the exact name if present,
// otherwise the first that differs only in case. The exact name is looked up without listing the
// folder, since the log opens its file for every line.
bool MatchName(const std::string& directory, const std::u16string& name, std::string& hostName) {
  std::string exact = ToUtf8(name);
  struct stat info {};
  if (lstat((directory + "/" + exact).c_str(), &info) == 0) {
    hostName = exact;
    return true;
  }
  std::vector<std::string> names = List(directory);
  std::u16string folded = FoldCase(name);
  for (auto& candidate : names) {
    if (FoldCase(FromUtf8(candidate)) == folded) {
      hostName = candidate;
      return true;
    }
  }
  return false;
}

bool ValidName(const CHAR16* name) {
  for (const CHAR16* p = name; *p != 0; ++p) {
    if (*p < 0x20 || std::u16string_view(u"/:*?\"<>|").find(*p) != std::u16string_view::npos) return false;
  }
  return true;
}

EFI_TIME TimeOf(time_t seconds) {
  struct tm parts {};
  gmtime_r(&seconds, &parts);
  EFI_TIME time{};
  time.Year = static_cast<UINT16>(parts.tm_year + 1900);
  time.Month = static_cast<UINT8>(parts.tm_mon + 1);
  time.Day = static_cast<UINT8>(parts.tm_mday);
  time.Hour = static_cast<UINT8>(parts.tm_hour);
  time.Minute = static_cast<UINT8>(parts.tm_min);
  time.Second = static_cast<UINT8>(parts.tm_sec);
  time.TimeZone = 0x07FF;  // unspecified
  return time;
}

// Fills an EFI_FILE_INFO for the host path under the given name; BUFFER_TOO_SMALL with the
// size needed when it does not fit.
EFI_STATUS FillInfo(const std::string& path, const std::u16string& name, UINTN* bufferSize, VOID* buffer) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return EFI_DEVICE_ERROR;
  UINTN needed = kInfoHeaderSize + (name.size() + 1) * sizeof(CHAR16);
  if (*bufferSize < needed || buffer == nullptr) {
    *bufferSize = needed;
    return EFI_BUFFER_TOO_SMALL;
  }
  auto* out = static_cast<EFI_FILE_INFO*>(buffer);
  bool directory = S_ISDIR(info.st_mode);
  out->Size = needed;
  out->FileSize = directory ? 0 : static_cast<UINT64>(info.st_size);
  out->PhysicalSize = (out->FileSize + 4095) & ~static_cast<UINT64>(4095);
  out->CreateTime = TimeOf(info.st_ctime);
  out->LastAccessTime = TimeOf(info.st_atime);
  out->ModificationTime = TimeOf(info.st_mtime);
  out->Attribute = directory ? EFI_FILE_DIRECTORY : EFI_FILE_ARCHIVE;
  if (access(path.c_str(), W_OK) != 0) out->Attribute |= EFI_FILE_READ_ONLY;
  std::memcpy(out->FileName, name.c_str(), (name.size() + 1) * sizeof(CHAR16));
  *bufferSize = needed;
  return EFI_SUCCESS;
}

FileState* StateOf(FileProtocol* self) {
  auto* object = reinterpret_cast<FileObject*>(self);
  if (self == nullptr || gOpenFiles.count(object) == 0) return nullptr;
  return object->state;
}

void Destroy(FileProtocol* self) {
  auto* object = reinterpret_cast<FileObject*>(self);
  if (object->state->fd >= 0) close(object->state->fd);
  gOpenFiles.erase(object);
  delete object->state;
  delete object;
}

EFI_FILE_PROTOCOL* NewFile(FileState* state);

EFI_STATUS EFIAPI Open(FileProtocol* self, FileProtocol** newHandle, const CHAR16* fileName, UINT64 mode,
                       UINT64 attributes) {
  FileState* from = StateOf(self);
  if (from == nullptr || newHandle == nullptr || fileName == nullptr) return EFI_INVALID_PARAMETER;
  if (mode != kModeRead && mode != kModeReadWrite && mode != kModeCreate) return EFI_INVALID_PARAMETER;
  if (!ValidName(fileName)) return EFI_INVALID_PARAMETER;
  std::u16string name(fileName);
  std::vector<std::string> components = name[0] == u'\\' ? std::vector<std::string>{} : from->components;
  // Split on '\'; empty parts (repeated or trailing separators) and "." name nothing new.
  std::vector<std::u16string> parts;
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find(u'\\', start);
    if (end == std::u16string::npos) end = name.size();
    parts.push_back(name.substr(start, end - start));
    start = end + 1;
  }
  size_t last = parts.size();
  while (last > 0 && (parts[last - 1].empty() || parts[last - 1] == u".")) --last;
  for (size_t i = 0; i < parts.size(); ++i) {
    const std::u16string& part = parts[i];
    if (part.empty() || part == u".") continue;
    if (part == u"..") {
      if (components.empty()) return EFI_NOT_FOUND;  // nothing lies above a volume's root
      components.pop_back();
      continue;
    }
    std::string directory = HostPath(from->volume, components);
    if (!IsDirectory(directory)) return EFI_NOT_FOUND;
    std::string hostName;
    if (!MatchName(directory, part, hostName)) {
      if (i + 1 != last || mode != kModeCreate) return EFI_NOT_FOUND;
      hostName = ToUtf8(part);
      std::string path = directory + "/" + hostName;
      if (attributes & EFI_FILE_DIRECTORY) {
        if (mkdir(path.c_str(), 0777) != 0) return EFI_ACCESS_DENIED;
      } else {
        int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0666);
        if (fd < 0) return EFI_ACCESS_DENIED;
        close(fd);
      }
    }
    components.push_back(hostName);
  }
  auto* state = new FileState();
  state->volume = from->volume;
  state->components = components;
  state->writable = (mode & EFI_FILE_MODE_WRITE) != 0;
  std::string path = HostPath(state->volume, components);
  state->directory = IsDirectory(path);
  if (state->directory) {
    if (state->writable && access(path.c_str(), W_OK) != 0) {
      delete state;
      return EFI_ACCESS_DENIED;
    }
    state->entries = List(path);
  } else {
    state->fd = ::open(path.c_str(), state->writable ? O_RDWR : O_RDONLY);
    if (state->fd < 0) {
      int error = errno;
      delete state;
      return error == ENOENT ? EFI_NOT_FOUND : EFI_ACCESS_DENIED;
    }
  }
  *newHandle = NewFile(state);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Close(FileProtocol* self) {
  if (StateOf(self) == nullptr) return EFI_INVALID_PARAMETER;
  Destroy(self);
  return EFI_SUCCESS;
}

// Closes the handle in every case, as the firmware does; a file that stays is only a warning.
EFI_STATUS EFIAPI Delete(FileProtocol* self) {
  FileState* state = StateOf(self);
  if (state == nullptr) return EFI_INVALID_PARAMETER;
  std::string path = HostPath(state->volume, state->components);
  bool removable = state->writable && !state->components.empty();
  bool directory = state->directory;
  Destroy(self);
  if (!removable) return kWarnDeleteFailure;
  int result = directory ? rmdir(path.c_str()) : unlink(path.c_str());
  return result == 0 ? EFI_SUCCESS : kWarnDeleteFailure;
}

EFI_STATUS EFIAPI Read(FileProtocol* self, UINTN* bufferSize, VOID* buffer) {
  FileState* state = StateOf(self);
  if (state == nullptr || bufferSize == nullptr) return EFI_INVALID_PARAMETER;
  if (state->directory) {
    std::string directory = HostPath(state->volume, state->components);
    while (state->nextEntry < state->entries.size()) {
      const std::string& entry = state->entries[state->nextEntry];
      EFI_STATUS status = FillInfo(directory + "/" + entry, FromUtf8(entry), bufferSize, buffer);
      if (status == EFI_DEVICE_ERROR) {  // gone since the listing was taken
        ++state->nextEntry;
        continue;
      }
      if (status == EFI_SUCCESS) ++state->nextEntry;
      return status;
    }
    *bufferSize = 0;
    return EFI_SUCCESS;
  }
  struct stat info {};
  fstat(state->fd, &info);
  if (state->position > static_cast<uint64_t>(info.st_size)) return EFI_DEVICE_ERROR;
  if (*bufferSize != 0 && buffer == nullptr) return EFI_INVALID_PARAMETER;
  ssize_t count = *bufferSize == 0 ? 0 : pread(state->fd, buffer, *bufferSize, static_cast<off_t>(state->position));
  if (count < 0) return EFI_DEVICE_ERROR;
  state->position += static_cast<uint64_t>(count);
  *bufferSize = static_cast<UINTN>(count);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Write(FileProtocol* self, UINTN* bufferSize, const VOID* buffer) {
  FileState* state = StateOf(self);
  if (state == nullptr || bufferSize == nullptr) return EFI_INVALID_PARAMETER;
  if (state->directory) return EFI_UNSUPPORTED;
  if (!state->writable) return EFI_ACCESS_DENIED;
  if (*bufferSize != 0 && buffer == nullptr) return EFI_INVALID_PARAMETER;
  ssize_t count = *bufferSize == 0 ? 0 : pwrite(state->fd, buffer, *bufferSize, static_cast<off_t>(state->position));
  if (count < 0) {
    *bufferSize = 0;
    return errno == ENOSPC ? EFI_VOLUME_FULL : EFI_DEVICE_ERROR;
  }
  state->position += static_cast<uint64_t>(count);
  *bufferSize = static_cast<UINTN>(count);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetPosition(FileProtocol* self, UINT64* position) {
  FileState* state = StateOf(self);
  if (state == nullptr || position == nullptr) return EFI_INVALID_PARAMETER;
  if (state->directory) return EFI_UNSUPPORTED;
  *position = state->position;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetPosition(FileProtocol* self, UINT64 position) {
  FileState* state = StateOf(self);
  if (state == nullptr) return EFI_INVALID_PARAMETER;
  if (state->directory) {
    if (position != 0) return EFI_UNSUPPORTED;
    state->entries = List(HostPath(state->volume, state->components));
    state->nextEntry = 0;
    return EFI_SUCCESS;
  }
  if (position == 0xFFFFFFFFFFFFFFFFULL) {
    struct stat info {};
    fstat(state->fd, &info);
    position = static_cast<UINT64>(info.st_size);
  }
  state->position = position;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetInfo(FileProtocol* self, const EFI_GUID* type, UINTN* bufferSize, VOID* buffer) {
  FileState* state = StateOf(self);
  if (state == nullptr || type == nullptr || bufferSize == nullptr) return EFI_INVALID_PARAMETER;
  if (!GuidEqual(*type, kFileInfoGuid)) return EFI_UNSUPPORTED;
  std::u16string name = state->components.empty() ? u"" : FromUtf8(state->components.back());
  return FillInfo(HostPath(state->volume, state->components), name, bufferSize, buffer);
}

// Only the size of a file can change here (to cut it short or lengthen it); a new name or
// attributes are refused.
EFI_STATUS EFIAPI SetInfo(FileProtocol* self, const EFI_GUID* type, UINTN bufferSize, VOID* buffer) {
  FileState* state = StateOf(self);
  if (state == nullptr || type == nullptr || buffer == nullptr) return EFI_INVALID_PARAMETER;
  if (!GuidEqual(*type, kFileInfoGuid)) return EFI_UNSUPPORTED;
  if (bufferSize < kInfoHeaderSize + sizeof(CHAR16)) return EFI_BAD_BUFFER_SIZE;
  if (!state->writable) return EFI_ACCESS_DENIED;
  const auto* info = static_cast<const EFI_FILE_INFO*>(buffer);
  size_t nameCharacters = (bufferSize - kInfoHeaderSize) / sizeof(CHAR16);
  std::u16string name;
  for (size_t i = 0; i < nameCharacters && info->FileName[i] != 0; ++i) name += info->FileName[i];
  std::u16string current = state->components.empty() ? u"" : FromUtf8(state->components.back());
  if (!name.empty() && FoldCase(name) != FoldCase(current)) return EFI_UNSUPPORTED;
  if (state->directory) return EFI_SUCCESS;
  if (ftruncate(state->fd, static_cast<off_t>(info->FileSize)) != 0) return EFI_DEVICE_ERROR;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Flush(FileProtocol* self) {
  FileState* state = StateOf(self);
  if (state == nullptr) return EFI_INVALID_PARAMETER;
  if (!state->writable) return EFI_ACCESS_DENIED;
  return EFI_SUCCESS;
}

EFI_FILE_PROTOCOL* NewFile(FileState* state) {
  auto* object = new FileObject();
  object->state = state;
  EFI_FILE_PROTOCOL& p = object->protocol;
  p.Revision = 0x00010000;
  p.Open = Open;
  p.Close = Close;
  p.Delete = Delete;
  p.Read = Read;
  p.Write = Write;
  p.GetPosition = GetPosition;
  p.SetPosition = SetPosition;
  p.GetInfo = GetInfo;
  p.SetInfo = SetInfo;
  p.Flush = Flush;
  gOpenFiles.insert(object);
  return &object->protocol;
}

EFI_STATUS EFIAPI OpenVolume(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* self, EFI_FILE_PROTOCOL** root) {
  if (self == nullptr || root == nullptr) return EFI_INVALID_PARAMETER;
  auto* fileSystem = reinterpret_cast<VolumeFileSystem*>(self);
  auto* state = new FileState();
  state->volume = fileSystem->index;
  state->directory = true;
  state->writable = true;
  state->entries = List(g->volumes[state->volume].hostDirectory);
  *root = NewFile(state);
  return EFI_SUCCESS;
}

void AppendNode(std::vector<uint8_t>& path, uint8_t type, uint8_t subtype, std::vector<uint8_t> body) {
  size_t length = 4 + body.size();
  path.insert(path.end(), {type, subtype, static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8)});
  path.insert(path.end(), body.begin(), body.end());
}

// The first partition of a disk, as a hard-drive media node: partition 1 of an MBR disk.
std::vector<uint8_t> HardDriveNodeBody(size_t index) {
  std::vector<uint8_t> body(38, 0);
  body[0] = 1;                                    // partition number
  body[5] = 0x08;                                 // start LBA 2048
  body[14] = 0x10;                                // size 0x100000 blocks
  body[20] = static_cast<uint8_t>(0x40 + index);  // MBR disk signature
  body[36] = 0x01;                                // MBR partition format
  body[37] = 0x01;                                // 32-bit signature
  return body;
}

// PCI controller, then the nodes that tell what kind of device holds the volume, then the
// partition for the kinds that are disks.
std::vector<uint8_t> DevicePathOf(VolumeKind kind, size_t index) {
  constexpr uint8_t kSubtypePci = 0x01;
  constexpr uint8_t kSubtypeVendor = 0x04;
  constexpr uint8_t kSubtypeController = 0x05;
  constexpr uint8_t kSubtypeHardDrive = 0x01;
  const auto port = static_cast<uint8_t>(index);
  std::vector<uint8_t> path;
  switch (kind) {
    case VolumeKind::Usb:
      AppendNode(path, kDevicePathTypeHardware, kSubtypePci, {0x00, 0x14});  // function, device
      AppendNode(path, kDevicePathTypeMessaging, kDevicePathSubtypeUsb, {port, 0x00});
      break;
    case VolumeKind::Sata:
      AppendNode(path, kDevicePathTypeHardware, kSubtypePci, {0x00, 0x17});
      AppendNode(path, kDevicePathTypeMessaging, kDevicePathSubtypeSata, {port, 0x00, 0xFF, 0xFF, 0x00, 0x00});
      break;
    case VolumeKind::Emmc:
      AppendNode(path, kDevicePathTypeHardware, kSubtypePci, {0x00, 0x1A});
      AppendNode(path, kDevicePathTypeHardware, kSubtypeController, {0x00, 0x00, 0x00, 0x00});
      AppendNode(path, kDevicePathTypeMessaging, kDevicePathSubtypeEmmc, {port});
      break;
    case VolumeKind::Other: {
      AppendNode(path, kDevicePathTypeHardware, kSubtypePci, {0x00, 0x1F});
      std::vector<uint8_t> vendor = {0x3D, 0x5A, 0x0E, 0x6B, 0x21, 0x9C, 0x4F, 0x41,
                                     0x8B, 0x07, 0x52, 0x6E, 0x1C, 0x44, 0xA0, port};
      AppendNode(path, kDevicePathTypeHardware, kSubtypeVendor, vendor);
      break;
    }
  }
  if (kind != VolumeKind::Other) AppendNode(path, kDevicePathTypeMedia, kSubtypeHardDrive, HardDriveNodeBody(index));
  AppendNode(path, kDevicePathTypeEnd, kDevicePathSubtypeEndEntire, {});
  return path;
}

}  // namespace

void CreateVolumes(State& s) {
  s.volumes.resize(s.options.volumes.size());
  for (size_t i = 0; i < s.volumes.size(); ++i) {
    VolumeRecord& volume = s.volumes[i];
    volume.hostDirectory = s.options.volumes[i].hostDirectory.empty() ? "." : s.options.volumes[i].hostDirectory;
    while (volume.hostDirectory.size() > 1 && volume.hostDirectory.back() == '/') volume.hostDirectory.pop_back();
    volume.kind = s.options.volumes[i].kind;
    if (!IsDirectory(volume.hostDirectory) && s.setupError.empty())
      s.setupError = "the volume directory " + volume.hostDirectory + " does not exist";
    volume.fileSystem = std::make_unique<VolumeFileSystem>();
    volume.fileSystem->protocol.Revision = 0x00010000;
    volume.fileSystem->protocol.OpenVolume = OpenVolume;
    volume.fileSystem->index = i;
    volume.devicePath = DevicePathOf(volume.kind, i);
    InstallProtocol(&volume.handle, kSimpleFileSystemProtocolGuid, &volume.fileSystem->protocol);
    InstallProtocol(&volume.handle, kDevicePathProtocolGuid, volume.devicePath.data());
  }
}

void ReleaseFiles() {
  for (FileObject* object : std::vector<FileObject*>(gOpenFiles.begin(), gOpenFiles.end()))
    Destroy(&object->protocol);
}

}  // namespace emu::detail

EFI_HANDLE emu::Environment::VolumeHandle(size_t index) const {
  return index < detail::g->volumes.size() ? detail::g->volumes[index].handle : nullptr;
}
