// The command-line host ZAPROM-S against a recording firmware of its own: which device path it
// loads the driver from, what it hands the driver and in which order, how it splits load options
// without the shell, and what it returns and prints when a step fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "FunctionDirectory.h"
#include "ZaPromShell.h"

namespace {

std::vector<UINT8> Node(UINT8 type, UINT8 subType, const std::vector<UINT8>& payload) {
  std::vector<UINT8> node = {type, subType, 0, 0};
  node.insert(node.end(), payload.begin(), payload.end());
  node[2] = (UINT8)node.size();
  node[3] = (UINT8)(node.size() >> 8);
  return node;
}

std::vector<UINT8> FileNode(const std::u16string& text) {
  std::vector<UINT8> payload;
  for (char16_t c : text + u'\0') {
    payload.push_back((UINT8)c);
    payload.push_back((UINT8)(c >> 8));
  }
  return Node(kDevicePathTypeMedia, kDevicePathSubtypeFilePath, payload);
}

std::vector<UINT8> EndNode() { return Node(kDevicePathTypeEnd, kDevicePathSubtypeEndEntire, {}); }

std::vector<UINT8> Join(std::initializer_list<std::vector<UINT8>> nodes) {
  std::vector<UINT8> path;
  for (const auto& node : nodes) {
    path.insert(path.end(), node.begin(), node.end());
  }
  return path;
}

std::string Narrow(const CHAR16* text) {
  std::string out;
  for (; text != nullptr && *text != 0; text++) {
    out.push_back((char)*text);
  }
  return out;
}

bool SameGuid(const EFI_GUID* a, const EFI_GUID& b) { return std::memcmp(a, &b, sizeof(EFI_GUID)) == 0; }

// The recording firmware: one instance, reset by each test.
struct Firmware {
  EFI_SYSTEM_TABLE systemTable{};
  EFI_BOOT_SERVICES bootServices{};
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL conOut{};
  EFI_LOADED_IMAGE_PROTOCOL loadedImage{};
  EFI_SHELL_PARAMETERS_PROTOCOL parameters{};
  EFI_SHELL_PROTOCOL shell{};
  FunctionDirectoryProtocol directory{};
  std::vector<UINT8> devicePath;
  std::vector<UINT8> imageFilePath;
  std::u16string loadOptions;
  std::vector<std::u16string> argumentTexts;
  std::vector<CHAR16*> argumentPointers;
  bool hasParameters = true;
  bool hasShell = true;
  const CHAR16* curDir = u"FS0:\\EFI\\Tools";
  EFI_STATUS loadImageStatus = EFI_SUCCESS;
  bool mainResult = true;
  EFI_STATUS commandStatus = EFI_SUCCESS;

