// What the block writer records of a block for the trace's block map, from the real maps.
#include <gtest/gtest.h>

#include <cstdio>

#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "support/Isolated.h"
#include "update/Update.h"

namespace {

// The writer's facts from the real maps: a private and a protection range as function 12h gives
// them, two flagged blocks in the table of function 13h.
TEST(BlockMapFacts, BlockFactsComeFromTheProtectionAndPrivateMaps) {
  EXPECT_EQ(0, RunIsolated([] {
    oblistest::FakeFirmware fw;
    ASSERT_TRUE(InitialSmi());
    fw.AnswerFlashPart(4, {{0x10, 128}});
    ASSERT_TRUE(FuncOblis_13h());
    UINT32 base = GetRomBase();
    fw.AnswerPlatformMaps({{0, base + 0x6000, 0x3000}, {0, base + 0xF000, 0}}, {{0x1D, base + 0x2000, 0x2000}});
    ASSERT_TRUE(SMI_GetPlatformRomMap());
    MarkBlocks(base, base + 0x1FFF, 1);
    for (UINT32 i = 0; i < 128; i++) AddBlockMark(DescribeBlock(base + i * 0x1000, 'V'));
    char line[200];
    std::snprintf(line, sizeof line, "[        0 ] %08X:              RR...... - ........    VVVVVVVV - VVVVVVVV    ..tt..## - #.......    \r\n", base);
    EXPECT_NE(fw.Log().find(line), std::string::npos) << fw.Log();
  }));
}

}  // namespace
