// The driver's entry and unload, the function directory and what a host hands in through it.
#include <string>
#include <vector>

#include "frame/FrameInternal.h"
#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"

namespace {

// No trace: the entry must leave the volume as it found it.
class DriverEntry : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override { return {.firmware = bed::Firmware::Scripted, .keys = "ab", .log = false}; }
};
using Directory = DriverEntry;

template <typename T>
T* OnHandle(EFI_HANDLE handle, const EFI_GUID& guid) {
  VOID* interface = nullptr;
  return EFI_ERROR(gBS->HandleProtocol(handle, &guid, &interface)) ? nullptr : static_cast<T*>(interface);
}

TEST_F(DriverEntry, InstallsDirectoryAndNameOnceLeavesConsoleAndFilesAloneAndUnloadRemovesThem) {
  EFI_HANDLE first = StartDriver();
  EFI_HANDLE second = StartDriver();  // a directory already there belongs to the first load and stays
  auto* directory = OnHandle<FunctionDirectoryProtocol>(first, kFunctionDirectoryProtocolGuid);
  ASSERT_NE(directory, nullptr);
  EXPECT_EQ(directory->LookupFunction(u"UefiFlashMain"), reinterpret_cast<void*>(&UefiFlashMain));
  EXPECT_EQ(OnHandle<FunctionDirectoryProtocol>(second, kFunctionDirectoryProtocolGuid), nullptr);
  for (EFI_HANDLE image : {first, second})
    EXPECT_TRUE(OnHandle<EFI_COMPONENT_NAME_PROTOCOL>(image, kComponentNameProtocolGuid) != nullptr &&
                OnHandle<EFI_LOADED_IMAGE_PROTOCOL>(image, kLoadedImageProtocolGuid)->Unload == &DriverUnload);
  EXPECT_TRUE(Console().empty() && std::filesystem::is_empty(Volume(0)) && GetImageWorkBuffer() == nullptr);
  EXPECT_EQ(DriverUnload(first), EFI_SUCCESS);
  EXPECT_TRUE(OnHandle<FunctionDirectoryProtocol>(first, kFunctionDirectoryProtocolGuid) == nullptr &&
              OnHandle<EFI_COMPONENT_NAME_PROTOCOL>(first, kComponentNameProtocolGuid) == nullptr);
}

TEST_F(DriverEntry, ComponentNameAnswersOnlyEnglish) {
  EFI_HANDLE image = StartDriver();
  auto* name = OnHandle<EFI_COMPONENT_NAME_PROTOCOL>(image, kComponentNameProtocolGuid);
  ASSERT_NE(name, nullptr);
  struct Row {
    const char* language;
    bool withOut;
    EFI_STATUS expected;
  } rows[] = {{"eng", true, EFI_SUCCESS},    {nullptr, true, EFI_INVALID_PARAMETER}, {"eng", false, EFI_INVALID_PARAMETER},
              {"en", true, EFI_UNSUPPORTED}, {"engl", true, EFI_UNSUPPORTED},        {"ENG", true, EFI_UNSUPPORTED}};
  CHAR16* text = nullptr;
  for (const Row& row : rows) EXPECT_EQ(name->GetDriverName(name, row.language, row.withOut ? &text : nullptr), row.expected);
  EXPECT_EQ(std::u16string(text), u"1.00.42.00");
  EXPECT_EQ(name->GetControllerName(name, image, nullptr, "eng", &text), EFI_UNSUPPORTED);
}

TEST_F(Directory, LookupFindsEachNameInAnyCaseAndWarnsOfAnyOtherTakingOneKey) {
  struct Row {
    const char16_t* name;
    void* expected;  // null: the warning and one key
  } rows[] = {
      {u"SetCurrentDirectory", (void*)&SetCurrentDirectory}, {u"SetCommandLineArgument", (void*)&SetCommandLineArgument},
      {u"SetImageHandle", (void*)&SetImageHandle},           {u"SetShellExecuteCallback", (void*)&SetShellExecuteCallback},
      {u"SMI_ApHookPoint", (void*)&SMI_ApHookPoint},         {u"FuncOblis_16h", (void*)&FuncOblis_16h},
      {u"ShellFlashMain", (void*)&ShellFlashMain},           {u"uefiflashmain", (void*)&UefiFlashMain},
      {u"UefiFlash", nullptr}, {u"UefiFlashMainX", nullptr}, {u"LoadConfiguration", nullptr}, {u"", nullptr},
  };
  for (const Row& row : rows) {
    std::string name(row.name, row.name + std::char_traits<char16_t>::length(row.name));
    Install(Layout());
    StartDriver();
    EXPECT_EQ(LookupFunction((const CHAR16*)row.name), row.expected) << name;
    EXPECT_EQ(Console(), row.expected ? "" : " Engineering Warning:\r\n [" + name + "] founction not found.\r\n");
    EFI_INPUT_KEY key{};
    ASSERT_EQ(gST->ConIn->ReadKeyStroke(gST->ConIn, &key), EFI_SUCCESS);
    EXPECT_EQ(key.UnicodeChar, row.expected ? u'a' : u'b') << name << ": exactly one key was taken";
  }
}

TEST_F(Directory, HostSettingsAreKeptAsTheDriverNeedsThem) {
  const std::u16string longPath = u"fs0:" + std::u16string(300, u'x');
  struct Row {
    const CHAR16* path;
    std::u16string expected;
  } rows[] = {
      {u"fs0:\\efi\\tool", u".\\efi\\tool\\"}, {u"FS1:\\", u".\\\\"}, {u"fs0:", u".\\"},
      {u"\\efi\\tool", u"\\efi\\tool"},  // no ':': kept as it is
      {u"tool", u"tool"}, {u"", u""}, {nullptr, u""}, {u"fs0:a:b", u".a:b\\"},  // only the first ':' counts
      {longPath.c_str(), u"." + std::u16string(251, u'x') + u"\\"},  // 255 characters are kept
  };
  for (const Row& row : rows) {
    SetCurrentDirectory(row.path);
    EXPECT_EQ(std::u16string(GetCurrentDirectory()), row.expected);
  }
  EXPECT_EQ(RunShellCommand(u"FwUpdLcl.efi -f me.bin"), EFI_UNSUPPORTED) << "no host callback";
  SetShellExecuteCallback([](const CHAR16* text) -> EFI_STATUS { return std::u16string(text) == u"FwUpdLcl.efi -f me.bin" ? EFI_ABORTED : 0; });
  EXPECT_EQ(RunShellCommand(u"FwUpdLcl.efi -f me.bin"), EFI_ABORTED);
}

}  // namespace
