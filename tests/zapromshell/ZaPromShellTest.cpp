// The command-line host ZAPROM-S in the emulated environment, with a recording driver linked as
// kobalt.efi: which device path it loads the driver from, what it hands the driver and in which
// order, how it splits load options without the shell, and that it gives back what it took.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "FunctionDirectory.h"
#include "ZaPromShell.h"
#include "uefi-emu/UefiEmu.h"

namespace {

std::vector<std::string> calls;
std::vector<UINT8> loadedPath;
Bool mainResult = true;
ShellExecuteCallback callback = nullptr;
decltype(EFI_BOOT_SERVICES::LoadImage) emuLoadImage = nullptr;

std::string Narrow(const CHAR16* text) { return text ? std::string(text, text + std::char_traits<char16_t>::length(text)) : ""; }
// File path nodes of the texts, then the end node.
std::vector<UINT8> Path(std::vector<std::u16string> files) {
  std::vector<UINT8> path;
  for (const auto& file : files) {
    path.insert(path.end(), {kDevicePathTypeMedia, kDevicePathSubtypeFilePath, (UINT8)(6 + 2 * file.size()), 0});
    for (char16_t c : file + u'\0') path.insert(path.end(), {(UINT8)c, (UINT8)(c >> 8)});
  }
  path.insert(path.end(), {kDevicePathTypeEnd, kDevicePathSubtypeEndEntire, 4, 0});
  return path;
}

VOID* EFIAPI Lookup(const CHAR16* name) {
  static const std::pair<const char*, VOID*> functions[] = {
      {"SetCommandLineArgument", (VOID*)+[](UINT32 count, CHAR16** vector) {
         std::string text = "SetCommandLineArgument";
         for (UINT32 i = 0; i < count; i++) text += " [" + Narrow(vector[i]) + "]";
         calls.push_back(text);
       }},
      {"SetImageHandle", (VOID*)+[](EFI_HANDLE) { calls.push_back("SetImageHandle"); }},
      {"SetCurrentDirectory", (VOID*)+[](const CHAR16* path) { calls.push_back("SetCurrentDirectory [" + Narrow(path) + "]"); }},
      {"SetShellExecuteCallback", (VOID*)+[](ShellExecuteCallback c) { callback = c, calls.push_back("SetShellExecuteCallback"); }},
      {"ShellFlashMain", (VOID*)+[]() -> Bool { return calls.push_back("ShellFlashMain"), mainResult; }},
      {"SMI_ApHookPoint", (VOID*)+[](UINT32 point) -> Bool { return calls.push_back("Hook " + std::to_string(point)), true; }},
      {"FuncOblis_16h", (VOID*)+[]() -> Bool { return calls.push_back("FuncOblis_16h"), true; }},
  };
  for (const auto& [known, function] : functions)
    if (Narrow(name) == known) return function;
  return nullptr;
}
FunctionDirectoryProtocol directory = {Lookup};

EFI_STATUS EFIAPI DriverEntry(EFI_HANDLE image, EFI_SYSTEM_TABLE* system) {
  calls.push_back("driver started");
  VOID* loaded = nullptr;
  system->BootServices->HandleProtocol(image, &kLoadedImageProtocolGuid, &loaded);
  static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(loaded)->Unload = [](EFI_HANDLE) { return calls.push_back("unloaded"), EFI_SUCCESS; };
  return system->BootServices->InstallProtocolInterface(&image, &kFunctionDirectoryProtocolGuid, EFI_NATIVE_INTERFACE, &directory);
}

struct HostRun {
  explicit HostRun(const std::vector<std::u16string>& arguments, const std::vector<UINT8>& imagePath = Path({u"\\EFI\\Tools\\ZAPROM-S.efi"}),
                   const char16_t* loadOptions = nullptr, bool linked = true)
      : environment(Options()), imagePath(imagePath) {
    calls.clear(), loadedPath.clear(), callback = nullptr;
    if (linked) environment.RegisterLinkedImage(u"kobalt.efi", DriverEntry);
    environment.SetShellCurrentDirectory(u"FS0:\\EFI\\Tools");
    EFI_BOOT_SERVICES* services = environment.SystemTable()->BootServices;
    emuLoadImage = services->LoadImage;
    services->LoadImage = [](BOOLEAN policy, EFI_HANDLE parent, EFI_DEVICE_PATH_PROTOCOL* path, VOID* source, UINTN size,
                             EFI_HANDLE* image) {
      for (auto* at = reinterpret_cast<const UINT8*>(path);; at += at[2] | at[3] << 8) {
        loadedPath.insert(loadedPath.end(), at, at + (at[2] | at[3] << 8));
        if (at[0] == kDevicePathTypeEnd) break;
      }
      return emuLoadImage(policy, parent, path, source, size, image);
    };
    EFI_HANDLE image = environment.CreateImageHandle(u"ZAPROM-S.efi", arguments);
    VOID* loaded = nullptr;
    services->HandleProtocol(image, &kLoadedImageProtocolGuid, &loaded);
    auto* self = static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(loaded);
    self->FilePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(this->imagePath.data());
    self->LoadOptions = (VOID*)loadOptions;
    self->LoadOptionsSize = loadOptions ? (UINT32)(2 * std::char_traits<char16_t>::length(loadOptions)) : 0;
    blocksBefore = environment.LiveBlocks().size();
    status = ZaPromShellEntry(image, environment.SystemTable());
  }
  static emu::Options Options() { return emu::Options{{{"/tmp", emu::VolumeKind::Usb}}, 0, "", false, nullptr}; }
  // The volume's own nodes, then one file node for the driver, then the end.
  std::vector<UINT8> DriverPath(const std::u16string& file) {
    VOID* device = nullptr;
    environment.SystemTable()->BootServices->HandleProtocol(environment.VolumeHandle(0), &kDevicePathProtocolGuid, &device);
    std::vector<UINT8> path;
    for (auto* at = static_cast<const UINT8*>(device); at[0] != kDevicePathTypeEnd; at += at[2] | at[3] << 8) path.insert(path.end(), at, at + (at[2] | at[3] << 8));
    for (UINT8 b : Path({file})) path.push_back(b);
    return path;
  }
  emu::Environment environment;
  std::vector<UINT8> imagePath;
  size_t blocksBefore = 0;
  EFI_STATUS status = EFI_SUCCESS;
};

TEST(ZaPromShell, LoadsTheDriverBesideItselfHandsOverTheRunInOrderAndGivesBackWhatItTook) {
  struct Row {
    const char* what;
    std::vector<std::u16string> arguments;
    const char16_t* loadOptions;
    std::string argumentsCall;
    std::string directory;
  } rows[] = {
      {"shell arguments", {u"ZAPROM-S.efi", u"bios.fd", u"-dbg"}, nullptr,
       "SetCommandLineArgument [ZAPROM-S.efi] [bios.fd] [-dbg]", "SetCurrentDirectory [FS0:\\EFI\\Tools]"},
      {"load options cut at blanks, quotes kept together", {}, u"ZAPROM-S.efi  \"new bios.fd\"\t-dbg -o\"a b\"  ",
       "SetCommandLineArgument [ZAPROM-S.efi] [new bios.fd] [-dbg] [-oa b]", "SetCurrentDirectory []"},
      {"no load options", {}, nullptr, "SetCommandLineArgument", "SetCurrentDirectory []"},
  };
  for (const Row& row : rows) {
    HostRun run(row.arguments, Path({u"\\EFI\\Tools\\ZAPROM-S.efi"}), row.loadOptions);
    EXPECT_EQ(run.status, EFI_SUCCESS) << row.what;
    EXPECT_EQ(calls, (std::vector<std::string>{"driver started", row.argumentsCall, "SetImageHandle", row.directory,
                                               "SetShellExecuteCallback", "ShellFlashMain", "Hook 0", "FuncOblis_16h", "unloaded"}))
        << row.what;
    EXPECT_EQ(loadedPath, run.DriverPath(u"\\EFI\\Tools\\kobalt.efi")) << row.what;
    EXPECT_EQ(run.environment.LiveBlocks().size(), run.blocksBefore) << row.what;
    EXPECT_EQ(run.environment.ConsoleTranscript(), "") << row.what;
  }
}

TEST(ZaPromShell, DriverPathFollowsTheApplicationsOwnFilePath) {
  struct Row {
    std::vector<std::u16string> imageFiles;
    std::u16string driverFile;
  } rows[] = {
      {{u"\\ZAPROM-S.efi"}, u"\\kobalt.efi"},
      {{u"ZAPROM-S.efi"}, u"\\kobalt.efi"},
      {{u"\\EFI", u"Tools\\ZAPROM-S.efi"}, u"\\EFI\\Tools\\kobalt.efi"},
      {{u"\\EFI\\", u"ZAPROM-S.efi"}, u"\\EFI\\kobalt.efi"},
  };
  for (const Row& row : rows) {
    HostRun run({u"ZAPROM-S.efi"}, Path(row.imageFiles));
    EXPECT_EQ(loadedPath, run.DriverPath(row.driverFile)) << Narrow((const CHAR16*)row.driverFile.c_str());
  }
}

TEST(ZaPromShell, FailuresAreReportedAndTheRunStillCloses) {
  {
  mainResult = false;
  HostRun failedMain({u"ZAPROM-S.efi"});
  mainResult = true;
  EXPECT_EQ(failedMain.status, EFI_UNSUPPORTED);
  EXPECT_EQ(std::vector<std::string>(calls.end() - 4, calls.end()),
            (std::vector<std::string>{"ShellFlashMain", "Hook 0", "FuncOblis_16h", "unloaded"}));

  ASSERT_NE(callback, nullptr);
  failedMain.environment.SetShellExecuteHandler([](const std::u16string&) -> EFI_STATUS { return EFI_ABORTED; });
  EXPECT_EQ(callback(u"FwUpdLcl.efi -f me.bin"), EFI_ABORTED) << "the execute callback runs the command in the shell";
  EXPECT_EQ(failedMain.environment.ExecutedCommands(), (std::vector<std::u16string>{u"FwUpdLcl.efi -f me.bin"}));
  }
  HostRun noDriver({u"ZAPROM-S.efi"}, Path({u"\\EFI\\Tools\\ZAPROM-S.efi"}), nullptr, false);
  EXPECT_EQ(noDriver.status, EFI_NOT_FOUND);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(noDriver.environment.ConsoleTranscript(), "ZAPROM-S: LoadImage of kobalt.efi failed - 0x800000000000000E\r\n");
}

}  // namespace
