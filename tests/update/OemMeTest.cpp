// The OEM ME update through the vendor's shell tool: the script it writes, the verdict taken from
// error.log, and the refusals that keep the BIOS write from starting.
#include <gtest/gtest.h>

#include "frame/Frame.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using OemMe = bed::ScriptedBed;

// What the stand-in for the shell saw, and what the ME tool leaves behind.
std::vector<std::string> executed;
std::string scriptSeen;
std::string toolErrorLog;  // empty: the tool succeeds and writes none

EFI_STATUS EFIAPI RunToolScript(const CHAR16* commandLine) {
  std::string line;
  for (; *commandLine != 0; ++commandLine) line += (char)*commandLine;
  executed.push_back(line);
  UINT8* script = nullptr;
  UINT32 size = 0;
  scriptSeen = ReadFile(u"FwUpdZPM.nsh", &script, &size) ? std::string((char*)script, size) : "(none)";
  FreePoolAndNull(script);
  if (!toolErrorLog.empty()) SaveBufferToFile(u"error.log", toolErrorLog.data(), (UINT32)toolErrorLog.size());
  return EFI_SUCCESS;
}

TEST_F(OemMe, TheToolRunsThroughAScriptAndItsErrorLogIsTheVerdict) {
  struct Row {
    const char* what;
    std::string meFile, command;
    bool toolThere, staleErrorLog;
    std::string errorLog;
    bool result;
    std::string script;  // empty: the tool is not run
    std::string console, trace;
  };
  const Row rows[] = {
      {"nothing to do", "", "-allowsv", true, false, "", true, "", "", "<=== UpdateOemME (ME filename is empty)\r\n"},
      {"no tool beside the flash tool", "me.bin", "", false, false, "", false, "",
       "Warning!\r\n Utility FwUpdLcl.efi not found.\r\n", " Utility FwUpdLcl.efi (not found)\r\n"},
      {"the tool succeeds; an old error.log does not count", "me.bin", "-allowsv", true, true, "", true,
       "FwUpdLcl.efi -f me.bin -allowsv", "\r\n\r\n", " Update ME Script: (FwUpdLcl.efi -f me.bin -allowsv)\r\n"},
      {"an empty command leaves a trailing blank", "me.bin", "", true, false, "", true, "FwUpdLcl.efi -f me.bin ",
       "\r\n\r\n", "<=== UpdateOemME\r\n"},
      {"the tool fails", "me.bin", "", true, false, "Update failed!\n", false, "FwUpdLcl.efi -f me.bin ",
       "\r\n ===== Warning (FwUpdLcl.efi) ========\r\n  Update failed!\r\n ==========\r\n",
       "<=== UpdateOemME (Log file found, error occur)\r\n"},
  };
  for (const Row& row : rows) {
    Install(Layout());
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[UpdateOemME]\nMEFileName=" + row.meFile + "\nCommand=" + row.command + "\n");
    if (row.toolThere) PutFile("FwUpdLcl.efi", bed::Bytes("MZ tool"));
    if (row.staleErrorLog) PutFile("error.log", bed::Bytes("from an earlier run\n"));
    executed.clear();
    toolErrorLog = row.errorLog;
    SetShellExecuteCallback(RunToolScript);
    EXPECT_EQ(UpdateOemME(), row.result) << row.what;
    EXPECT_EQ(executed, row.script.empty() ? std::vector<std::string>{} : std::vector<std::string>{"FwUpdZPM.nsh"}) << row.what;
    if (!row.script.empty()) {
      EXPECT_EQ(scriptSeen, row.script) << row.what;
      EXPECT_FALSE(ReadFile(u"FwUpdZPM.nsh", nullptr, nullptr)) << row.what << ": the script is removed";
    }
    EXPECT_EQ(Console(), row.console) << row.what;
    EXPECT_NE(Log().find(row.trace), std::string::npos) << row.what << "\n" << Log();
  }
  SetShellExecuteCallback(nullptr);
}

}  // namespace
