// The progress bar on row 21 (the exact calls a draw makes, the redraw rule, the elapsed time)
// and the block map that reaches the trace, line by line.
#include <gtest/gtest.h>

#include <algorithm>

#include "config/ConfigInternal.h"
#include "output/OutputInternal.h"
#include "support/DriverBed.h"

namespace {

std::string Blanks(int n) { return "\r" + std::string(n > 0 ? n : 0, ' '); }
std::vector<std::string> Draw(int width, const std::string& number, int filled) {
  return {"CursorOff", "Cursor:" + std::to_string(width) + ",21", "Out:" + number, "Cursor:0,21", "Attr:1F",
          "Out:" + Blanks(width - 1), "Attr:7F", "Out:" + Blanks(filled - 1), "Attr:0F"};
}

// A recording console, and the trace at level 4 for the block map.
class Progress : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override { return {.firmware = bed::Firmware::Scripted, .recordConsole = true}; }
  bool Shown(const std::string& call) const {
    return std::find(consoleCalls.begin(), consoleCalls.end(), call) != consoleCalls.end();
  }
};

TEST_F(Progress, ShowProgressDrawsTheBarOnRow21AndRedrawsOnlyANewPercentage) {
  struct Row {
    bool elapse;
    std::vector<int> percents;  // the calls of the last are compared
    std::vector<std::string> calls;
  } rows[] = {
      {false, {0}, Draw(75, "  0%", 0)},       {false, {50}, Draw(75, " 50%", 37)}, {false, {100}, Draw(75, "100%", 75)},
      {false, {1}, Draw(75, "  1%", 0)},       {false, {120}, Draw(75, "100%", 75)},
      {true, {50}, Draw(68, " 50%, 0sec", 34)}, {true, {100}, Draw(68, "100%, 0sec", 68)},
      {false, {40, 40}, {"CursorOff", "Cursor:75,21", "Out: 40%", "Attr:0F"}},
  };
  for (const Row& row : rows) {
    Install(Layout());
    MutableSettings()->ui.elapse = row.elapse;
    for (int percent : row.percents) consoleCalls.clear(), ShowProgress((UINT8)percent);
    EXPECT_EQ(consoleCalls, row.calls) << row.percents.back() << (row.elapse ? " with time" : "");
  }
  Install(Layout());  // the seconds come from the time-stamp counter
  MutableSettings()->ui.elapse = true;
  StartProgressTimer();
  gBS->Stall(3500000), ShowProgress(10), gBS->Stall(9000000), ShowProgress(20);
  EXPECT_TRUE(Shown("Out: 10%, 3sec") && Shown("Out: 20%,12sec") && !Shown("Out:Locate protocol failed\r\n"));
  Environment().SystemTable()->BootServices->LocateProtocol = [](const EFI_GUID*, VOID*, VOID**) -> EFI_STATUS { return EFI_NOT_FOUND; };
  StartProgressTimer(), ShowProgress(30);  // without the timer the update goes on
  EXPECT_TRUE(Shown("Out:Locate protocol failed\r\n") && Shown("Out: 30%, 0sec"));
}

// A block as the writer records it. region: 'R' flagged, a digit: flagged and in a protection region
// of type 10h + digit, '#': private. external: the name of the external region, "" none, null no regions.
BlockMapEntry Block(UINT32 i, UINT16 mark, char region = 0, const CHAR16* external = nullptr) {
  BlockMapEntry entry = {0xFF000000u + i * 0x1000, i * 0x1000, mark, region != 0 && region != '#',
                         region >= '0' && region <= '9', (UINT8)(0x10 + region - '0'), region == '#',
                         external != nullptr, kNoExternalRegion, external, 200};
  if (external != nullptr && external[0] != 0) entry.externalType = external[0] == u'B' ? 1 : 2;
  return entry;
}

TEST_F(Progress, BlockMapLineShowsProtectionMarksRegionsAndTheExternalRegion) {
  struct Row {
    const char* what;
    BlockMapEntry (*block)(UINT32 i);
    std::string expected;  // behind "[        0 ] FF000000:              "
  } rows[] = {
      {"plain blocks, all written", [](UINT32 i) { return Block(i, 'W'); },
       "........ - ........    WWWWWWWW - WWWWWWWW    ........ - ........    \r\n"},
      {"a protection region of type 16h, the rest private, the BVDT block held back",
       [](UINT32 i) { return i < 4 ? Block(i, '.', '6') : Block(i, i == 15 ? 'X' : 'V', '#'); },
       "RRRR.... - ........    ....VVVV - VVVVVVVX    mmmm#### - ########    \r\n"},
      {"flagged without a region, and a mark of 0 ends the marks column", [](UINT32 i) { return Block(i, i == 5 ? 0 : 'S', i ? 0 : 'R'); },
       "R....... - ........    SSSSS    ........ - ........    \r\n"},
      {"protection types 1Fh and 20h: the last base-32 digit, then none",
       [](UINT32 i) {
         BlockMapEntry entry = Block(i, 'W', '0');
         entry.protectionType = i < 8 ? 0x1F : 0x20;
         return entry;
       },
       "RRRRRRRR - RRRRRRRR    WWWWWWWW - WWWWWWWW    vvvvvvvv - ????????    \r\n"},
      {"one external region on the whole line", [](UINT32 i) { return Block(i, 'V', 0, u"BIOS"); },
       "........ - ........    VVVVVVVV - VVVVVVVV    ........ - ........    [ BIOS            ]\r\n"},
      {"two external regions, and blocks in none", [](UINT32 i) { return Block(i, 'V', 0, i < 8 ? u"BIOS" : i < 12 ? u"ME" : u""); },
       "........ - ........    VVVVVVVV - VVVVVVVV    ........ - ........    BBBBBBBB - MMMM....\r\n"},
  };
  for (const Row& row : rows) {
    Install(Layout());  // the map is taken once per run
    for (int i = 0; i < 128; i++) AddBlockMark(row.block(i % 16));  // a group of 128 reaches the trace
    std::string log = Log();
    size_t start = log.find(" 1Fh |  v\r\n") + 11;
    // The eight lines of the group, each whole to its CR LF.
    std::string group;
    for (int line = 0; line < 8; line++) group += "[        0 ] FF000000:              " + row.expected;
    EXPECT_EQ(log.substr(start, group.size()), group) << row.what;
  }
}

}  // namespace
