// The protected flag per block: marking by first byte, the flag at an address, the marking of
// SetRsvd_13h from maps, options and settings, and the block table display in the trace.
#include <gtest/gtest.h>

#include "FakeFirmware.h"
#include "checks/Checks.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

constexpr uint32_t kBase = 0xFFFF0000u;  // 64 KB ROM, sixteen 4 KB blocks
constexpr uint32_t kBlock = 0x1000;

uint32_t BlockAt(int index) { return kBase + index * kBlock; }

// One character a block of the 64 KB part: '.' open, 'R' protected.
std::string FlagString() {
  FlashBlock* table = CopyBlockTable();
  std::string flags;
  for (uint32_t i = 0; i < GetBlockCount(); i++) flags.push_back(table[i].protectedFlag ? 'R' : '.');
  FreePoolAndNull(table);
  return flags;
}

void BuildSixteenBlocks(FakeFirmware& fw) {
  fw.AnswerFlashPart(0, {{0x10, 16}});
  ASSERT_TRUE(FuncOblis_13h());
  ASSERT_EQ(GetRomBase(), kBase);
}

TEST(BlockMarking, MarkBlocksTestsFirstBytesOnly) {
  struct Mark {
    uint32_t start, end;
    uint8_t flag;
  };
  struct Row {
    const char* what;
    std::vector<Mark> marks;
    const char* flags;
  };
  const Row rows[] = {
      {"one whole block", {{BlockAt(1), BlockAt(2) - 1, 1}}, ".R.............."},
      {"starting one byte behind a block start leaves it", {{BlockAt(1) + 1, BlockAt(3) - 1, 1}}, "..R............."},
      {"ending inside a block marks it whole", {{BlockAt(1), BlockAt(2), 1}}, ".RR............."},
      {"a single byte at a block start", {{BlockAt(15), BlockAt(15), 1}}, "...............R"},
      {"flag 0 reopens", {{kBase, 0xFFFFFFFFu, 1}, {BlockAt(4), BlockAt(5) + 10, 0}}, "RRRR..RRRRRRRRRR"},
      {"a range below the ROM marks nothing", {{0x1000, 0xFFFEFFFFu, 1}}, "................"},
      {"start above end marks nothing", {{BlockAt(3), BlockAt(1), 1}}, "................"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                BuildSixteenBlocks(fw);
                for (const Mark& m : row.marks) MarkBlocks(m.start, m.end, m.flag);
                EXPECT_EQ(FlagString(), row.flags) << row.what;
              }))
        << row.what;
  }
}

struct SetRsvdRow {
  const char* what;
  std::function<void()> options;
  bool allowAlp;
  bool secureBoot;
  bool bvdtImage;
  const char* flags;
  std::vector<std::string> traces;
};

std::vector<uint8_t> ImageWithRegionMap() {
  std::vector<uint8_t> image(0x40, 0x11);
  auto sig = Bytes("$OBLIS");
  image.insert(image.end(), sig.begin(), sig.end());
  auto record = [&](uint8_t type, uint32_t address, uint32_t size) {
    image.push_back(type);
    PutU32(image, image.size(), address);
    PutU32(image, image.size(), size);
    image.push_back(0);
  };
  record(0x03, BlockAt(9), kBlock);
  record(0xFE, BlockAt(12), kBlock);
  image.push_back(0xFF);
  return image;
}

void RunSetRsvdRow(const SetRsvdRow& row) {
  FakeFirmware fw;
  ASSERT_TRUE(InitialSmi());
  if (row.allowAlp) {
    fw.AnswerAllowAlp();
    ASSERT_TRUE(FuncOblis_11h());
    ASSERT_TRUE(AllowAlpCommand());
  }
  if (row.secureBoot) fw.SetSecureBoot();
  fw.AnswerWholeMap({{0x06, BlockAt(6), 2 * kBlock}, {0x16, BlockAt(4), kBlock}});
  ASSERT_TRUE(SMI_GetWholeRomMap(nullptr, nullptr));
  fw.AnswerPlatformMaps({{0xFE, BlockAt(0), kBlock}},
                        {{0x01, BlockAt(2), kBlock}, {0x16, BlockAt(4), kBlock}, {0x06, BlockAt(6), kBlock}});
  ASSERT_TRUE(SMI_GetPlatformRomMap());
  BuildSixteenBlocks(fw);
  if (row.bvdtImage) {
    std::vector<uint8_t> image = ImageWithRegionMap();
    ASSERT_TRUE(LoadBvdtMap(image.data(), (UINT32)image.size()));
  }
  row.options();
  SetRsvd_13h(IsSecureBootSupport);
  EXPECT_EQ(FlagString(), row.flags) << row.what;
  std::string log = fw.Log();
  for (const std::string& line : row.traces) EXPECT_NE(log.find(line), std::string::npos) << row.what << "\n" << log;
  EXPECT_EQ(fw.FramesOf(0x1E).size(), 1u) << "the 1Eh map is the one fetched at set-up";
}

