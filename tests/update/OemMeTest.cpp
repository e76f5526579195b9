// The OEM ME update through the vendor's shell tool: the script it writes, the verdict taken from
// error.log, and the refusals that keep the BIOS write from starting.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "frame/Frame.h"
#include "oblis/FakeFirmware.h"
#include "support/Isolated.h"
#include "update/Update.h"

using namespace oblistest;

namespace {

// What the stand-in for the shell saw, and what the ME tool leaves behind.
std::vector<std::string> executed;
std::string scriptSeen;
bool scriptExisted = false;
std::string toolErrorLog;  // empty: the tool succeeds and writes none

std::string Narrow(const CHAR16* text) {
  std::string out;
  for (; *text != 0; ++text) out += static_cast<char>(*text);
  return out;
}

EFI_STATUS EFIAPI RunToolScript(const CHAR16* commandLine) {
  executed.push_back(Narrow(commandLine));
  UINT8* script = nullptr;
  UINT32 size = 0;
  scriptExisted = ReadFile(u"FwUpdZPM.nsh", &script, &size);
  if (scriptExisted) {
    scriptSeen.assign(reinterpret_cast<char*>(script), size);
    FreePoolAndNull(script);
  }
  if (!toolErrorLog.empty()) SaveBufferToFile(u"error.log", toolErrorLog.data(), (UINT32)toolErrorLog.size());
  return EFI_SUCCESS;
}

TEST(OemMe, TheToolRunsThroughAScriptAndItsErrorLogIsTheVerdict) {
  struct Row {
    const char* what;
    std::string meFile, command;
    bool toolThere;
    bool staleErrorLog;
    std::string errorLog;
    bool result;
    std::vector<std::string> executed;
    std::string script;
    std::string console;
    std::string trace;
  };
  const Row rows[] = {
      {"nothing to do", "", "-allowsv", true, false, "", true, {}, "", "", "<=== UpdateOemME (ME filename is empty)\r\n"},
      {"no tool beside the flash tool", "me.bin", "", false, false, "", false, {}, "",
       "Warning!\r\n Utility FwUpdLcl.efi not found.\r\n", " Utility FwUpdLcl.efi (not found)\r\n"},
      {"the tool succeeds; an old error.log does not count", "me.bin", "-allowsv", true, true, "", true,
       {"FwUpdZPM.nsh"}, "FwUpdLcl.efi -f me.bin -allowsv", "\r\n\r\n",
       " Update ME Script: (FwUpdLcl.efi -f me.bin -allowsv)\r\n"},
      {"an empty command leaves a trailing blank", "me.bin", "", true, false, "", true, {"FwUpdZPM.nsh"},
       "FwUpdLcl.efi -f me.bin ", "\r\n\r\n", "<=== UpdateOemME\r\n"},
      {"the tool fails", "me.bin", "", true, false, "Update failed!\n", false, {"FwUpdZPM.nsh"},
       "FwUpdLcl.efi -f me.bin ",
       "\r\n ===== Warning (FwUpdLcl.efi) ========\r\n  Update failed!\r\n ==========\r\n",
       "<=== UpdateOemME (Log file found, error occur)\r\n"},
  };
  for (const Row& row : rows) {
    int code = RunIsolated([&] {
      FakeFirmware fw;
      std::strncpy(FakeFirmware::MutableSettings().updateOemMe.meFileName, row.meFile.c_str(), 0x3FF);
      std::strncpy(FakeFirmware::MutableSettings().updateOemMe.command, row.command.c_str(), 0x3FF);
      if (row.toolThere) fw.PutFile("FwUpdLcl.efi", Bytes("MZ tool"));
      if (row.staleErrorLog) fw.PutFile("error.log", Bytes("from an earlier run\n"));
      toolErrorLog = row.errorLog;
      SetShellExecuteCallback(RunToolScript);
      EXPECT_EQ(UpdateOemME(), row.result) << row.what;
      EXPECT_EQ(executed, row.executed) << row.what;
      if (!row.executed.empty()) {
        EXPECT_TRUE(scriptExisted) << row.what;
        EXPECT_EQ(scriptSeen, row.script) << row.what;
        EXPECT_FALSE(ReadFile(u"FwUpdZPM.nsh", nullptr, nullptr)) << row.what << ": the script is removed";
      }
      EXPECT_NE(fw.Console().find(row.console), std::string::npos) << row.what << "\n" << fw.Console();
      if (row.console.empty()) EXPECT_EQ(fw.Console(), "") << row.what;
      EXPECT_NE(fw.Log().find(row.trace), std::string::npos) << row.what << "\n" << fw.Log();
    });
    EXPECT_EQ(code, 0) << row.what;
  }
}

}  // namespace
