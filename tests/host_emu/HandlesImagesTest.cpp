// The handle database (protocols, volumes in order with their device paths, configuration
// table) and images: the host's own image handle with shell parameters, and LoadImage,
// StartImage and UnloadImage of a linked image.
#include <cstring>

#include "EmuHarness.h"

namespace {

constexpr EFI_GUID kFirstGuid = {0x11111111, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr EFI_GUID kSecondGuid = {0x11111111, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 9}};

std::vector<uint8_t> NodeBytes(const EFI_DEVICE_PATH_PROTOCOL* path, int index) {
  const auto* p = reinterpret_cast<const uint8_t*>(path);
  for (int i = 0; i < index; ++i) p += p[2] | (p[3] << 8);
  return std::vector<uint8_t>(p, p + (p[2] | (p[3] << 8)));
}

TEST(EmuHandles, VolumesAreFoundInOrderWithTheDevicePathOfTheirKind) {
  ScratchDirectory a, b, c, d;
  emu::Options options = OptionsWithVolumes({a.path(), b.path(), c.path(), d.path()});
  options.volumes[1].kind = emu::VolumeKind::Sata;
  options.volumes[2].kind = emu::VolumeKind::Emmc;
  options.volumes[3].kind = emu::VolumeKind::Other;
  emu::Environment environment(options);
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  UINTN count = 0;
  EFI_HANDLE* handles = nullptr;
  ASSERT_EQ(bs->LocateHandleBuffer(ByProtocol, &kSimpleFileSystemProtocolGuid, nullptr, &count, &handles),
            EFI_SUCCESS);
  ASSERT_EQ(count, 4u);
  EXPECT_TRUE(environment.ContainsAddress(reinterpret_cast<uintptr_t>(handles), count * sizeof(EFI_HANDLE)));
  // (type, subtype) of every node after the PCI node: the device, and the partition of a disk;
  // an eMMC device sits behind a controller node, and "other" is a hardware vendor node.
  using Nodes = std::vector<std::pair<uint8_t, uint8_t>>;
  const Nodes kinds[] = {{{3, 0x05}, {4, 0x01}},
                         {{3, 0x12}, {4, 0x01}},
                         {{1, 0x05}, {3, 0x1D}, {4, 0x01}},
                         {{1, 0x04}}};
  for (UINTN i = 0; i < count; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(handles[i], environment.VolumeHandle(i));
    VOID* path = nullptr;
    ASSERT_EQ(bs->HandleProtocol(handles[i], &kDevicePathProtocolGuid, &path), EFI_SUCCESS);
    auto* devicePath = static_cast<EFI_DEVICE_PATH_PROTOCOL*>(path);
    std::vector<uint8_t> pci = NodeBytes(devicePath, 0);
    EXPECT_EQ((std::vector<uint8_t>(pci.begin(), pci.begin() + 3)), (std::vector<uint8_t>{1, 1, 6}));
    int node = 1;
    for (const auto& [type, subtype] : kinds[i]) {
      std::vector<uint8_t> bytes = NodeBytes(devicePath, node++);
      EXPECT_EQ(bytes[0], type);
      EXPECT_EQ(bytes[1], subtype);
      if (type == 4) EXPECT_EQ(bytes.size(), 42u) << "a hard-drive node is 42 bytes";
    }
    EXPECT_EQ(NodeBytes(devicePath, node), (std::vector<uint8_t>{0x7F, 0xFF, 4, 0}));
  }
  EXPECT_EQ(bs->FreePool(handles), EFI_SUCCESS);
}

TEST(EmuHandles, MultipleInstallIsAllOrNothingAndUninstallRemovesTheEmptyHandle) {
  emu::Environment environment(OptionsWithVolumes({}));
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  int first = 1, second = 2, other = 3;
  EFI_HANDLE handle = nullptr;
  ASSERT_EQ(bs->InstallProtocolInterface(&handle, &kFirstGuid, EFI_NATIVE_INTERFACE, &first), EFI_SUCCESS);
  // kFirstGuid is already there: the whole call fails and kSecondGuid stays absent.
  EXPECT_EQ(bs->InstallMultipleProtocolInterfaces(&handle, &kSecondGuid, &second, &kFirstGuid, &other, nullptr),
            EFI_INVALID_PARAMETER);
  VOID* found = nullptr;
  EXPECT_EQ(bs->HandleProtocol(handle, &kSecondGuid, &found), EFI_UNSUPPORTED);
  EXPECT_EQ(bs->InstallMultipleProtocolInterfaces(&handle, &kSecondGuid, &second, nullptr), EFI_SUCCESS);
  ASSERT_EQ(bs->LocateProtocol(&kSecondGuid, nullptr, &found), EFI_SUCCESS);
  EXPECT_EQ(found, &second);
  // A wrong interface refuses the whole uninstall.
  EXPECT_EQ(bs->UninstallMultipleProtocolInterfaces(handle, &kFirstGuid, &first, &kSecondGuid, &other, nullptr),
            EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs->HandleProtocol(handle, &kFirstGuid, &found), EFI_SUCCESS);
  EXPECT_EQ(bs->UninstallMultipleProtocolInterfaces(handle, &kFirstGuid, &first, &kSecondGuid, &second, nullptr),
            EFI_SUCCESS);
  EXPECT_EQ(bs->LocateProtocol(&kFirstGuid, nullptr, &found), EFI_NOT_FOUND);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(bs->HandleProtocol(handle, &kFirstGuid, &found), EFI_INVALID_PARAMETER);
}

TEST(EmuHandles, ConfigurationTableCarriesTheGivenEntries) {
  emu::Options options = OptionsWithVolumes({});
  options.configurationTables.push_back({kAcpi20TableGuid, reinterpret_cast<VOID*>(uintptr_t{0xF0010})});
  emu::Environment environment(options);
  EFI_SYSTEM_TABLE* st = environment.SystemTable();
  ASSERT_EQ(st->NumberOfTableEntries, 1u);
  EXPECT_EQ(std::memcmp(&st->ConfigurationTable[0].VendorGuid, &kAcpi20TableGuid, sizeof(EFI_GUID)), 0);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(st->ConfigurationTable[0].VendorTable), 0xF0010u);
}