  std::vector<std::string> calls;
  std::string console;
  std::vector<UINT8> loadedPath;
  std::vector<std::string> receivedArguments;
  ShellExecuteCallback callback = nullptr;
  EFI_HANDLE executeParent = nullptr;
  std::string executedCommand;
};

Firmware* fw = nullptr;
int imageHandleMarker;
int deviceHandleMarker;
int driverHandleMarker;
EFI_HANDLE const kImage = &imageHandleMarker;
EFI_HANDLE const kDevice = &deviceHandleMarker;
EFI_HANDLE const kDriver = &driverHandleMarker;

EFI_STATUS EFIAPI OutputString(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, const CHAR16* text) {
  fw->console += Narrow(text);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI HandleProtocol(EFI_HANDLE handle, const EFI_GUID* protocol, VOID** interface) {
  if (handle == kImage && SameGuid(protocol, kLoadedImageProtocolGuid)) {
    *interface = &fw->loadedImage;
    return EFI_SUCCESS;
  }
  if (handle == kImage && SameGuid(protocol, kShellParametersProtocolGuid) && fw->hasParameters) {
    *interface = &fw->parameters;
    return EFI_SUCCESS;
  }
  if (handle == kDevice && SameGuid(protocol, kDevicePathProtocolGuid)) {
    *interface = fw->devicePath.data();
    return EFI_SUCCESS;
  }
  return EFI_UNSUPPORTED;
}

EFI_STATUS EFIAPI LocateProtocol(const EFI_GUID* protocol, VOID*, VOID** interface) {
  if (SameGuid(protocol, kShellProtocolGuid) && fw->hasShell) {
    *interface = &fw->shell;
    return EFI_SUCCESS;
  }
  if (SameGuid(protocol, kFunctionDirectoryProtocolGuid)) {
    fw->calls.push_back("LocateProtocol directory");
    *interface = &fw->directory;
    return EFI_SUCCESS;
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI AllocatePool(EFI_MEMORY_TYPE, UINTN size, VOID** buffer) {
  *buffer = ::operator new(size);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FreePool(VOID* buffer) {
  ::operator delete(buffer);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI LoadImage(BOOLEAN bootPolicy, EFI_HANDLE parent, EFI_DEVICE_PATH_PROTOCOL* path, VOID* source,
                            UINTN sourceSize, EFI_HANDLE* image) {
  fw->calls.push_back("LoadImage");
  EXPECT_EQ(bootPolicy, 0);
  EXPECT_EQ(parent, kImage);
  EXPECT_EQ(source, nullptr);
  EXPECT_EQ(sourceSize, 0u);
  const UINT8* at = reinterpret_cast<const UINT8*>(path);
  for (;;) {
    UINTN length = at[2] | (at[3] << 8);
    fw->loadedPath.insert(fw->loadedPath.end(), at, at + length);
    if (at[0] == kDevicePathTypeEnd || length < 4) {
      break;
    }
    at += length;
  }
  if (EFI_ERROR(fw->loadImageStatus)) {
    return fw->loadImageStatus;
  }
  *image = kDriver;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI StartImage(EFI_HANDLE image, UINTN*, CHAR16**) {
  fw->calls.push_back(image == kDriver ? "StartImage" : "StartImage ?");
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI UnloadImage(EFI_HANDLE image) {
  fw->calls.push_back(image == kDriver ? "UnloadImage" : "UnloadImage ?");
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Execute(EFI_HANDLE* parent, CHAR16* command, CHAR16**, EFI_STATUS* status) {
  fw->executeParent = *parent;
  fw->executedCommand = Narrow(command);
  *status = fw->commandStatus;
  return EFI_SUCCESS;
}

const CHAR16* EFIAPI GetCurDir(const CHAR16* mapping) {
  EXPECT_EQ(mapping, nullptr);
  return fw->curDir;
}

VOID EFIAPI SetCommandLineArgument(UINT32 count, CHAR16** vector) {
  fw->calls.push_back("SetCommandLineArgument " + std::to_string(count));
  for (UINT32 i = 0; i < count; i++) {
    fw->receivedArguments.push_back(Narrow(vector[i]));
  }
}
VOID EFIAPI SetImageHandle(EFI_HANDLE handle) {
  fw->calls.push_back(handle == kImage ? "SetImageHandle" : "SetImageHandle ?");
}
VOID EFIAPI SetCurrentDirectory(const CHAR16* path) { fw->calls.push_back("SetCurrentDirectory [" + Narrow(path) + "]"); }
VOID EFIAPI SetShellExecuteCallback(ShellExecuteCallback callback) {
  fw->calls.push_back("SetShellExecuteCallback");
  fw->callback = callback;
}
Bool EFIAPI ShellFlashMain() {
  fw->calls.push_back("ShellFlashMain");
  return fw->mainResult;
}
Bool EFIAPI HookPoint(UINT32 point) {
  fw->calls.push_back("SMI_ApHookPoint " + std::to_string(point));
  return true;
}
Bool EFIAPI FinishReport() {
  fw->calls.push_back("FuncOblis_16h");
  return true;
}

VOID* EFIAPI LookupFunction(const CHAR16* name) {
  const std::string wanted = Narrow(name);
  if (wanted == "SetCommandLineArgument") return reinterpret_cast<VOID*>(SetCommandLineArgument);
  if (wanted == "SetImageHandle") return reinterpret_cast<VOID*>(SetImageHandle);
  if (wanted == "SetCurrentDirectory") return reinterpret_cast<VOID*>(SetCurrentDirectory);
  if (wanted == "SetShellExecuteCallback") return reinterpret_cast<VOID*>(SetShellExecuteCallback);
  if (wanted == "ShellFlashMain") return reinterpret_cast<VOID*>(ShellFlashMain);
  if (wanted == "SMI_ApHookPoint") return reinterpret_cast<VOID*>(HookPoint);
  if (wanted == "FuncOblis_16h") return reinterpret_cast<VOID*>(FinishReport);
  return nullptr;
}

class ZaPromShellTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fw = &firmware;
    firmware.systemTable.ConOut = &firmware.conOut;
    firmware.systemTable.BootServices = &firmware.bootServices;
    firmware.conOut.OutputString = OutputString;
    firmware.bootServices.HandleProtocol = HandleProtocol;
    firmware.bootServices.LocateProtocol = LocateProtocol;
    firmware.bootServices.AllocatePool = AllocatePool;
    firmware.bootServices.FreePool = FreePool;
    firmware.bootServices.LoadImage = LoadImage;
    firmware.bootServices.StartImage = StartImage;
    firmware.bootServices.UnloadImage = UnloadImage;
    firmware.shell.Execute = Execute;
    firmware.shell.GetCurDir = GetCurDir;
    firmware.directory.LookupFunction = LookupFunction;
    // A SATA disk behind a PCI bridge, as the shell's fs0: usually is.
    firmware.devicePath = Join({Node(kDevicePathTypeHardware, 1, {0x02, 0x1F}),
                                Node(kDevicePathTypeMessaging, kDevicePathSubtypeSata, {0, 0, 0xFF, 0xFF, 0, 0}),
                                EndNode()});
    SetImagePath(Join({FileNode(u"\\EFI\\Tools\\ZAPROM-S.efi"), EndNode()}));
    SetArguments({u"ZAPROM-S.efi", u"bios.fd", u"-dbg"});
  }
  void TearDown() override { fw = nullptr; }

  void SetImagePath(std::vector<UINT8> path) {
    firmware.imageFilePath = std::move(path);
    firmware.loadedImage.DeviceHandle = kDevice;
    firmware.loadedImage.FilePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(firmware.imageFilePath.data());
  }
  void SetArguments(std::vector<std::u16string> arguments) {
    firmware.argumentTexts = std::move(arguments);
    firmware.argumentPointers.clear();
    for (auto& text : firmware.argumentTexts) {
      firmware.argumentPointers.push_back(text.data());
    }
    firmware.parameters.Argc = firmware.argumentPointers.size();
    firmware.parameters.Argv = firmware.argumentPointers.data();
  }
  void SetLoadOptions(const std::u16string& options) {
    firmware.hasParameters = false;
    firmware.loadOptions = options;
    firmware.loadedImage.LoadOptions = firmware.loadOptions.data();
    firmware.loadedImage.LoadOptionsSize = (UINT32)(options.size() * sizeof(char16_t));
  }
  EFI_STATUS Run() { return ZaPromShellEntry(kImage, &firmware.systemTable); }

  Firmware firmware;
};

TEST_F(ZaPromShellTest, LoadsDriverBesideItselfAndHandsOverTheRunInOrder) {
  EXPECT_EQ(Run(), EFI_SUCCESS);
  const std::vector<std::string> expected = {
      "LoadImage",           "StartImage",     "LocateProtocol directory",
      "SetCommandLineArgument 3", "SetImageHandle", "SetCurrentDirectory [FS0:\\EFI\\Tools]",
      "SetShellExecuteCallback", "ShellFlashMain", "SMI_ApHookPoint 0",
      "FuncOblis_16h",       "UnloadImage"};
  EXPECT_EQ(firmware.calls, expected);
  EXPECT_EQ(firmware.receivedArguments, (std::vector<std::string>{"ZAPROM-S.efi", "bios.fd", "-dbg"}));
  // The device's own nodes, then one file node beside the application, then the end.
  std::vector<UINT8> devicePrefix(firmware.devicePath.begin(), firmware.devicePath.end() - 4);
  std::vector<UINT8> expectedPath = devicePrefix;
  for (const auto& node : {FileNode(u"\\EFI\\Tools\\kobalt.efi"), EndNode()}) {
    expectedPath.insert(expectedPath.end(), node.begin(), node.end());
  }
  EXPECT_EQ(firmware.loadedPath, expectedPath);
  EXPECT_EQ(firmware.console, "");
}

TEST_F(ZaPromShellTest, FailedMainGivesUnsupportedAndStillClosesTheRun) {
  firmware.mainResult = false;
  EXPECT_EQ(Run(), EFI_UNSUPPORTED);
  ASSERT_GE(firmware.calls.size(), 4u);
  const std::vector<std::string> tail(firmware.calls.end() - 4, firmware.calls.end());
  EXPECT_EQ(tail, (std::vector<std::string>{"ShellFlashMain", "SMI_ApHookPoint 0", "FuncOblis_16h", "UnloadImage"}));
}

TEST_F(ZaPromShellTest, DriverPathFollowsTheApplicationsOwnFilePath) {
  struct Case {
    std::vector<UINT8> imagePath;
    std::u16string driverFile;
  };
  const std::vector<Case> cases = {
      {Join({FileNode(u"\\ZAPROM-S.efi"), EndNode()}), u"\\kobalt.efi"},
      {Join({FileNode(u"ZAPROM-S.efi"), EndNode()}), u"\\kobalt.efi"},
      {Join({FileNode(u"\\EFI"), FileNode(u"Tools\\ZAPROM-S.efi"), EndNode()}), u"\\EFI\\Tools\\kobalt.efi"},
      {Join({FileNode(u"\\EFI\\"), FileNode(u"ZAPROM-S.efi"), EndNode()}), u"\\EFI\\kobalt.efi"},
  };
  for (const auto& c : cases) {
    firmware.loadedPath.clear();
    firmware.calls.clear();
    SetImagePath(c.imagePath);
    EXPECT_EQ(Run(), EFI_SUCCESS);
    std::vector<UINT8> expectedPath(firmware.devicePath.begin(), firmware.devicePath.end() - 4);
    for (const auto& node : {FileNode(c.driverFile), EndNode()}) {
      expectedPath.insert(expectedPath.end(), node.begin(), node.end());
    }
    EXPECT_EQ(firmware.loadedPath, expectedPath) << Narrow(reinterpret_cast<const CHAR16*>(c.driverFile.c_str()));
  }
}

TEST_F(ZaPromShellTest, WithoutShellSplitsLoadOptionsAtBlanksHonouringQuotes) {
  firmware.hasShell = false;
  SetLoadOptions(u"ZAPROM-S.efi  \"new bios.fd\"\t-dbg -o\"a b\"  ");
  EXPECT_EQ(Run(), EFI_SUCCESS);
  EXPECT_EQ(firmware.receivedArguments, (std::vector<std::string>{"ZAPROM-S.efi", "new bios.fd", "-dbg", "-oa b"}));
  EXPECT_NE(std::find(firmware.calls.begin(), firmware.calls.end(), "SetCurrentDirectory []"), firmware.calls.end());
}

TEST_F(ZaPromShellTest, EmptyLoadOptionsGiveNoArguments) {
  SetLoadOptions(u"");
  firmware.loadedImage.LoadOptions = nullptr;
  EXPECT_EQ(Run(), EFI_SUCCESS);
  EXPECT_NE(std::find(firmware.calls.begin(), firmware.calls.end(), "SetCommandLineArgument 0"), firmware.calls.end());
}

TEST_F(ZaPromShellTest, FailedLoadImageIsReportedAndReturnedWithoutCallingTheDriver) {
  firmware.loadImageStatus = EFI_NOT_FOUND;
  EXPECT_EQ(Run(), EFI_NOT_FOUND);
  EXPECT_EQ(firmware.calls, (std::vector<std::string>{"LoadImage"}));
  const std::string expected =
      sizeof(EFI_STATUS) == 8 ? "0x800000000000000E" : "0x8000000E";
  EXPECT_EQ(firmware.console, "ZAPROM-S: LoadImage of kobalt.efi failed - " + expected + "\r\n");
}

TEST_F(ZaPromShellTest, ExecuteCallbackRunsTheCommandInTheShellAndReturnsItsStatus) {
  firmware.commandStatus = EFI_ABORTED;
  EXPECT_EQ(Run(), EFI_SUCCESS);
  ASSERT_NE(firmware.callback, nullptr);
  EXPECT_EQ(firmware.callback(u"FwUpdLcl.efi -f me.bin"), EFI_ABORTED);
  EXPECT_EQ(firmware.executedCommand, "FwUpdLcl.efi -f me.bin");
  EXPECT_EQ(firmware.executeParent, kImage);
}

}  // namespace
