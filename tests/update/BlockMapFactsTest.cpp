// What the block writer records of a block for the trace's block map, from the real maps.
#include <gtest/gtest.h>

#include <cstdio>

#include "oblis/Oblis.h"
#include "output/Output.h"
#include "support/DriverBed.h"
#include "update/Update.h"

namespace {

class BlockMapFacts : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override { return {.firmware = bed::Firmware::Scripted}; }
};

// A private and a protection range as function 12h gives them, two flagged blocks in the table
// of function 13h: 'R' flagged, 't' a protection type's digit, '#' private.
TEST_F(BlockMapFacts, BlockFactsComeFromTheProtectionAndPrivateMaps) {
  ASSERT_TRUE(InitialSmi());
  answers[0x13] = bed::FlashPartAnswer(4, {{0x10, 128}});
  ASSERT_TRUE(FuncOblis_13h());
  UINT32 base = GetRomBase();
  answers[0x12] = bed::PlatformMapsAnswer({{0, base + 0x6000, 0x3000}, {0, base + 0xF000, 0}}, {{0x1D, base + 0x2000, 0x2000}});
  ASSERT_TRUE(SMI_GetPlatformRomMap());
  MarkBlocks(base, base + 0x1FFF, 1);
  for (UINT32 i = 0; i < 128; i++) AddBlockMark(DescribeBlock(base + i * 0x1000, 'V'));
  char line[200];
  std::snprintf(line, sizeof line,
                "[        0 ] %08X:              RR...... - ........    VVVVVVVV - VVVVVVVV    ..tt..## - #.......    \r\n", base);
  EXPECT_NE(Log().find(line), std::string::npos) << Log();
}

}  // namespace
