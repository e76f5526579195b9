// The driver's entry and unload: what is installed on the image handle, and what is not done.
#include <cstring>

#include "FrameHarness.h"

using frame_test::FrameHarness;

namespace {

FunctionDirectoryProtocol* LocateDirectory(EFI_BOOT_SERVICES* bootServices) {
  VOID* interface = nullptr;
  if (EFI_ERROR(bootServices->LocateProtocol(&kFunctionDirectoryProtocolGuid, nullptr, &interface))) return nullptr;
  return static_cast<FunctionDirectoryProtocol*>(interface);
}

template <typename T>
T* OnHandle(EFI_BOOT_SERVICES* bootServices, EFI_HANDLE handle, const EFI_GUID& guid) {
  VOID* interface = nullptr;
  if (EFI_ERROR(bootServices->HandleProtocol(handle, &guid, &interface))) return nullptr;
  return static_cast<T*>(interface);
}

TEST(DriverEntry, InstallsDirectoryAndComponentNameAndSetsUnloadWithoutTouchingConsoleOrFiles) {
  FrameHarness harness;
  EFI_HANDLE image = harness.StartDriver();
  EFI_BOOT_SERVICES* bootServices = harness.Environment().SystemTable()->BootServices;

  auto* directory = OnHandle<FunctionDirectoryProtocol>(bootServices, image, kFunctionDirectoryProtocolGuid);
  ASSERT_NE(directory, nullptr);
  EXPECT_EQ(directory->LookupFunction(u"UefiFlashMain"), reinterpret_cast<void*>(&UefiFlashMain));
  EXPECT_NE(OnHandle<EFI_COMPONENT_NAME_PROTOCOL>(bootServices, image, kComponentNameProtocolGuid), nullptr);
  auto* loaded = OnHandle<EFI_LOADED_IMAGE_PROTOCOL>(bootServices, image, kLoadedImageProtocolGuid);
  ASSERT_NE(loaded, nullptr);
  EXPECT_EQ(loaded->Unload, &DriverUnload);

  EXPECT_EQ(harness.Console(), "");
  EXPECT_TRUE(std::filesystem::is_empty(harness.Volume(0)));
  EXPECT_EQ(GetImageWorkBuffer(), nullptr);
}

TEST(DriverEntry, SecondLoadLeavesTheFirstDirectoryInPlace) {
  FrameHarness harness;
  EFI_HANDLE first = harness.StartDriver();
  EFI_HANDLE second = harness.StartDriver();
  EFI_BOOT_SERVICES* bootServices = harness.Environment().SystemTable()->BootServices;

  EXPECT_NE(OnHandle<FunctionDirectoryProtocol>(bootServices, first, kFunctionDirectoryProtocolGuid), nullptr);
  EXPECT_EQ(OnHandle<FunctionDirectoryProtocol>(bootServices, second, kFunctionDirectoryProtocolGuid), nullptr);
  // The second load still ran to its end.
  EXPECT_NE(OnHandle<EFI_COMPONENT_NAME_PROTOCOL>(bootServices, second, kComponentNameProtocolGuid), nullptr);
  EXPECT_EQ(OnHandle<EFI_LOADED_IMAGE_PROTOCOL>(bootServices, second, kLoadedImageProtocolGuid)->Unload,
            &DriverUnload);
}

TEST(DriverEntry, ComponentNameAnswersOnlyEnglish) {
  FrameHarness harness;
  EFI_HANDLE image = harness.StartDriver();
  EFI_BOOT_SERVICES* bootServices = harness.Environment().SystemTable()->BootServices;
  auto* name = OnHandle<EFI_COMPONENT_NAME_PROTOCOL>(bootServices, image, kComponentNameProtocolGuid);
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name->SupportedLanguages, "eng");

  struct Row {
    const char* language;
    bool withOut;
    EFI_STATUS expected;
  };
  const Row rows[] = {
      {"eng", true, EFI_SUCCESS},          {nullptr, true, EFI_INVALID_PARAMETER},
      {"eng", false, EFI_INVALID_PARAMETER}, {"en", true, EFI_UNSUPPORTED},
      {"engl", true, EFI_UNSUPPORTED},     {"fra", true, EFI_UNSUPPORTED},
      {"ENG", true, EFI_UNSUPPORTED},
  };
  for (const auto& row : rows) {
    CHAR16* text = nullptr;
    EXPECT_EQ(name->GetDriverName(name, row.language, row.withOut ? &text : nullptr), row.expected)
        << (row.language ? row.language : "(null)");
    if (row.expected == EFI_SUCCESS) {
      EXPECT_EQ(std::u16string(text), u"1.00.42.00");
    }
  }
  CHAR16* controller = nullptr;
  EXPECT_EQ(name->GetControllerName(name, image, nullptr, "eng", &controller), EFI_UNSUPPORTED);
}

TEST(DriverEntry, UnloadRemovesBothProtocols) {
  FrameHarness harness;
  EFI_HANDLE image = harness.StartDriver();
  EFI_BOOT_SERVICES* bootServices = harness.Environment().SystemTable()->BootServices;
  // FreeResource traces; with the log off that writes nothing but deletes the old log.
  EXPECT_EQ(DriverUnload(image), EFI_SUCCESS);
  EXPECT_EQ(LocateDirectory(bootServices), nullptr);
  EXPECT_EQ(OnHandle<EFI_COMPONENT_NAME_PROTOCOL>(bootServices, image, kComponentNameProtocolGuid), nullptr);
}

}  // namespace