// The platform's maps for every row: private block 0; protection Microcode (block 2), Factory
// Copy (block 4), NV Storage (block 6). The 1Eh map: NV Storage over blocks 6 and 7, Factory Copy
// over block 4.
TEST(BlockMarking, SetRsvdMarksFromMapsOptionsAndSettings) {
  auto& flags = FakeFirmware::MutableFlags;
  auto& settings = FakeFirmware::MutableSettings;
  const SetRsvdRow rows[] = {
      {"plain: private and protection regions closed", [] {}, false, false, false, "R.R.R.R.........",
       {"Protect private region (FFFF0000 ~ FFFF0FFF)\r\n",
        " Protection Region Map\r\n----------+-----+----------\r\n Reserved | 01h | CPU Microcode\r\n"
        " Reserved | 16h | Factory Copy\r\n Reserved | 06h | NV Storage\r\n"}},
      {"-all keeps private regions closed", [&] { flags().all = true; }, false, false, false, "R...............",
       {" |all=1|\r\n"}},
      {"[ForceFlash] ALL does the same", [&] { settings().forceFlash.all = true; }, false, false, false,
       "R...............", {" |all=1|\r\n"}},
      {"-alp on a platform that allows it opens both", [&] { flags().alp = true; }, true, false, false,
       "................", {"ALP |enable|\r\n"}},
      {"[ForceFlash] ALP on such a platform", [&] { settings().forceFlash.alp = true; }, true, false, false,
       "................", {"ALP |enable|\r\n"}},
      {"-alp without the allow flag changes nothing", [&] { flags().alp = true; }, false, false, false,
       "R.R.R.R.........", {}},
      {"-all on Secure Boot still closes NV storage", [&] { flags().all = true; }, false, true, false,
       "R.....RR........", {}},
      {"-all -unvs on Secure Boot leaves NV storage open", [&] { flags().all = flags().unvs = true; }, false, true,
       false, "R...............", {"update region NV |enable|\r\n"}},
      {"-unvs reopens NV storage the list closed", [&] { flags().unvs = true; }, false, false, false,
       "R.R.R...........", {"update region NV |enable|\r\n"}},
      {"[SecurityFlashFactoryUpdate] UpdateNvStorage",
       [&] { settings().securityFlashFactoryUpdate.updateNvStorage = true; }, false, true, false, "R.R.R...........",
       {}},
      {"-ft:16 with -ufc: skipped and cleared alike", [&] { flags().typeFlags[0x16] = flags().ufc = true; }, false,
       false, false, "R.R...R.........", {"   Skip   | 16h | Factory Copy\r\n"}},
      {"-ufc alone reopens the factory copy", [&] { flags().ufc = true; }, false, false, false, "R.R...R.........",
       {" Reserved | 16h | Factory Copy\r\n"}},
      {"[ForceFlash] type flag skips the microcode", [&] { settings().forceFlash.forceTypes[0x01] = true; }, false,
       false, false, "R...R.R.........", {"   Skip   | 01h | CPU Microcode\r\n"}},
      {"UseBvdtRomMap with a map in the image takes the image's regions",
       [&] { settings().forceFlash.useBvdtRomMap = true; }, false, false, true, ".........R..R...",
       {"Protect private region (FFFFC000 ~ FFFFCFFF)\r\n", " Reserved | 03h | DXE\r\n"}},
      {"UseBvdtRomMap without a map in the image keeps the platform's",
       [&] { settings().forceFlash.useBvdtRomMap = true; }, false, false, false, "R.R.R.R.........", {}},
  };
  for (const SetRsvdRow& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] { RunSetRsvdRow(row); })) << row.what;
  }
}

}  // namespace
