// The settings record: what a loaded text changes, the trace of InitialIniStructure, and the
// lookups' answer while no platform.ini text is loaded.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "config/ConfigInternal.h"
#include "output/Output.h"
#include "support/DriverBed.h"

namespace {

using SettingsLoad = bed::QuietBed;

void LoadText(const std::string& text) {
  std::vector<CHAR8> buffer(text.begin(), text.end());
  buffer.push_back(0);
  UINT32 size = static_cast<UINT32>(text.size());
  LoadOption(buffer.data(), &size, true);
}

std::string Text(const CHAR8* field) { return field; }
std::string Number(INT64 value) { return std::to_string(value); }

// A load clears the message keys and the log name that the start values carry: a section reader
// that forgets to clear would keep them.
TEST_F(SettingsLoad, ALoadClearsTheStartTextsItDoesNotName) {
  InitialIniStructure();
  EXPECT_STREQ(Settings()->acAdapter.launcherAcWarning, "messagestringA02");
  EXPECT_STREQ(Settings()->updateEc.ecDockWarning, "messagestringA04");
  EXPECT_STREQ(Settings()->logFile.fileName, "ZAPROM.Log");
  LoadText("[Unrelated]\nKey=1\n");
  EXPECT_STREQ(Settings()->acAdapter.launcherAcWarning, "");
  EXPECT_STREQ(Settings()->acAdapter.securityAcWarning, "");
  EXPECT_STREQ(Settings()->updateEc.ecDockWarning, "");
  EXPECT_STREQ(Settings()->logFile.fileName, "");
  EXPECT_EQ(Settings()->others.smiErrorRetryDelay, 100);
  EXPECT_EQ(Settings()->autoWakeup.interval, 120);
}

// Texts that set keys, and what the record says afterwards.
TEST_F(SettingsLoad, KeysConditionsAndForceTypesReadAsTheTextSays) {
  using S = const FlashSettings&;
  struct Row {
    const char* text;
    std::function<std::string(S)> get;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {"[CommonFlash]\nSwitchString=on\n", [](S s) { return Text(s.commonFlash.errorMsg[0]) + "|" + Number(s.commonFlash.present); },
       "|1"},
      {"[CommonFlash]\nErrorMsg0a=Ten\nErrorMsg13=Last\n",
       [](S s) { return Text(s.commonFlash.errorMsg[0x0a]) + Text(s.commonFlash.errorMsg[0x13]); }, "TenLast"},
      {"[Platform_Check]\nFlag=2\nPlatformName1=Alpha\nPlatformName20=Omega\n",
       [](S s) { return Text(s.platformCheck.platformName[0]) + Text(s.platformCheck.platformName[19]); }, "AlphaOmega"},
      {"[Platform_Check]\nFlag=1\nPlatformName1=Alpha\n", [](S s) { return Text(s.platformCheck.platformName[0]); }, ""},
      {"[PlatformVersion]\nFlag=1\nVersion2=V2\n", [](S s) { return Text(s.platformVersion.version[1]); }, "V2"},
      {"[FlashComplete]\nAction=2,0\nPause=1\nPauseWarning=msgA\n",
       [](S s) { return Number(s.flashComplete.action) + Text(s.flashComplete.pauseWarning); }, "2msgA"},
      {"[FlashComplete]\nAction=0\n[FlashSecureBIOSOverride]\nAction=3\n",
       [](S s) { return Number(s.flashComplete.action) + Number(s.flashSecureBiosOverride.action); }, "03"},
      {"[AC_Adapter]\nBatteryBound=30\n", [](S s) { return Number(s.acAdapter.batteryBound); }, "255"},
      {"[AC_Adapter]\nBatteryCheck=1\nBatteryBound=30\n", [](S s) { return Number(s.acAdapter.batteryBound); }, "30"},
      {"[FactoryCopy]\nRestore=2\n", [](S s) { return Number(s.factoryCopy.restore); }, "0"},
      {"[Log_file]\nLevel=9\n", [](S s) { return Number(s.logFile.level); }, "4"},
      {"[Bios_Version_Check]\nCheckByBios=1\nCheckByBiosErrorMessage=\"Too old\"\n",
       [](S s) { return Text(s.biosVersionCheck.checkByBiosErrorMessage); }, "Too old"},
      {"[BIOSVersionFormat]\nVersionFormat=XX\n", [](S s) { return Text(s.biosVersionFormat.versionFormat); }, ""},
      {"[MULTI_FD]\nFlag=1\nFD#00=a.fd\nFD#99=z.fd\n",
       [](S s) { return Text(s.multiFd.fd[0]) + Text(s.multiFd.fd[99]); }, "a.fdz.fd"},
      {"[ForceFlash]\nDXE=1\nType#03=0\nPassword=1\nType#fe=1\nType#11=2\n",
       [](S s) {
         std::string set;
         for (size_t i = 0; i < kForceTypeCount; i++)
           if (s.forceFlash.forceTypes[i]) set += Number(i) + " ";
         return set;
       },
       "3 15 254 "},
      {"[ForceFlash]\nDXE=0\nType#03=1\n", [](S s) { return Number(s.forceFlash.forceTypes[3]); }, "1"},
      {"[UpdateEC]\nEC_BlockSize=288\nMaskByte0=ff\nMaskByte31=0x10\n",
       [](S s) { return Number(s.updateEc.ecBlockSize) + "," + Number(s.updateEc.maskByte[0]) + "," + Number(s.updateEc.maskByte[31]); },
       "32,255,16"},
      {"[AutoWakeup]\nFlag=1\nInterval=30\n", [](S s) { return Number(s.autoWakeup.flag) + Number(s.autoWakeup.interval); }, "130"},
  };
  for (const Row& row : rows) {
    Install(Layout());
    InitialIniStructure();
    LoadText(row.text);
    EXPECT_EQ(row.get(*Settings()), row.expected) << row.text;
  }
}

TEST_F(SettingsLoad, MultiFdIsReadOnlyWhenTheLoadAsksForIt) {
  InitialIniStructure();
  std::string text = "[MULTI_FD]\nFlag=1\nFD#00=a.fd\n";
  std::vector<CHAR8> buffer(text.begin(), text.end());
  UINT32 size = static_cast<UINT32>(buffer.size());
  LoadOption(buffer.data(), &size, false);
  EXPECT_EQ(Settings()->multiFd.flag, 0);
  EXPECT_STREQ(Settings()->multiFd.fd[0], "");
}

}  // namespace
