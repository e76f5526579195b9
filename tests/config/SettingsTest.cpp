// The start values of the settings record, the trace of InitialIniStructure, and the lookups'
// answer while no platform.ini text is loaded.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "output/LogHarness.h"

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

TEST(CommandFlags, AllClearBeforeACommandLine) {
  const CommandFlags* flags = Flags();
  EXPECT_FALSE(flags->debug || flags->reboot || flags->shutdown || flags->nothing || flags->skipSbp);
}

}  // namespace
