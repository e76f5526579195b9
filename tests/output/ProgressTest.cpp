// The progress bar on row 21: the exact calls a draw makes, the redraw rule, the elapsed time
// from the timer, and the block map that reaches the trace.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FakeFirmware.h"
#include "LogHarness.h"
#include "config/Config.h"
#include "output/Output.h"

namespace {

EFI_STATUS EFIAPI RecordCursor(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, BOOLEAN visible) {
  fake::Current()->calls.push_back(visible ? "CursorOn" : "CursorOff");
  return EFI_SUCCESS;
}

void SetElapse(bool on) { const_cast<FlashSettings*>(Settings())->ui.elapse = on; }

std::string Blanks(int n) { return "\r" + std::string(n > 0 ? n : 0, ' '); }

std::vector<std::string> Draw(int width, const std::string& number, int filled) {
  return {"CursorOff",         "Cursor:" + std::to_string(width) + ",21", "Out:" + number, "Cursor:0,21",
          "Attr:1F",           "Out:" + Blanks(width - 1),                 "Attr:7F",       "Out:" + Blanks(filled - 1),
          "Attr:0F"};
}

TEST(Progress, ShowProgressDrawsTheBarOnRow21) {
  struct Row {
    bool elapse;
    int percent;
    std::vector<std::string> calls;
  } rows[] = {
      {false, 0, Draw(75, "  0%", 0)},
      {false, 50, Draw(75, " 50%", 37)},
      {false, 100, Draw(75, "100%", 75)},
      {false, 1, Draw(75, "  1%", 0)},
      {true, 50, Draw(68, " 50%, 0sec", 34)},
      {true, 100, Draw(68, "100%, 0sec", 68)},
  };
  for (const Row& row : rows) {
    fake::Firmware f;
    fake::Install(f);
    f.conOut.EnableCursor = RecordCursor;
    SetElapse(row.elapse);
    ShowProgress((UINT8)row.percent);
    EXPECT_EQ(f.calls, row.calls) << row.percent << (row.elapse ? " with time" : "");
  }
}

TEST(Progress, SamePercentAgainRenewsOnlyTheNumber) {
  fake::Firmware f;
  fake::Install(f);
  f.conOut.EnableCursor = RecordCursor;
  SetElapse(false);
  ShowProgress(40);
  f.calls.clear();
  ShowProgress(40);
  EXPECT_EQ(f.calls, (std::vector<std::string>{"CursorOff", "Cursor:75,21", "Out: 40%", "Attr:0F"}));
}

TEST(Progress, ElapsedSecondsComeFromTheTimeStampCounter) {
  log_test::LogVolume volume;
  SetElapse(true);
  StartProgressTimer();
  gBS->Stall(3500000);
  ShowProgress(10);
  gBS->Stall(9000000);
  ShowProgress(20);
  std::string text = volume.Environment().ConsoleTranscript();
  EXPECT_NE(text.find(" 10%, 3sec"), std::string::npos) << text;
  EXPECT_NE(text.find(" 20%,12sec"), std::string::npos) << text;
  EXPECT_EQ(text.find("Locate protocol failed"), std::string::npos);
  // The bar stands on row 21 of the screen, the number behind it at column 68.
  std::string screen = volume.Environment().ScreenText();
  size_t row = 0, at = 0;
  while (row < 21 && at != std::string::npos) at = screen.find('\n', at) + 1, ++row;
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(screen.substr(at + 68, 10), " 20%,12sec") << screen;
}

TEST(Progress, WithoutTheTimerTheUpdateGoesOn) {
  fake::Firmware f;
  fake::Install(f);
  f.bootServices.LocateProtocol = [](const EFI_GUID*, VOID*, VOID** interface) -> EFI_STATUS {
    *interface = nullptr;
    return EFI_NOT_FOUND;
  };
  SetElapse(true);
  StartProgressTimer();
  ShowProgress(30);
  EXPECT_EQ(f.output.front(), u"Locate protocol failed\r\n");
  EXPECT_EQ(f.calls[2], "Out: 30%, 0sec");
}

}  // namespace

#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"

namespace {

// 200 blocks of 4 KB, the first 16 under a protection region of type 6 (NV Storage).
TEST(Progress, BlockMapWritesFullGroupsOf128WithTheirMarks) {
  oblistest::FakeFirmware fw;
  ASSERT_TRUE(InitialSmi());
  fw.AnswerFlashPart(4, {{0x10, 200}});  // a 1 MB part of which 200 blocks are listed
  ASSERT_TRUE(FuncOblis_13h());
  UINT32 base = GetRomBase();
  fw.AnswerPlatformMaps({}, {{6, base, 0x10000}});
  ASSERT_TRUE(SMI_GetPlatformRomMap());
  MarkBlocks(base, base + 0xFFFF, 1);
  for (UINT32 i = 0; i < 200; i++) AddBlockMark(base + i * 0x1000, i < 16 ? u'.' : (i == 20 ? 0 : u'V'));
  std::string log = fw.Log();
  EXPECT_EQ(oblistest::CountOf(log, " Hex |base32\r\n-----+------\r\n  Fh |  f\r\n"), 1u);
  EXPECT_EQ(oblistest::CountOf(log, "[ "), 8u) << "128 of 200 blocks reach the trace" << log;
  char first[160];
  std::snprintf(first, sizeof first,
                "[        0 ] %08X:              RRRRRRRR - RRRRRRRR    ........ - ........    66666666 - 66666666    \r\n",
                base);
  EXPECT_NE(log.find(first), std::string::npos) << log;
  // A mark of 0 ends the marks column at its place.
  char second[160];
  std::snprintf(second, sizeof second,
                "[    10000 ] %08X:              ........ - ........    VVVV    ........ - ........    \r\n", base + 0x10000);
  EXPECT_NE(log.find(second), std::string::npos) << log;
}

}  // namespace
