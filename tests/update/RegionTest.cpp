// Region selection on a 64 KB flash: the two lists of function 17h with their slots, the size
// check of a region image, and which blocks SetRsvd_17h closes.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using bed::At;

constexpr uint32_t kBlock = 0x1000;
constexpr uint32_t kBlocks = 16;
constexpr uint32_t kBase = 0xFFFF0000u;

struct Ext {
  uint8_t type;
  uint32_t offset, size;
  uint8_t access;
};
using List = std::vector<Ext>;

// Descriptor 4 KB, GbE 4 KB, ME 16 KB, a gap of 8 KB, BIOS 32 KB; no platform data.
const List kLayout = {{0, 0x0000, 0x1000, 1}, {3, 0x1000, 0x1000, 2}, {2, 0x2000, 0x4000, 3}, {1, 0x8000, 0x8000, 4}};
const List kIgnitionOnly = {{0, 0, 0x1000, 0}, {0x20, 0x2000, 0x4000, 0}, {1, 0x8000, 0x8000, 0}};

void PutList(uint8_t* out, const List& list, bool terminate) {
  for (const Ext& e : list) {
    out[0] = e.type;
    bed::PutU32(out + 1, e.offset);
    bed::PutU32(out + 5, e.size);
    out[9] = e.access;
    out += 10;
  }
  if (terminate) out[0] = 0xFF;
}

class Region : public bed::ScriptedBed {
 protected:
  // A fresh driver whose 17h answers the current list and the new one, with the region options
  // of the bits (-bios, -gbe, -me, -desc, -pdr) taken.
  void Start(const List& current, uint8_t regions = 0, bool terminate = true) {
    Install(Layout());
    const char16_t* tokens[] = {u"-bios", u"-gbe", u"-me", u"-desc", u"-pdr"};
    for (int bit = 0; bit < 5; bit++)
      if (regions & (1 << bit)) ASSERT_TRUE(Options({tokens[bit]}));
    SetStatus_region();
    ASSERT_TRUE(InitialSmi());
    answers[0x13] = bed::FlashPartAnswer(0, {{kBlock / 256, kBlocks}});
    ASSERT_TRUE(FuncOblis_13h());
    answers[0x17] = [this, current, terminate](OblisRegisters& r) {
      sentHead.assign(At(r.esi), At(r.esi) + 0x1000);
      std::memset(At(r.edi), 0x02, 0x1000);  // what lies behind the lists is no record
      PutList(At(r.edi), current, terminate);
      PutList(At(r.edi) + 0x100, {{1, 0x8000, 0x8000, 0}}, true);
    };
  }
  std::vector<uint8_t> sentHead;  // what the firmware found at ESI
};

TEST_F(Region, GetExternalMapsKeepsTheCurrentListAndItsSlots) {
  // the current list, ended, the image's size (0: none), the count, slot index -> record (others 0)
  using Slots = std::vector<std::pair<int, Ext>>;
  const List five = {{0, 0, 0x1000, 0}, {1, 0x1000, 0x1000, 0}, {2, 0x2000, 0x1000, 0}, {3, 0x3000, 0x1000, 0},
                     {0x20, 0x4000, 0x1000, 5}};
  List withSecondBios = kLayout;
  withSecondBios.push_back({1, 0xF000, 0x1000, 9});
  const std::tuple<const char*, List, bool, size_t, uint32_t, Slots> rows[] = {
      {"four regions and a second BIOS: the first of a type fills its slot", withSecondBios, true, 0x2000, 5,
       {{0, kLayout[0]}, {1, kLayout[3]}, {2, kLayout[2]}, {3, kLayout[1]}}},
      {"five records without an end are read in full, a sixth is not", five, false, 0x800, 5,
       {{0, five[0]}, {1, five[1]}, {2, five[2]}, {3, five[3]}, {5, five[4]}}},
      {"empty list", {}, true, 0, 0, {}},
  };
  for (const auto& [what, current, terminate, imageSize, count, slotsExpected] : rows) {
    Start(current, 0, terminate);
    std::vector<uint8_t> image(imageSize);
    for (size_t i = 0; i < image.size(); i++) image[i] = (uint8_t)(i + 1);
    ASSERT_TRUE(GetExternalMaps(imageSize ? image.data() : nullptr, (UINT32)imageSize)) << what;
    // The head of the image goes to the firmware, as far as the image reaches.
    for (size_t i = 0; i < 0x1000; i++) ASSERT_EQ(sentHead[i], i < imageSize ? (uint8_t)(i + 1) : 0) << what << i;
    const OblisExternalRecord* list = nullptr;
    UINT32 listed = 99;
    GetCurrentExternalList(&list, &listed);
    EXPECT_EQ(listed, count) << what;
    std::vector<uint8_t> slots(54, 0xCC), expected(54, 0);  // 9 bytes a slot: offset, size, access
    GetCurrentRegionSlots(slots.data());
    for (auto& [index, e] : slotsExpected) {
      bed::PutU32(&expected[index * 9], e.offset), bed::PutU32(&expected[index * 9 + 4], e.size);
      expected[index * 9 + 8] = e.access;
    }
    EXPECT_EQ(slots, expected) << what;
    EXPECT_LT(Log().find("(Current)\r\n"), Log().find("(New)\r\n")) << what;
  }
}

