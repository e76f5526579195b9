// The CommonFlash gate against a faked firmware: the information and switch blocks of function
// 44h byte for byte, what the answer does to the gate and to the final action, and a firmware
// that gives no answer.
#include <gtest/gtest.h>

#include "checks/Checks.h"
#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

using Bytes = std::vector<uint8_t>;

// A platform whose 10h and 11h tell power state, model and version.
void SetUpPlatform(FakeFirmware& fw, uint8_t ac, uint8_t dc, const std::u16string& model, const std::u16string& version) {
  ASSERT_TRUE(InitialSmi());
  fw.handlers[0x10] = [ac, dc](OblisRegisters& r) {
    uint8_t* answer = At(r.edi);
    answer[0] = ac;
    answer[1] = dc;
    answer[2] = 20;
    Answer(r, 0, 1);
  };
  fw.handlers[0x11] = [model, version](OblisRegisters& r) {
    std::memcpy(At(r.edi) + kModelNameOffset, model.data(), model.size() * 2);
    std::memcpy(At(r.edi) + kModelVersionOffset, version.data(), version.size() * 2);
  };
  ASSERT_TRUE(SMI_IsSupport());
  ASSERT_TRUE(FuncOblis_11h());
}

struct Seen44h {
  Bytes information;  // all 1024 bytes at ESI
  Bytes switches;     // EDI up to and including the first 0xFF
  uint32_t ecx = 0xFFFFFFFF;
};

// Function 44h that records what it got and answers permit, message and action.
void Answer44h(FakeFirmware& fw, Seen44h& seen, uint16_t permit, uint16_t message, uint16_t action) {
  fw.handlers[0x44] = [&seen, permit, message, action](OblisRegisters& r) {
    seen.ecx = r.ecx;
    seen.information.assign(At(r.esi), At(r.esi) + 1024);
    seen.switches.clear();
    for (uint32_t i = 0; i < 0x20000; ++i) {
      seen.switches.push_back(At(r.edi)[i]);
      if (At(r.edi)[i] == 0xFF) break;
    }
    uint8_t* answer = At(r.edi);
    PutU32(answer, (uint32_t)permit | ((uint32_t)message << 16));
    answer[4] = (uint8_t)action;
    answer[5] = (uint8_t)(action >> 8);
  };
}

void SetSwitchString(const std::string& text) {
  auto& settings = FakeFirmware::MutableSettings().commonFlash;
  settings.present = true;
  std::memset(settings.switchString, 0, sizeof(settings.switchString));
  std::memcpy(settings.switchString, text.data(), text.size());
}

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }
Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

TEST(CommonFlash, InformationAndSwitchBlocksOnTheWire) {
  const std::u16string longVersion(120, u'9');
  struct Row {
    const char* name;
    uint8_t ac, dc;
    std::u16string model, version;
    std::string switches;
    Bytes information;  // up to its end; zero behind it
    Bytes switchBlock;
  };
  const Row rows[] = {
      {"empty switch text gives the single end byte", 1, 100, u"NB-7", u"2.05", "",
       Cat({{1, 1, 0xFF, 2, 1, 0xFF, 3, 100, 0xFF, 4}, Text("2.05"), {0xFF, 5, 0xFF, 6}, Text("NB-7"), {0xFF, 7, 0xFF}}),
       {0xFF}},
      {"no battery: present and percent both 0", 1, 0x65, u"", u"", "PTEN",
       {1, 1, 0xFF, 2, 0, 0xFF, 3, 0, 0xFF, 4, 0xFF, 5, 0xFF, 6, 0xFF, 7, 0xFF}, Cat({Text("PTEN"), {0, 0xFF}})},
      {"AC other than 1 counts as off; runs of blanks and tabs cut once", 2, 37, u"", u"", " \tACEN  \t PTDIS\tCPVER:2 ",
       {1, 0, 0xFF, 2, 1, 0xFF, 3, 37, 0xFF, 4, 0xFF, 5, 0xFF, 6, 0xFF, 7, 0xFF},
       Cat({Text("ACEN"), {0}, Text("PTDIS"), {0}, Text("CPVER:2"), {0, 0xFF}})},
      {"a version longer than its field is cut at 100 bytes", 0, 0, u"X", longVersion, "FHOS",
       Cat({{1, 0, 0xFF, 2, 1, 0xFF, 3, 0, 0xFF, 4}, Bytes(100, '9'), {0xFF, 5, 0xFF, 6, 'X', 0xFF, 7, 0xFF}}),
       Cat({Text("FHOS"), {0, 0xFF}})},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                SetUpPlatform(fw, row.ac, row.dc, row.model, row.version);
                SetSwitchString(row.switches);
                Seen44h seen;
                Answer44h(fw, seen, 1, 0, 0);
                ASSERT_TRUE(CommonFlashExchange());
                ASSERT_EQ(fw.FramesOf(0x44).size(), 1u);
                EXPECT_EQ(seen.ecx, 0u);
                Bytes expected = row.information;
                expected.resize(1024, 0);
                EXPECT_EQ(seen.information, expected);
                EXPECT_EQ(seen.switches, row.switchBlock);
                // The settings text is still whole: the words were cut in a copy.
                EXPECT_EQ(std::string(Settings()->commonFlash.switchString), row.switches);
              }))
        << row.name;
  }
}

