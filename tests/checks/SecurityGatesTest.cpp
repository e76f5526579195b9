// The anti-theft gate over the status byte of function 1Ch and the Secure Boot gate over the
// "SetupMode" variable and the whole ROM map.
#include "checks/ChecksBed.h"

namespace {

using checks::Answer;
using checks::At;
using SecurityGates = checks::ChecksBed;

void PutU32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; i++) p[i] = (uint8_t)(v >> (8 * i));
}

const char kStolen[] = "The system is in stolen mode. BIOS update is aborted!\r\n";
const char kProtected[] =
    "The system is currently under Intel Anti-Theft Technology 4.0 protection.\r\n"
    "Please un-enroll the client (Intel AT Service, Computrace LoJack, or PC Theft\r\n"
    "Defense Service) before perform BIOS update.\r\n";
const char kTimer[] = "The timer is not enough to program image!\r\nClient must rendezvous server then update image later.\r\n";

TEST_F(SecurityGates, AntiTheftStatusByte) {
  struct Row {
    uint8_t status;
    bool pass;
    bool marker;
    const char* console;
  };
  const Row rows[] = {
      {0x00, true, false, ""},       {0x7F, true, false, ""},       {0x80, true, true, ""},
      {0x81, false, false, kStolen}, {0x85, false, false, kStolen}, {0x83, false, false, kProtected},
      {0xC3, false, false, kTimer},  {0xC7, true, true, ""},
  };
  for (const Row& row : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    // Form C: the status byte comes back in CL and is handed over as AH.
    answers[0x1C] = [&](OblisRegisters& r) {
      r.ecx = row.status;
      Answer(r, 0, 0x5A);
    };
    EXPECT_EQ(FuncOblis_1Ch(), row.pass) << std::hex << (int)row.status;
    EXPECT_EQ(AntiTheftMarkerRequired(), row.marker) << std::hex << (int)row.status;
    EXPECT_EQ(Console(), row.console) << std::hex << (int)row.status;
  }
}

TEST_F(SecurityGates, FailedAntiTheftCallRefuses) {
  Ini("[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=1\n");
  ASSERT_TRUE(InitialSmi());
  AnswerCodes(0x1C, {0xEF});
  EXPECT_FALSE(FuncOblis_1Ch());
  EXPECT_FALSE(AntiTheftMarkerRequired());
  EXPECT_EQ(Console(), "\r\n\r\nError: OBLIS 1Ch failed.\r\nInternal Error EF\r\nFunction not supported.\r\n");
}

TEST_F(SecurityGates, SecureBootSupportIsThePresenceOfSetupMode) {
  for (bool present : {false, true}) {
    Install(Layout());
    if (present) {
      Environment().PresetVariable(u"SetupMode", kGlobalVariableGuid, 6, {0x00});
    }
    EXPECT_EQ(IsSecureBootSupport(), present);
    EXPECT_NE(Log().find(present ? "<=== IsSecureBootSupport (Support)" : "<=== IsSecureBootSupport (Not support)"),
              std::string::npos);
  }
}

const char kSecureBootMessage[] =
    "Flash process will be terminated!\r\n\r\nCurrent platform supports secure boot feature,\r\nit must provide NV "
    "storage location by OBLIS interface.\r\nPlease contact OEM BIOS engineer to add the feature.\r\n\r\nWithout "
    "this OBLIS interface,\r\nthe authenticate variables will be modified or cleared by flash process.\r\n\r\nIf you "
    "understand the risk and still want to flash.\r\nYou can use following command or platform.ini settings to "
    "ignore this error.\r\nCommand:\r\n        -skipsbp\r\nplatform.ini:\r\n        "
    "[EngineeringErrorDisable]\r\n        SkipSecureBootProtectionCheck=1\r\n\r\n";

TEST_F(SecurityGates, SecureBootProtectionNeedsAWholeMapOrASkip) {
  struct Row {
    const char* what;
    bool record;
    bool skipOption;
    bool skipSetting;
    bool pass;
  };
  const Row rows[] = {
      {"empty map refused", false, false, false, false},
      {"one record passes", true, false, false, true},
      {"-skipsbp passes", false, true, false, true},
      {"setting passes", false, false, true, true},
  };
  for (const Row& row : rows) {
    Install(Layout());
    if (row.skipSetting) Ini("[EngineeringErrorDisable]\nSkipSecureBootProtectionCheck=1\n");
    if (row.skipOption) ASSERT_TRUE(Options({u"-skipsbp"}));
    ASSERT_TRUE(InitialSmi());
    answers[0x1E] = [&](OblisRegisters& r) {
      if (row.record) {
        At(r.edi)[0] = 0x03;
        PutU32(At(r.edi) + 1, 0xFFC00000);
        PutU32(At(r.edi) + 5, 0x1000);
      }
      At(r.edi)[13] = 0xFF;
      At(r.edi)[14] = 0x01;
    };
    SMI_GetWholeRomMap(nullptr, nullptr);
    EXPECT_EQ(SecureBootProtectionCheck(), row.pass) << row.what;
    EXPECT_EQ(Console(), row.pass ? "" : kSecureBootMessage) << row.what;
  }
}

}  // namespace
