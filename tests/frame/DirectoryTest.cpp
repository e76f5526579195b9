// The function directory and what a host hands in through it.
#include <string>
#include <vector>

#include "FrameHarness.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using frame_test::FrameHarness;
using frame_test::HarnessSetup;

namespace {

std::u16string CurrentDirectoryText() { return std::u16string(GetCurrentDirectory()); }

TEST(Directory, LookupFindsEachOfTheEightNamesInAnyCase) {
  struct Row {
    const char16_t* name;
    void* expected;
  };
  const std::vector<Row> rows = {
      {u"SetCurrentDirectory", reinterpret_cast<void*>(&SetCurrentDirectory)},
      {u"SetCommandLineArgument", reinterpret_cast<void*>(&SetCommandLineArgument)},
      {u"SetImageHandle", reinterpret_cast<void*>(&SetImageHandle)},
      {u"SetShellExecuteCallback", reinterpret_cast<void*>(&SetShellExecuteCallback)},
      {u"SMI_ApHookPoint", reinterpret_cast<void*>(&SMI_ApHookPoint)},
      {u"FuncOblis_16h", reinterpret_cast<void*>(&FuncOblis_16h)},
      {u"ShellFlashMain", reinterpret_cast<void*>(&ShellFlashMain)},
      {u"UefiFlashMain", reinterpret_cast<void*>(&UefiFlashMain)},
      {u"uefiflashmain", reinterpret_cast<void*>(&UefiFlashMain)},
      {u"SHELLFLASHMAIN", reinterpret_cast<void*>(&ShellFlashMain)},
      {u"smi_aphookpoint", reinterpret_cast<void*>(&SMI_ApHookPoint)},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(LookupFunction(row.name), row.expected) << std::string(row.name, row.name + std::char_traits<char16_t>::length(row.name));
  }
}

TEST(Directory, UnknownNameWarnsConsumesOneKeyAndGivesNull) {
  // Neither a prefix nor a longer name matches: names compare in full.
  const std::vector<std::u16string> unknown = {u"UefiFlash", u"UefiFlashMainX", u"LoadConfiguration", u""};
  for (const auto& name : unknown) {
    EXPECT_EQ(0, RunIsolated([&] {
      HarnessSetup setup;
      setup.keys = "ab";
      FrameHarness harness(setup);
      harness.StartDriver();
      EXPECT_EQ(LookupFunction(name.c_str()), nullptr);
      std::string expected = " Engineering Warning:\r\n [" + std::string(name.begin(), name.end()) +
                             "] founction not found.\r\n";
      EXPECT_EQ(harness.Console(), expected);
      // Exactly one key was taken: the next one is still there.
      EFI_INPUT_KEY key{};
      EFI_SIMPLE_TEXT_INPUT_PROTOCOL* input = harness.Environment().SystemTable()->ConIn;
      ASSERT_EQ(input->ReadKeyStroke(input, &key), EFI_SUCCESS);
      EXPECT_EQ(key.UnicodeChar, u'b');
      // No platform backend is set here, so a hook point raised by the wait would end this child.
    }));
  }
}

TEST(Directory, SetCurrentDirectoryDropsTheVolumeName) {
  struct Row {
    std::u16string path;
    std::u16string expected;
  };
  const std::vector<Row> rows = {
      {u"fs0:\\efi\\tool", u".\\efi\\tool\\"},
      {u"FS1:\\", u".\\\\"},
      {u"fs0:", u".\\"},
      {u"\\efi\\tool", u"\\efi\\tool"},  // no ':': kept as it is, nothing added
      {u"tool", u"tool"},
      {u"", u""},
      {u"fs0:a:b", u".a:b\\"},  // only the first ':' counts
  };
  for (const auto& row : rows) {
    SetCurrentDirectory(row.path.c_str());
    EXPECT_EQ(CurrentDirectoryText(), row.expected);
  }
}

TEST(Directory, SetCurrentDirectoryKeepsAt255CharactersAndTakesNullAsEmpty) {
  std::u16string longPath = u"fs0:" + std::u16string(300, u'x');
  SetCurrentDirectory(longPath.c_str());
  // The copy holds 255 characters: "fs0:" and 251 'x', then "." and "\\" around those.
  EXPECT_EQ(CurrentDirectoryText(), u"." + std::u16string(251, u'x') + u"\\");

  SetCurrentDirectory(nullptr);
  EXPECT_EQ(CurrentDirectoryText(), u"");
}

std::u16string lastCommand;
EFI_STATUS EFIAPI RecordCommand(const CHAR16* text) {
  lastCommand = text;
  return EFI_ABORTED;
}

TEST(Directory, RunShellCommandGoesToTheHostCallbackAndRefusesWithoutOne) {
  EXPECT_EQ(RunShellCommand(u"FwUpdLcl.efi -f me.bin"), EFI_UNSUPPORTED);
  SetShellExecuteCallback(RecordCommand);
  EXPECT_EQ(RunShellCommand(u"FwUpdLcl.efi -f me.bin"), EFI_ABORTED);
  EXPECT_EQ(lastCommand, u"FwUpdLcl.efi -f me.bin");
}

}  // namespace