EFI_HANDLE gStartedWith = nullptr;
EFI_STATUS EFIAPI RecordingEntry(EFI_HANDLE image, EFI_SYSTEM_TABLE*) {
  gStartedWith = image;
  return EFI_ABORTED;
}
int gUnloads = 0;
EFI_STATUS EFIAPI CountingUnload(EFI_HANDLE) {
  ++gUnloads;
  return EFI_SUCCESS;
}

std::vector<uint8_t> FilePathNodes(const std::vector<std::u16string>& parts) {
  std::vector<uint8_t> path = {1, 1, 6, 0, 0, 0x14};  // a PCI node ahead, as a device path has
  for (auto& part : parts) {
    size_t length = 4 + (part.size() + 1) * 2;
    path.insert(path.end(), {4, 4, static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8)});
    for (char16_t c : part) path.insert(path.end(), {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8)});
    path.insert(path.end(), {0, 0});
  }
  path.insert(path.end(), {0x7F, 0xFF, 4, 0});
  return path;
}

TEST(EmuImages, LinkedImageLoadsByTheLastNameOfItsPathStartsAndUnloads) {
  ScratchDirectory tool;
  emu::Environment environment(OptionsWithVolumes({tool.path()}));
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  environment.RegisterLinkedImage(u"kobalt.efi", RecordingEntry);
  EFI_HANDLE host = environment.CreateImageHandle(u"ZAPROM-S.efi", {u"ZAPROM-S.efi", u"-g"});

  struct Row {
    std::vector<std::u16string> parts;
    EFI_STATUS expected;
  };
  const Row rows[] = {
      {{u"\\EFI\\Dovrin\\KOBALT.EFI"}, EFI_SUCCESS},
      {{u"\\EFI\\Dovrin", u"kobalt.efi"}, EFI_SUCCESS},
      {{u"\\kobalt.efi\\other.efi"}, EFI_NOT_FOUND},
      {{u"\\kobalt.ef"}, EFI_NOT_FOUND},
  };
  for (const Row& row : rows) {
    std::vector<uint8_t> path = FilePathNodes(row.parts);
    EFI_HANDLE image = nullptr;
    EXPECT_EQ(bs->LoadImage(0, host, reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(path.data()), nullptr, 0, &image),
              row.expected);
    if (row.expected != EFI_SUCCESS) {
      EXPECT_EQ(image, nullptr);
      continue;
    }
    VOID* interface = nullptr;
    ASSERT_EQ(bs->HandleProtocol(image, &kLoadedImageProtocolGuid, &interface), EFI_SUCCESS);
    auto* loaded = static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(interface);
    EXPECT_EQ(loaded->ParentHandle, host);
    EXPECT_EQ(loaded->SystemTable, environment.SystemTable());
    EXPECT_EQ(loaded->DeviceHandle, environment.VolumeHandle(0));
    EXPECT_EQ(loaded->Unload, nullptr);

    gStartedWith = nullptr;
    EXPECT_EQ(bs->StartImage(image, nullptr, nullptr), EFI_ABORTED);  // the entry's own status
    EXPECT_EQ(gStartedWith, image);
    EXPECT_EQ(bs->UnloadImage(image), EFI_UNSUPPORTED);  // started, and no Unload of its own
    loaded->Unload = CountingUnload;
    gUnloads = 0;
    EXPECT_EQ(bs->UnloadImage(image), EFI_SUCCESS);
    EXPECT_EQ(gUnloads, 1);
    EXPECT_EQ(bs->HandleProtocol(image, &kLoadedImageProtocolGuid, &interface), EFI_INVALID_PARAMETER);
  }
  EXPECT_EQ(bs->UnloadImage(nullptr), EFI_INVALID_PARAMETER);
}

