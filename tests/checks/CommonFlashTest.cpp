// The CommonFlash gate: the information and switch blocks of function 44h byte for byte, what
// the answer does to the gate and to the final action, and a firmware without the function.
#include <string>

#include "checks/ChecksBed.h"
#include "config/Config.h"

namespace {

using checks::At;
using checks::Bytes;
using checks::Cat;

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

class CommonFlash : public checks::ChecksBed {
 protected:
  void Start(uint8_t ac, uint8_t dc, const std::u16string& version, const std::string& ini) {
    Install(Layout());
    checks::Platform p;
    p.ac = ac;
    p.dc = dc;
    p.model = u"NB-7";
    p.version = version;
    Boot(p);
    Ini(ini);
  }
  // Function 44h keeps what it got and answers permit, message and action.
  void Answer44h(uint16_t permit, uint16_t message, uint16_t action) {
    answers[0x44] = [this, permit, message, action](OblisRegisters& r) {
      ecx = r.ecx;
      information.assign(At(r.esi), At(r.esi) + 1024);
      switches.clear();
      for (uint32_t i = 0; i < 0x20000 && (switches.empty() || switches.back() != 0xFF); ++i)
        switches.push_back(At(r.edi)[i]);
      const uint8_t answer[] = {(uint8_t)permit, (uint8_t)(permit >> 8), (uint8_t)message,
                                (uint8_t)(message >> 8), (uint8_t)action, (uint8_t)(action >> 8)};
      std::memcpy(At(r.edi), answer, sizeof(answer));
    };
  }
  Bytes information, switches;
  uint32_t ecx = 0xFFFFFFFF;
};

TEST_F(CommonFlash, InformationAndSwitchBlocksOnTheWire) {
  struct Row {
    uint8_t ac, dc;
    std::u16string version;
    std::string switchString;
    Bytes information;  // up to its end; zero behind it
    Bytes switchBlock;
  };
  const Row rows[] = {
      {1, 100, u"2.05", "",
       Cat({{1, 1, 0xFF, 2, 1, 0xFF, 3, 100, 0xFF, 4}, Text("2.05"), {0xFF, 5, 0xFF, 6}, Text("NB-7"), {0xFF, 7, 0xFF}}),
       {0xFF}},
      // No battery: present and percent both 0.
      {1, 0x65, u"", "PTEN", Cat({{1, 1, 0xFF, 2, 0, 0xFF, 3, 0, 0xFF, 4, 0xFF, 5, 0xFF, 6}, Text("NB-7"), {0xFF, 7, 0xFF}}),
       Cat({Text("PTEN"), {0, 0xFF}})},
      // AC other than 1 counts as off; a run of blanks and tabs cuts once.
      {2, 37, u"", "ACEN  \t PTDIS\tCPVER:2",
       Cat({{1, 0, 0xFF, 2, 1, 0xFF, 3, 37, 0xFF, 4, 0xFF, 5, 0xFF, 6}, Text("NB-7"), {0xFF, 7, 0xFF}}),
       Cat({Text("ACEN"), {0}, Text("PTDIS"), {0}, Text("CPVER:2"), {0, 0xFF}})},
      // A version longer than its field is cut at 100 bytes.
      {0, 0, std::u16string(120, u'9'), "FHOS",
       Cat({{1, 0, 0xFF, 2, 1, 0xFF, 3, 0, 0xFF, 4}, Bytes(100, '9'), {0xFF, 5, 0xFF, 6}, Text("NB-7"), {0xFF, 7, 0xFF}}),
       Cat({Text("FHOS"), {0, 0xFF}})},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.switchString);
    Start(row.ac, row.dc, row.version, "[CommonFlash]\nSwitchString=" + row.switchString + "\n");
    const std::string loaded = Settings()->commonFlash.switchString;
    Answer44h(1, 0, 0);
    ASSERT_TRUE(CommonFlashExchange());
    EXPECT_EQ(SmiCallsOf(0x44).size(), 1u);
    EXPECT_EQ(ecx, 0u);
    Bytes expected = row.information;
    expected.resize(1024, 0);
    EXPECT_EQ(information, expected);
    EXPECT_EQ(switches, row.switchBlock);
    EXPECT_EQ(Settings()->commonFlash.switchString, loaded) << "the words are cut in a copy";
  }
}

