// SetRsvd_13h: which blocks the platform's maps close, and how the options, the settings, Secure
// Boot and a region map in the image change that, with the trace lines that say so.
#include <gtest/gtest.h>

#include "checks/Checks.h"
#include "oblis/Oblis.h"
#include "support/DriverBed.h"

namespace {

using bed::Bytes;

class BlockMarking : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override { return {.firmware = bed::Firmware::Scripted}; }
};

constexpr uint32_t kBase = 0xFFFF0000u;  // 64 KB ROM, sixteen 4 KB blocks
constexpr uint32_t kBlock = 0x1000;
uint32_t BlockAt(int index) { return kBase + index * kBlock; }

std::vector<uint8_t> ImageWithRegionMap() {
  std::vector<uint8_t> image(0x40, 0x11);
  for (uint8_t b : Bytes("$OBLIS")) image.push_back(b);
  for (auto [type, block] : {std::pair<uint8_t, int>{0x03, 9}, {0xFE, 12}}) {
    uint8_t record[10] = {type};
    bed::PutU32(record + 1, BlockAt(block));
    bed::PutU32(record + 5, kBlock);
    image.insert(image.end(), record, record + 10);
  }
  image.push_back(0xFF);
  return image;
}

// The platform's maps for every row: private block 0; protection Microcode (block 2), Factory
// Copy (block 4), NV Storage (block 6). The 1Eh map: NV Storage over blocks 6 and 7, Factory Copy
// over block 4.
TEST_F(BlockMarking, SetRsvdMarksFromMapsOptionsAndSettings) {
  struct Row {
    const char* what;
    std::vector<std::u16string> options;
    const char* ini;
    bool allowAlp, secureBoot, bvdtImage;
    const char* flags;
    std::vector<std::string> traces;
  };
  const Row rows[] = {
      {"plain: private and protection regions closed", {}, "", false, false, false, "R.R.R.R.........",
       {"Protect private region (FFFF0000 ~ FFFF0FFF)\r\n",
        " Protection Region Map\r\n----------+-----+----------\r\n Reserved | 01h | CPU Microcode\r\n"
        " Reserved | 16h | Factory Copy\r\n Reserved | 06h | NV Storage\r\n"}},
      {"-all keeps private regions closed", {u"-all"}, "", false, false, false, "R...............", {" |all=1|\r\n"}},
      {"[ForceFlash] ALL does the same", {}, "[ForceFlash]\nALL=1\n", false, false, false, "R...............",
       {" |all=1|\r\n"}},
      {"-alp on a platform that allows it opens both", {u"-alp"}, "", true, false, false, "................",
       {"ALP |enable|\r\n"}},
      {"[ForceFlash] ALP on such a platform", {}, "[ForceFlash]\nALP=1\n", true, false, false, "................",
       {"ALP |enable|\r\n"}},
      {"-alp without the allow flag changes nothing", {u"-alp"}, "", false, false, false, "R.R.R.R.........", {}},
      {"-all on Secure Boot still closes NV storage", {u"-all"}, "", false, true, false, "R.....RR........", {}},
      {"-all -unvs on Secure Boot leaves NV storage open", {u"-all", u"-unvs"}, "", false, true, false,
       "R...............", {"update region NV |enable|\r\n"}},
      {"-unvs reopens NV storage the list closed", {u"-unvs"}, "", false, false, false, "R.R.R...........",
       {"update region NV |enable|\r\n"}},
      {"[SecurityFlashFactoryUpdate] UpdateNvStorage", {}, "[SecurityFlashFactoryUpdate]\nUpdateNvStorage=1\n", false,
       true, false, "R.R.R...........", {}},
      {"-ft:16 with -ufc: skipped and cleared alike", {u"-ft:16", u"-ufc"}, "", false, false, false,
       "R.R...R.........", {"   Skip   | 16h | Factory Copy\r\n"}},
      {"-ufc alone reopens the factory copy", {u"-ufc"}, "", false, false, false, "R.R...R.........",
       {" Reserved | 16h | Factory Copy\r\n"}},
      {"[SecurityFlashFactoryUpdate] UpdateFactoryCopy", {}, "[SecurityFlashFactoryUpdate]\nUpdateFactoryCopy=1\n",
       false, false, false, "R.R...R.........", {}},
      {"[ForceFlash] type flag skips the microcode", {}, "[ForceFlash]\nType#01=1\n", false, false, false,
       "R...R.R.........", {"   Skip   | 01h | CPU Microcode\r\n"}},
      {"UseBvdtRomMap with a map in the image takes the image's regions", {}, "[ForceFlash]\nUseBvdtRomMap=1\n", false,
       false, true, ".........R..R...", {"Protect private region (FFFFC000 ~ FFFFCFFF)\r\n", " Reserved | 03h | DXE\r\n"}},
      {"UseBvdtRomMap without a map in the image keeps the platform's", {}, "[ForceFlash]\nUseBvdtRomMap=1\n", false,
       false, false, "R.R.R.R.........", {}},
  };
  for (const Row& row : rows) {
    Install(Layout());
    LoadSettings(std::string("[Log_file]\nFlag=1\nLevel=4\n") + row.ini);
    ASSERT_TRUE(Options(row.options)) << row.what;
    ASSERT_TRUE(InitialSmi());
    if (row.allowAlp) {
      answers[0x11] = [](OblisRegisters& r) {
        r.ecx = 1;
        bed::Answer(r, 0, 0x80);
      };
      ASSERT_TRUE(FuncOblis_11h());
    }
    if (row.secureBoot) SetSecureBoot();
    answers[0x1E] = bed::WholeMapAnswer({{0x06, BlockAt(6), 2 * kBlock}, {0x16, BlockAt(4), kBlock}});
    ASSERT_TRUE(SMI_GetWholeRomMap(nullptr, nullptr));
    answers[0x12] = bed::PlatformMapsAnswer({{0xFE, BlockAt(0), kBlock}},
                                            {{0x01, BlockAt(2), kBlock}, {0x16, BlockAt(4), kBlock}, {0x06, BlockAt(6), kBlock}});
    ASSERT_TRUE(SMI_GetPlatformRomMap());
    answers[0x13] = bed::FlashPartAnswer(0, {{0x10, 16}});
    ASSERT_TRUE(FuncOblis_13h());
    if (row.bvdtImage) {
      std::vector<uint8_t> image = ImageWithRegionMap();
      ASSERT_TRUE(LoadBvdtMap(image.data(), (UINT32)image.size()));
    }
    SetRsvd_13h(IsSecureBootSupport);
    std::string flags;
    for (int i = 0; i < 16; i++) flags.push_back(BlockFlagAt(BlockAt(i)) ? 'R' : '.');
    EXPECT_EQ(flags, row.flags) << row.what;
    std::string log = Log();
    for (const std::string& line : row.traces) EXPECT_NE(log.find(line), std::string::npos) << row.what << "\n" << log;
    EXPECT_EQ(SmiCallsOf(0x1E).size(), 1u) << row.what << ": the 1Eh map is the one fetched at set-up";
  }
}

}  // namespace
