// UEFI variables of the emulated environment: the firmware's answers, and non-volatile
// variables that outlive the environment through the store file.
#include <cstring>

#include "EmuHarness.h"

namespace {

constexpr EFI_GUID kSettingsGuid = {0x382AF2BB, 0xFFFF, 0xABCD, {0xAA, 0xEE, 0xCC, 0xE0, 0x99, 0x33, 0x88, 0x77}};
constexpr UINT32 kPersistent = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;

TEST(EmuVariables, NonVolatileVariablesOutliveTheEnvironmentVolatileOnesDoNot) {
  ScratchDirectory scratch;
  emu::Options options = OptionsWithVolumes({});
  options.variablesFile = scratch / "variables.json";
  {
    emu::Environment environment(options);
    EFI_RUNTIME_SERVICES* rt = environment.SystemTable()->RuntimeServices;
    ASSERT_EQ(rt->SetVariable(u"FlashINISettings", &kSettingsGuid, kPersistent, 4, "\x01\x00\xFF\x7F"), EFI_SUCCESS);
    ASSERT_EQ(rt->SetVariable(u"Scratch", &kSettingsGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS, 1, "x"), EFI_SUCCESS);
  }
  emu::Environment environment(options);
  ASSERT_EQ(environment.SetupError(), "");
  EFI_RUNTIME_SERVICES* rt = environment.SystemTable()->RuntimeServices;
  uint8_t data[8] = {};
  UINTN size = sizeof data;
  UINT32 attributes = 0;
  ASSERT_EQ(rt->GetVariable(u"FlashINISettings", &kSettingsGuid, &attributes, &size, data), EFI_SUCCESS);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(std::memcmp(data, "\x01\x00\xFF\x7F", 4), 0);
  EXPECT_EQ(attributes, kPersistent);
  size = sizeof data;
  EXPECT_EQ(rt->GetVariable(u"Scratch", &kSettingsGuid, nullptr, &size, data), EFI_NOT_FOUND);
  // Deleting removes it from the store as well.
  ASSERT_EQ(rt->SetVariable(u"FlashINISettings", &kSettingsGuid, kPersistent, 0, nullptr), EFI_SUCCESS);
  std::vector<uint8_t> kept;
  EXPECT_FALSE(environment.ReadVariable(u"FlashINISettings", kSettingsGuid, kept));
  EXPECT_EQ(ReadHostFile(options.variablesFile).find("FlashINISettings"), std::string::npos);
}

TEST(EmuVariables, AnswersAsTheFirmwareDoes) {
  emu::Environment environment(OptionsWithVolumes({}));
  EFI_RUNTIME_SERVICES* rt = environment.SystemTable()->RuntimeServices;
  environment.PresetVariable(u"SetupMode", kGlobalVariableGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS, {1});
  environment.PresetVariable(u"Long", kSettingsGuid, kPersistent, std::vector<uint8_t>(40, 0xA5));
  struct Row {
    const char16_t* name;
    const EFI_GUID* guid;
    UINTN capacity;
    EFI_STATUS expected;
    UINTN sizeAfter;
  };
  const Row rows[] = {
      {u"SetupMode", &kGlobalVariableGuid, 1, EFI_SUCCESS, 1},
      {u"SetupMode", &kSettingsGuid, 1, EFI_NOT_FOUND, 1},
      {u"setupmode", &kGlobalVariableGuid, 1, EFI_NOT_FOUND, 1},
      {u"Long", &kSettingsGuid, 39, EFI_BUFFER_TOO_SMALL, 40},
      {u"Long", &kSettingsGuid, 0, EFI_BUFFER_TOO_SMALL, 40},
      {u"Long", &kSettingsGuid, 64, EFI_SUCCESS, 40},
  };
  for (const Row& row : rows) {
    uint8_t data[64] = {};
    UINTN size = row.capacity;
    EXPECT_EQ(rt->GetVariable(row.name, row.guid, nullptr, &size, data), row.expected);
    EXPECT_EQ(size, row.sizeAfter);
  }
  // Rewriting with other attributes is refused; deleting what is not there is NOT_FOUND.
  EXPECT_EQ(rt->SetVariable(u"Long", &kSettingsGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS, 1, "x"), EFI_INVALID_PARAMETER);
  EXPECT_EQ(rt->SetVariable(u"Absent", &kSettingsGuid, kPersistent, 0, nullptr), EFI_NOT_FOUND);
  EXPECT_EQ(rt->SetVariable(u"RuntimeOnly", &kSettingsGuid, EFI_VARIABLE_RUNTIME_ACCESS, 1, "x"),
            EFI_INVALID_PARAMETER);
  std::vector<uint8_t> data;
  ASSERT_TRUE(environment.ReadVariable(u"Long", kSettingsGuid, data));
  EXPECT_EQ(data, std::vector<uint8_t>(40, 0xA5));
}

TEST(EmuVariables, BrokenStoreIsReportedAndLeftAlone) {
  ScratchDirectory scratch;
  WriteHostFile(scratch / "variables.json", "{\"variables\": [ {\"name\": 5} ]}");
  emu::Options options = OptionsWithVolumes({});
  options.variablesFile = scratch / "variables.json";
  emu::Environment environment(options);
  EXPECT_NE(environment.SetupError().find("the variable store " + options.variablesFile), std::string::npos);
  environment.SystemTable()->RuntimeServices->SetVariable(u"New", &kSettingsGuid, kPersistent, 1, "x");
  EXPECT_EQ(ReadHostFile(options.variablesFile), "{\"variables\": [ {\"name\": 5} ]}");
}

}  // namespace