TEST_F(CommonFlash, AnswerDecidesGateAndFinalAction) {
  struct Row {
    uint16_t permit, message, action;
    std::string slots;  // ErrorMsg keys
    bool gate;
    std::string tail;     // what the console ends with
    uint8_t finalAction;  // [FlashComplete] Action is 2
  };
  const std::string low = "Warning!\r\nBattery too low\r\n";
  const Row rows[] = {
      {1, 0, 3, "", true, "", 1},
      {1, 0, 2, "", true, "", 1},
      {1, 0, 1, "", true, "", 0},
      {1, 0, 0, "", true, "", 2},
      {1, 0, 4, "", true, "", 2},
      {0, 3, 3, "ErrorMsg03=Battery too low\n", false, low, 2},
      {2, 3, 1, "ErrorMsg03=Battery too low\n", false, low, 2},
      {0, 0x13, 0, "ErrorMsg13=Battery too low\n", false, low, 2},
      {0, 5, 0, "ErrorMsg03=Battery too low\n", false, "Not allow flash.\r\nMessage Number: 0x05", 2},
      {0, 0x14, 0, "ErrorMsg03=Battery too low\n", false, "Not allow flash.\r\nMessage Number: 0x14", 2},
      {0, 0x1A5, 0, "", false, "Not allow flash.\r\nMessage Number: 0x1A5", 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "permit " << row.permit << " message " << row.message << " action " << row.action);
    Start(1, 100, u"2.05", "[CommonFlash]\nSwitchString=FHST\n" + row.slots + "[FlashComplete]\nAction=2\n");
    Answer44h(row.permit, row.message, row.action);
    ASSERT_TRUE(CommonFlashExchange());
    EXPECT_TRUE(IsCommonFlashActive());
    EXPECT_EQ(CommonFlashGate(), row.gate);
    const std::string shown = Console();
    if (row.gate) EXPECT_EQ(shown, "");
    if (!row.gate) {
      EXPECT_NE(shown.find("Dovrin ZAPROM"), std::string::npos) << "the short banner comes first";
      ASSERT_GE(shown.size(), row.tail.size());
      EXPECT_EQ(shown.substr(shown.size() - row.tail.size()), row.tail);
    }
    SetStatus_16h(0xEF, 0xEF, 1, CommonFlashFinishAction);
    EXPECT_EQ(GetFinishAction(), row.finalAction);
    EXPECT_EQ(Log().find("Common Flash |") != std::string::npos, row.permit == 1) << "traced on a permitted run only";
  }
}

TEST_F(CommonFlash, StatusTraceShowsTheRawAnswer) {
  Start(1, 100, u"2.05", "[CommonFlash]\n");
  Answer44h(2, 0x1A, 3);
  ASSERT_TRUE(CommonFlashExchange());
  EXPECT_NE(Log().find(" Oblis 44h Status\r\n ---------+--------\r\n    permit  2\r\n  message#  0x1A\r\n"
                       "    action  3\r\n"),
            std::string::npos)
      << Log();
  EXPECT_FALSE(CommonFlashGate()) << "a permit of 2 is no permission";
  CommonFlashFinishAction(nullptr);  // an absent place is left alone
}

TEST_F(CommonFlash, FirmwareWithoutTheFunctionLeavesTheGateOff) {
  Start(0, 0x65, u"2.05", "[CommonFlash]\nSwitchString=ACDIS\n[Others]\nSMIErrorRetry=2\nSMIErrorRetryDelay=1\n");
  AnswerCodes(0x44, {0xEF});
  EXPECT_TRUE(CommonFlashExchange()) << "only a failed allocation is false";
  EXPECT_EQ(SmiCallsOf(0x44).size(), 3u) << "every attempt of the retry loop";
  EXPECT_FALSE(IsCommonFlashActive());
  EXPECT_TRUE(CommonFlashGate());
  SetStatus_16h(0xEF, 0xEF, 1, CommonFlashFinishAction);
  EXPECT_EQ(GetFinishAction(), 2);
  const std::string log = Log();
  EXPECT_NE(log.find("Call OBLIS failed. Error Code: 0xEF, Retry Count: 03\r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("<=== Oblis_44h (BIOS return not success)"), std::string::npos);
  EXPECT_EQ(log.find("Oblis 44h Status"), std::string::npos);
  EXPECT_EQ(Console(), "") << "44h reports no error on the console";
}

}  // namespace