TEST(EmuImages, ShellHostHandleCarriesArgumentsToolVolumeAndShell) {
  ScratchDirectory first, second;
  emu::Options options = OptionsWithVolumes({first.path(), second.path()});
  options.toolVolume = 1;
  emu::Environment environment(options);
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  EFI_HANDLE host = environment.CreateImageHandle(u"ZAPROM-S.efi", {u"ZAPROM-S.efi", u"bios.bin", u"-all"});

  VOID* interface = nullptr;
  ASSERT_EQ(bs->HandleProtocol(host, &kShellParametersProtocolGuid, &interface), EFI_SUCCESS);
  auto* parameters = static_cast<EFI_SHELL_PARAMETERS_PROTOCOL*>(interface);
  ASSERT_EQ(parameters->Argc, 3u);
  EXPECT_EQ(std::u16string(parameters->Argv[0]), u"ZAPROM-S.efi");
  EXPECT_EQ(std::u16string(parameters->Argv[2]), u"-all");

  ASSERT_EQ(bs->HandleProtocol(host, &kLoadedImageProtocolGuid, &interface), EFI_SUCCESS);
  auto* loaded = static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(interface);
  EXPECT_EQ(loaded->DeviceHandle, environment.VolumeHandle(1));
  std::vector<uint8_t> node = NodeBytes(loaded->FilePath, 0);
  std::u16string name;
  for (size_t i = 4; i + 3 < node.size(); i += 2) name += static_cast<char16_t>(node[i] | (node[i + 1] << 8));
  EXPECT_EQ(node[0], 4);
  EXPECT_EQ(node[1], 4);
  EXPECT_EQ(name, u"\\ZAPROM-S.efi");

  ASSERT_EQ(bs->LocateProtocol(&kShellProtocolGuid, nullptr, &interface), EFI_SUCCESS);
  auto* shell = static_cast<EFI_SHELL_PROTOCOL*>(interface);
  EXPECT_EQ(std::u16string(shell->GetCurDir(nullptr)), u"FS0:");
  environment.SetShellCurrentDirectory(u"FS1:\\tools\\");
  EXPECT_EQ(std::u16string(shell->GetCurDir(nullptr)), u"FS1:\\tools\\");
  std::u16string command = u"FwUpdZPM.nsh";
  EFI_STATUS status = EFI_ABORTED;
  EXPECT_EQ(shell->Execute(&host, command.data(), nullptr, &status), EFI_SUCCESS);
  EXPECT_EQ(status, EFI_SUCCESS);
  EXPECT_EQ(environment.ExecutedCommands(), std::vector<std::u16string>{u"FwUpdZPM.nsh"});
}

}  // namespace