TEST(CommonFlash, AnswerDecidesGateAndFinalAction) {
  struct Row {
    uint16_t permit, message, action;
    int slot;          // ErrorMsg slot filled with "Battery too low", -1 none
    bool gate;
    std::string tail;  // what the console ends with
    uint8_t finalAction;  // [FlashComplete] Action is 2
  };
  const Row rows[] = {
      {1, 0, 3, -1, true, "", 1},
      {1, 0, 2, -1, true, "", 1},
      {1, 0, 1, -1, true, "", 0},
      {1, 0, 0, -1, true, "", 2},
      {1, 0, 4, -1, true, "", 2},
      {0, 3, 3, 3, false, "Warning!\r\nBattery too low\r\n", 2},
      {2, 3, 1, 3, false, "Warning!\r\nBattery too low\r\n", 2},
      {0, 0x13, 0, 0x13, false, "Warning!\r\nBattery too low\r\n", 2},
      {0, 5, 0, 3, false, "Not allow flash.\r\nMessage Number: 0x05", 2},
      {0, 0x14, 0, 3, false, "Not allow flash.\r\nMessage Number: 0x14", 2},
      {0, 0x1A5, 0, -1, false, "Not allow flash.\r\nMessage Number: 0x1A5", 2},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                SetUpPlatform(fw, 1, 100, u"NB-7", u"2.05");
                SetSwitchString("FHST");
                // The settings start with texts in some slots; this table fills its own.
                std::memset(FakeFirmware::MutableSettings().commonFlash.errorMsg, 0,
                            sizeof(FakeFirmware::MutableSettings().commonFlash.errorMsg));
                if (row.slot >= 0) {
                  std::strcpy(FakeFirmware::MutableSettings().commonFlash.errorMsg[row.slot], "Battery too low");
                }
                FakeFirmware::MutableSettings().flashComplete.action = 2;
                Seen44h seen;
                Answer44h(fw, seen, row.permit, row.message, row.action);
                ASSERT_TRUE(CommonFlashExchange());
                EXPECT_TRUE(IsCommonFlashActive());
                std::string before = fw.Console();
                EXPECT_EQ(CommonFlashGate(), row.gate);
                std::string shown = fw.Console().substr(before.size());
                if (row.gate) {
                  EXPECT_EQ(shown, "");
                } else {
                  EXPECT_NE(shown.find("Dovrin ZAPROM"), std::string::npos) << "the short banner comes first";
                  ASSERT_GE(shown.size(), row.tail.size());
                  EXPECT_EQ(shown.substr(shown.size() - row.tail.size()), row.tail);
                }
                SetStatus_16h(0xEF, 0xEF, 1, CommonFlashFinishAction);
                EXPECT_EQ(GetFinishAction(), row.finalAction);
                bool traced = fw.Log().find("Common Flash |") != std::string::npos;
                EXPECT_EQ(traced, row.permit == 1) << "the action is traced only on a permitted run";
              }))
        << "permit " << row.permit << " message " << row.message << " action " << row.action;
  }
}

TEST(CommonFlash, StatusTraceShowsTheRawAnswer) {
  FakeFirmware fw;
  SetUpPlatform(fw, 1, 100, u"NB-7", u"2.05");
  SetSwitchString("");
  Seen44h seen;
  Answer44h(fw, seen, 2, 0x1A, 3);
  ASSERT_TRUE(CommonFlashExchange());
  EXPECT_NE(fw.Log().find(" Oblis 44h Status\r\n ---------+--------\r\n    permit  2\r\n  message#  0x1A\r\n"
                          "    action  3\r\n"),
            std::string::npos)
      << fw.Log();
  EXPECT_FALSE(CommonFlashGate()) << "a permit of 2 is no permission";
}

TEST(CommonFlash, FirmwareWithoutTheFunctionLeavesTheGateOff) {
  FakeFirmware fw;
  FakeFirmware::MutableSettings().others.smiErrorRetry = 2;
  SetUpPlatform(fw, 0, 0x65, u"NB-7", u"2.05");
  SetSwitchString("ACDIS");
  FakeFirmware::MutableSettings().flashComplete.action = 2;
  fw.AnswerCodes(0x44, {0xEF});
  EXPECT_TRUE(CommonFlashExchange()) << "only a failed allocation is false";
  EXPECT_EQ(fw.FramesOf(0x44).size(), 3u) << "every attempt of the retry loop";
  EXPECT_FALSE(IsCommonFlashActive());
  EXPECT_TRUE(CommonFlashGate());
  SetStatus_16h(0xEF, 0xEF, 1, CommonFlashFinishAction);
  EXPECT_EQ(GetFinishAction(), 2);
  const std::string log = fw.Log();
  EXPECT_NE(log.find("Call OBLIS failed. Error Code: 0xEF, Retry Count: 03\r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("<=== Oblis_44h (BIOS return not success)"), std::string::npos);
  EXPECT_EQ(log.find("Oblis 44h Status"), std::string::npos);
  EXPECT_EQ(fw.Console(), "") << "44h reports no error on the console";
}

TEST(CommonFlash, FinishActionLeavesAnAbsentPlaceAlone) {
  FakeFirmware fw;
  SetUpPlatform(fw, 1, 100, u"NB-7", u"2.05");
  SetSwitchString("");
  Seen44h seen;
  Answer44h(fw, seen, 1, 0, 3);
  ASSERT_TRUE(CommonFlashExchange());
  CommonFlashFinishAction(nullptr);
  UINT8 action = 2;
  CommonFlashFinishAction(&action);
  EXPECT_EQ(action, 1);
  EXPECT_NE(fw.Log().find("Common Flash |1|\r\n"), std::string::npos);
}

}  // namespace
