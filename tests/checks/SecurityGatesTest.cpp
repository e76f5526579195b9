// The anti-theft gate over the status byte of function 1Ch and the Secure Boot gate over the
// "SetupMode" variable and the whole ROM map.
#include "checks/ChecksBed.h"

namespace {

using checks::Answer;
using checks::At;
using SecurityGates = checks::ChecksBed;

const char kStolen[] = "The system is in stolen mode. BIOS update is aborted!\r\n";
const char kProtected[] =
    "The system is currently under Intel Anti-Theft Technology 4.0 protection.\r\n"
    "Please un-enroll the client (Intel AT Service, Computrace LoJack, or PC Theft\r\n"
    "Defense Service) before perform BIOS update.\r\n";
const char kTimer[] = "The timer is not enough to program image!\r\nClient must rendezvous server then update image later.\r\n";

TEST_F(SecurityGates, AntiTheftStatusByte) {
  struct Row {
    uint8_t status;
    bool pass, marker;
    const char* console;
    uint8_t code = 0;  // AL of 1Ch
  };
  const Row rows[] = {
      {0x00, false, false, "\r\n\r\nError: OBLIS 1Ch failed.\r\nInternal Error EF\r\nFunction not supported.\r\n", 0xEF},
      {0x00, true, false, ""},
      {0x7F, true, false, ""},
      {0x80, true, true, ""},
      {0x81, false, false, kStolen},
      {0x85, false, false, kStolen},
      {0x83, false, false, kProtected},
      {0xC3, false, false, kTimer},
      {0xC7, true, true, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.status);
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    // Form C: the status byte comes back in CL and is handed over as AH.
    answers[0x1C] = [&](OblisRegisters& r) {
      r.ecx = row.status;
      Answer(r, row.code, 0x5A);
    };
    EXPECT_EQ(FuncOblis_1Ch(), row.pass);
    EXPECT_EQ(AntiTheftMarkerRequired(), row.marker);
    EXPECT_EQ(Console(), row.console);
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
    bool record, skipOption, skipSetting, pass;
  };
  const Row rows[] = {
      {false, false, false, false},  // an empty map is refused
      {true, false, false, true},
      {false, true, false, true},
      {false, false, true, true},
  };
  for (const Row& row : rows) {
    Install(Layout());
    if (row.skipSetting) Ini("[EngineeringErrorDisable]\nSkipSecureBootProtectionCheck=1\n");
    if (row.skipOption) ASSERT_TRUE(Options({u"-skipsbp"}));
    ASSERT_TRUE(InitialSmi());
    answers[0x1E] = [&](OblisRegisters& r) {
      const uint8_t record[] = {0x03, 0x00, 0x00, 0xC0, 0xFF, 0x00, 0x10, 0x00, 0x00};
      if (row.record) std::memcpy(At(r.edi), record, sizeof(record));
      At(r.edi)[13] = 0xFF;
      At(r.edi)[14] = 0x01;
    };
    SMI_GetWholeRomMap(nullptr, nullptr);
    EXPECT_EQ(SecureBootProtectionCheck(), row.pass);
    EXPECT_EQ(Console(), row.pass ? "" : kSecureBootMessage);
    // Support is the presence of the SetupMode variable.
    EXPECT_FALSE(IsSecureBootSupport());
    Environment().PresetVariable(u"SetupMode", kGlobalVariableGuid, 6, {0x00});
    EXPECT_TRUE(IsSecureBootSupport());
    EXPECT_NE(Log().find("<=== IsSecureBootSupport (Not support)\r\n===> IsSecureBootSupport"), std::string::npos);
  }
}

}  // namespace