std::string NotMatch(const char* region, const char* size, const char* current) {
  return std::string("Warning:\r\nthe new region ") + region + " (" + size + "h) not match with current (" + current + "h)\r\n\r\n";
}

TEST_F(Region, CheckRegionSizeComparesEverySelectedRegion) {
  struct Row {
    const char* what;
    List current;
    uint8_t regions;
    uint32_t size;
    bool ok;
    std::string message;  // console, empty for none
    std::vector<std::string> matches;
  };
  const List sameSizes = {{1, 0x8000, 0x1000, 0}, {3, 0x1000, 0x1000, 0}};
  const Row rows[] = {
      {"-me with half the ME region", kLayout, kRegionMe, 0x2000, true, "", {"region size |match| ME\r\n"}},
      {"-me with the whole ME region", kLayout, kRegionMe, 0x4000, true, "", {"region size |match| ME\r\n"}},
      {"-me larger than ME", kLayout, kRegionMe, 0x4001, false, NotMatch("ME", "    4001", "    4000"), {}},
      {"-bios exact", kLayout, kRegionBios, 0x8000, true, "", {"region size |match| BIOS\r\n"}},
      {"-bios smaller", kLayout, kRegionBios, 0x4000, false, NotMatch("BIOS", "    4000", "    8000"), {}},
      {"-bios -gbe of equal sizes", sameSizes, kRegionBios | kRegionGbe, 0x1000, true, "",
       {"region size |match| BIOS\r\n", "region size |match| GBE\r\n"}},
      {"-bios -gbe: BIOS first, GbE not looked at", kLayout, kRegionBios | kRegionGbe, 0x1000, false,
       NotMatch("BIOS", "    1000", "    8000"), {}},
      {"-desc -bios: descriptor first", kLayout, kRegionDescriptor | kRegionBios, 0x8000, false,
       NotMatch("Descriptor", "    8000", "    1000"), {}},
      {"-pdr without the region counts as size 0", kLayout, kRegionPlatformData, 0x1000, false,
       NotMatch("Platform Data", "    1000", "       0"), {}},
      {"an empty file is no region image", kLayout, kRegionMe, 0, false, NotMatch("ME", "       0", "    4000"), {}},
      // Ignition ME stands in for a missing type 2 and must be matched exactly.
      {"Ignition ME, exact", kIgnitionOnly, kRegionMe, 0x4000, true, "", {"region size |match| Ignition ME\r\n"}},
      {"Ignition ME, half", kIgnitionOnly, kRegionMe, 0x2000, false, NotMatch("Ignition ME", "    2000", "    4000"), {}},
      {"a region past the ROM end", {{1, 0xC000, 0x8000, 0}}, kRegionBios, 0x8000, false,
       "Warning:\r\nthe current region BIOS (offset     C000h, size     8000h) lies outside the ROM (   10000h)\r\n\r\n", {}},
  };
  for (const Row& row : rows) {
    Start(row.current, row.regions);
    ASSERT_TRUE(GetExternalMaps(nullptr, 0));
    EXPECT_EQ(CheckRegionSize(row.size), row.ok) << row.what;
    std::string log = Log();
    EXPECT_EQ(Console(), row.message) << row.what;
    if (!row.ok) EXPECT_EQ(log.find("|match|"), std::string::npos) << row.what;
    EXPECT_NE(log.find("|check| Region FD size(0x" + (std::stringstream() << std::uppercase << std::hex << (int)row.regions).str() + ")\r\n"),
              std::string::npos) << row.what;
    for (const std::string& m : row.matches) EXPECT_NE(log.find(m), std::string::npos) << row.what << m;
  }
}

TEST_F(Region, SetRsvd17hClosesWhatIsNotSelectedAndWhatNoRegionNames) {
  // the current list, the regions, the ME locked, one character a block
  const std::tuple<const char*, List, uint8_t, bool, const char*> rows[] = {
      {"-bios closes descriptor, GbE, ME and the gap", kLayout, kRegionBios, false, "RRRRRRRR........"},
      {"-me closes all but ME", kLayout, kRegionMe, false, "RR....RRRRRRRRRR"},
      {"-me on a locked ME closes ME too", kLayout, kRegionMe, true, "RRRRRRRRRRRRRRRR"},
      {"everything selected closes the gap", kLayout, 0x1F, false, "......RR........"},
      {"ME closed through its Ignition ME region", kIgnitionOnly, kRegionBios, false, "RRRRRRRR........"},
  };
  for (const auto& [what, current, regions, skipMe, closed] : rows) {
    Start(current, regions);
    ASSERT_TRUE(GetExternalMaps(nullptr, 0));
    if (skipMe) SetSkipMeRegion();
    SetRsvd_17h();
    std::string seen;
    for (uint32_t block = 0; block < kBlocks; block++) seen.push_back(BlockFlagAt(kBase + block * kBlock) ? 'R' : '.');
    EXPECT_EQ(seen, closed) << what;
    EXPECT_NE(Log().find("Set Rsvd 17h |enable| (0x" + (std::stringstream() << std::uppercase << std::hex << (int)regions).str() + ")\r\n"),
              std::string::npos) << what;
  }
}

}  // namespace
