// The CommonFlash gate: what the answer of function 44h does to the gate and to the final action,
// and a firmware without the function. (The blocks on the wire are in PreFlashScenarios.)
#include <string>

#include "checks/ChecksBed.h"
#include "config/ConfigInternal.h"

namespace {

using checks::At;

class CommonFlash : public checks::ChecksBed {
 protected:
  void Start(uint8_t ac, uint8_t dc, const std::u16string& version, const std::string& ini) {
    Install(Layout());
    Boot({.ac = ac, .dc = dc, .model = u"NB-7", .version = version});
    Ini("[CommonFlash]\n" + ini);
  }
  void Answer44h(uint16_t permit, uint16_t message, uint16_t action) {
    answers[0x44] = [permit, message, action](OblisRegisters& r) {
      const uint16_t answer[] = {permit, message, action};
      std::memcpy(At(r.edi), answer, sizeof(answer));
    };
  }
};

TEST_F(CommonFlash, AnswerDecidesGateAndFinalAction) {
  struct Row {
    uint16_t permit, message, action;
    bool gate;
    std::string tail;     // what the console ends with
    uint8_t finalAction;  // [FlashComplete] Action is 2
  };
  const Row rows[] = {
      {1, 0, 3, true, "", 1},
      {1, 0, 2, true, "", 1},
      {1, 0, 1, true, "", 0},
      {1, 0, 0, true, "", 2},
      {2, 3, 1, false, "Warning!\r\nBattery too low\r\n", 2},  // a permit of 2 is no permission
      {0, 0x13, 0, false, "Warning!\r\nLast slot\r\n", 2},  // slot numbers are hexadecimal
      {0, 0x14, 0, false, "Not allow flash.\r\nMessage Number: 0x14", 2},
      {0, 0x1A5, 0, false, "Not allow flash.\r\nMessage Number: 0x1A5", 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.permit << " " << row.message << " " << row.action);
    Start(1, 100, u"2.05", "SwitchString=FHST\nErrorMsg03=Battery too low\nErrorMsg19=decimal\nErrorMsg13=Last slot\n"
                           "[FlashComplete]\nAction=2\n");
    Answer44h(row.permit, row.message, row.action);
    ASSERT_TRUE(CommonFlashExchange());
    EXPECT_TRUE(IsCommonFlashActive());
    EXPECT_EQ(CommonFlashGate(), row.gate);
    const std::string shown = Console();
    EXPECT_EQ(shown.find("Dovrin ZAPROM") != std::string::npos, !row.gate) << "the short banner comes first";
    EXPECT_EQ(shown.substr(shown.size() - std::min(shown.size(), row.tail.size())), row.tail);
    SetStatus_16h(0xEF, 0xEF, 1, CommonFlashFinishAction);
    EXPECT_EQ(GetFinishAction(), row.finalAction);
    EXPECT_EQ(Log().find("Common Flash |") != std::string::npos, row.permit == 1) << "traced on a permitted run only";
    char status[80];
    std::snprintf(status, sizeof(status), "    permit  %d\r\n  message#  0x%X\r\n    action  %d\r\n", row.permit, row.message, row.action);
    EXPECT_NE(Log().find(std::string(" Oblis 44h Status\r\n ---------+--------\r\n") + status), std::string::npos);
  }
}

TEST_F(CommonFlash, FirmwareWithoutTheFunctionLeavesTheGateOff) {
  Start(0, 0x65, u"2.05", "SwitchString=ACDIS\n[Others]\nSMIErrorRetry=2\nSMIErrorRetryDelay=1\n");
  AnswerCodes(0x44, {0xEF});
  EXPECT_TRUE(CommonFlashExchange()) << "only a failed allocation is false";
  EXPECT_EQ(SmiCallsOf(0x44).size(), 3u) << "every attempt of the retry loop";
  EXPECT_FALSE(IsCommonFlashActive());
  EXPECT_TRUE(CommonFlashGate());
  SetStatus_16h(0xEF, 0xEF, 1, CommonFlashFinishAction);
  EXPECT_EQ(GetFinishAction(), 2);
  EXPECT_NE(Log().find("Call OBLIS failed. Error Code: 0xEF, Retry Count: 03\r\n"), std::string::npos) << Log();
  EXPECT_NE(Log().find("<=== Oblis_44h (BIOS return not success)"), std::string::npos);
  EXPECT_EQ(Log().find("Oblis 44h Status"), std::string::npos);
  EXPECT_EQ(Console(), "") << "44h reports no error on the console";
  CommonFlashFinishAction(nullptr);  // an absent place is left alone
}

}  // namespace
