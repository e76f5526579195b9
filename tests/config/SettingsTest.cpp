// The start values of the settings record, the trace of InitialIniStructure, and the lookups'
// answer while no platform.ini text is loaded.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/LogHarness.h"
#include "support/Isolated.h"

namespace {

TEST(Settings, StartValuesStandAfterInitialIniStructure) {
  log_test::LogVolume volume;
  InitialIniStructure();
  const FlashSettings* s = Settings();
  EXPECT_EQ(s->logFile.flag, 0);
  EXPECT_EQ(s->logFile.level, 0);
  EXPECT_EQ(s->flashComplete.action, 2);
  EXPECT_FALSE(s->flashComplete.pause);
  EXPECT_STREQ(s->flashComplete.pauseWarning, "");
  EXPECT_FALSE(s->flashSecureBiosOverride.enable);
  EXPECT_EQ(s->flashSecureBiosOverride.action, 1);
  EXPECT_STREQ(s->acAdapter.launcherAcWarning, "messagestringA02");
  EXPECT_STREQ(s->acAdapter.securityAcWarning, "messagestringA02");
  EXPECT_EQ(s->others.smiErrorRetryDelay, 100);
  EXPECT_EQ(s->others.smiErrorRetry, 5);
  EXPECT_FALSE(s->engineeringErrorDisable.skipSecureBootProtectionCheck);
}

TEST(Settings, InitialIniStructureIsTracedUnderItsName) {
  log_test::LogVolume volume;
  volume.ScanArguments({u"zaprom", u"-dbg"});
  InitialIniStructure();
  EXPECT_EQ(volume.Log(), "===> InitialIniStructure [14:03:59]\r\n<=== InitialIniStructure\r\n");
}

TEST(Settings, LookupsFindNothingWhileNoTextIsLoaded) {
  CHAR8 value[8];
  std::memset(value, 'x', sizeof(value));
  EXPECT_FALSE(GetIniString("MessageStringTable", "messagestringA02", value, sizeof(value)));
  EXPECT_EQ(value[0], 0);
}

void LoadText(const std::string& text) {
  std::vector<CHAR8> buffer(text.begin(), text.end());
  buffer.push_back(0);
  UINT32 size = static_cast<UINT32>(text.size());
  LoadOption(buffer.data(), &size, true);
}

std::string Text(const CHAR8* field) { return field; }
std::string Number(INT64 value) { return std::to_string(value); }

// Every field, its start value and its value on load (a text that names none of its keys).
TEST(Settings, EverySettingHasItsStartValueAndItsValueOnLoad) {
  using S = const FlashSettings&;
  struct Row {
    const char* name;
    std::function<std::string(S)> get;
    std::string start;
    std::string onLoad;
  };
  const std::vector<Row> rows = {
      {"CommonFlash present", [](S s) { return Number(s.commonFlash.present); }, "0", "0"},
      {"CommonFlash SwitchString", [](S s) { return Text(s.commonFlash.switchString); }, "", ""},
      {"CommonFlash ErrorMsg00", [](S s) { return Text(s.commonFlash.errorMsg[0x00]); }, "No error!", "No error!"},
      {"CommonFlash ErrorMsg03", [](S s) { return Text(s.commonFlash.errorMsg[0x03]); }, "DC gas gauge under xx%!",
       "DC gas gauge under xx%!"},
      {"CommonFlash ErrorMsg06", [](S s) { return Text(s.commonFlash.errorMsg[0x06]); }, "", ""},
      {"CommonFlash ErrorMsg12", [](S s) { return Text(s.commonFlash.errorMsg[0x12]); },
       "Show model name string length more then xx bytes.", "Show model name string length more then xx bytes."},
      {"MULTI_FD Flag", [](S s) { return Number(s.multiFd.flag); }, "0", "0"},
      {"UI Elapse", [](S s) { return Number(s.ui.elapse); }, "0", "0"},
      {"AC_Adapter Flag", [](S s) { return Number(s.acAdapter.flag); }, "1", "1"},
      {"AC_Adapter BatteryCheck", [](S s) { return Number(s.acAdapter.batteryCheck); }, "0", "0"},
      {"AC_Adapter BatteryBound", [](S s) { return Number(s.acAdapter.batteryBound); }, "255", "255"},
      {"AC_Adapter LauncherAcWarning", [](S s) { return Text(s.acAdapter.launcherAcWarning); }, "messagestringA02", ""},
      {"AC_Adapter SecurityAcWarning", [](S s) { return Text(s.acAdapter.securityAcWarning); }, "messagestringA02", ""},
      {"Platform_Check Flag", [](S s) { return Number(s.platformCheck.flag); }, "3", "3"},
      {"PlatformVersion Flag", [](S s) { return Number(s.platformVersion.flag); }, "0", "0"},
      {"Bios_Version_Check Flag", [](S s) { return Number(s.biosVersionCheck.flag); }, "2", "2"},
      {"Bios_Version_Check CheckByBios", [](S s) { return Number(s.biosVersionCheck.checkByBios); }, "0", "0"},
      {"BIOSVersionFormat BIOSVFEnable", [](S s) { return Number(s.biosVersionFormat.biosVfEnable); }, "0", "0"},
      {"FlashComplete Action", [](S s) { return Number(s.flashComplete.action); }, "2", "2"},
      {"FlashComplete Pause", [](S s) { return Number(s.flashComplete.pause); }, "0", "0"},
      {"FlashSecureBIOSOverride Enable", [](S s) { return Number(s.flashSecureBiosOverride.enable); }, "0", "0"},
      {"FlashSecureBIOSOverride Action", [](S s) { return Number(s.flashSecureBiosOverride.action); }, "1", "1"},
      {"ForceFlash ALL", [](S s) { return Number(s.forceFlash.all); }, "0", "0"},
      {"ForceFlash ALP", [](S s) { return Number(s.forceFlash.alp); }, "0", "0"},
      {"ForceFlash UseBvdtRomMap", [](S s) { return Number(s.forceFlash.useBvdtRomMap); }, "0", "0"},
      {"Region BIOS", [](S s) { return Number(s.region.bios); }, "0", "0"},
      {"UpdateEC Progress_Bar", [](S s) { return Number(s.updateEc.progressBar); }, "1", "1"},
      {"UpdateEC EC_DockWarning", [](S s) { return Text(s.updateEc.ecDockWarning); }, "messagestringA04", ""},
      {"UpdateEC EC_BlockSize", [](S s) { return Number(s.updateEc.ecBlockSize); }, "64", "64"},
      {"UpdateEC ProtectMaskBitCount", [](S s) { return Number(s.updateEc.protectMaskBitCount); }, "0", "0"},
      {"UpdateEC MaskByte31", [](S s) { return Number(s.updateEc.maskByte[31]); }, "0", "0"},
      {"UpdateOEMME MEFileName", [](S s) { return Text(s.updateOemMe.meFileName); }, "", ""},
      {"Log_file Flag", [](S s) { return Number(s.logFile.flag); }, "0", "0"},
      {"Log_file FileName", [](S s) { return Text(s.logFile.fileName); }, "ZAPROM.Log", ""},
      {"Log_file Level", [](S s) { return Number(s.logFile.level); }, "0", "0"},
      {"ReturnErrorCode FileNotFound", [](S s) { return Number(s.returnErrorCode.fileNotFound); }, "3", "3"},
      {"ReturnErrorCode ErrorBeforeFlash", [](S s) { return Number(s.returnErrorCode.errorBeforeFlash); }, "4", "4"},
      {"ReturnErrorCode BatteryNotConnect", [](S s) { return Number(s.returnErrorCode.batteryNotConnect); }, "4", "4"},
      {"ReturnErrorCode BatteryCapacityNotEnough",
       [](S s) { return Number(s.returnErrorCode.batteryCapacityNotEnough); }, "4", "4"},
      {"ReturnErrorCode WriteROMFail", [](S s) { return Number(s.returnErrorCode.writeRomFail); }, "5", "5"},
      {"ReturnErrorCode WriteECFail", [](S s) { return Number(s.returnErrorCode.writeEcFail); }, "6", "6"},
      {"ReturnErrorCode WriteExtraDataFail", [](S s) { return Number(s.returnErrorCode.writeExtraDataFail); }, "7", "7"},
      {"Others DisableCompare", [](S s) { return Number(s.others.disableCompare); }, "0", "0"},
      {"Others DisableVerify", [](S s) { return Number(s.others.disableVerify); }, "0", "0"},
      {"Others VerifyErrorRetry", [](S s) { return Number(s.others.verifyErrorRetry); }, "3", "3"},
      {"Others SMIErrorRetryDelay", [](S s) { return Number(s.others.smiErrorRetryDelay); }, "100", "100"},
      {"Others SMIErrorRetry", [](S s) { return Number(s.others.smiErrorRetry); }, "5", "5"},
      {"Others DisableSecureCapsuleFlash", [](S s) { return Number(s.others.disableSecureCapsuleFlash); }, "0", "0"},
      {"FactoryCopy Restore", [](S s) { return Number(s.factoryCopy.restore); }, "0", "0"},
      {"SecurityFlashFactoryUpdate UpdateNvStorage",
       [](S s) { return Number(s.securityFlashFactoryUpdate.updateNvStorage); }, "0", "0"},
      {"SecurityFlashFactoryUpdate UpdateFactoryCopy",
       [](S s) { return Number(s.securityFlashFactoryUpdate.updateFactoryCopy); }, "0", "0"},
      {"EngineeringErrorDisable SkipSecureBootProtectionCheck",
       [](S s) { return Number(s.engineeringErrorDisable.skipSecureBootProtectionCheck); }, "0", "0"},
      {"SecureUpdate viaESP", [](S s) { return Number(s.secureUpdate.viaEsp); }, "0", "0"},
      {"AutoWakeup Flag", [](S s) { return Number(s.autoWakeup.flag); }, "0", "0"},
      {"AutoWakeup interval", [](S s) { return Number(s.autoWakeup.interval); }, "120", "120"},
  };
  log_test::LogVolume volume;
  InitialIniStructure();
  for (const Row& row : rows) EXPECT_EQ(row.get(*Settings()), row.start) << row.name << " at the start";
  LoadText("[Unrelated]\nKey=1\n");
  for (const Row& row : rows) EXPECT_EQ(row.get(*Settings()), row.onLoad) << row.name << " on load";
}

// Texts that set keys, and what the record says afterwards.
TEST(Settings, KeysConditionsAndForceTypesReadAsTheTextSays) {
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
    EXPECT_EQ(RunIsolated([&] {
                log_test::LogVolume volume;
                InitialIniStructure();
                LoadText(row.text);
                EXPECT_EQ(row.get(*Settings()), row.expected) << row.text;
              }),
              0)
        << row.text;
  }
}

TEST(Settings, MultiFdIsReadOnlyWhenTheLoadAsksForIt) {
  log_test::LogVolume volume;
  InitialIniStructure();
  std::string text = "[MULTI_FD]\nFlag=1\nFD#00=a.fd\n";
  std::vector<CHAR8> buffer(text.begin(), text.end());
  UINT32 size = static_cast<UINT32>(buffer.size());
  LoadOption(buffer.data(), &size, false);
  EXPECT_EQ(Settings()->multiFd.flag, 0);
  EXPECT_STREQ(Settings()->multiFd.fd[0], "");
}

TEST(CommandFlags, AllClearBeforeACommandLine) {
  const CommandFlags* flags = Flags();
  EXPECT_FALSE(flags->debug || flags->reboot || flags->shutdown || flags->nothing || flags->skipSbp);
}

}  // namespace
