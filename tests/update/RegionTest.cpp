// Region selection against a fake firmware with a 64 KB flash: the flags from options and
// settings, the two lists of function 17h with their slots, the size check, where a region image
// lands, and which blocks SetRsvd_17h closes.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "config/Config.h"
#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"
#include "update/Update.h"

using namespace oblistest;

namespace {

constexpr uint32_t kBlock = 0x1000;
constexpr uint32_t kBlocks = 16;
constexpr uint32_t kRomSize = kBlock * kBlocks;
constexpr uint32_t kBase = 0xFFFF0000u;

struct Ext {
  uint8_t type;
  uint32_t offset, size;
  uint8_t access;
};
using List = std::vector<Ext>;

// Descriptor 4 KB, GbE 4 KB, ME 16 KB, BIOS 32 KB; no platform data.
const List kLayout = {{0, 0x0000, 0x1000, 1}, {3, 0x1000, 0x1000, 2}, {2, 0x2000, 0x4000, 3}, {1, 0x8000, 0x8000, 4}};

void PutList(uint8_t* out, const List& list, bool terminate) {
  size_t at = 0;
  for (const Ext& e : list) {
    out[at] = e.type;
    PutU32(out + at + 1, e.offset);
    PutU32(out + at + 5, e.size);
    out[at + 9] = e.access;
    at += 10;
  }
  if (terminate) out[at] = 0xFF;
}

struct RegionBed {
  FakeFirmware fw;
  std::vector<uint8_t> sentHead;  // what the firmware found at ESI

  RegionBed(const List& current, const List& next = {}, bool terminate = true) {
    EXPECT_TRUE(InitialSmi());
    fw.AnswerFlashPart(0, {{kBlock / 256, kBlocks}});
    EXPECT_TRUE(FuncOblis_13h());
    fw.handlers[0x17] = [this, current, next, terminate](OblisRegisters& r) {
      sentHead.assign(At(r.esi), At(r.esi) + 0x1000);
      uint8_t* out = At(r.edi);
      // What lies behind the lists must not be taken for records.
      std::memset(out, 0x02, 0x1000);
      PutList(out, current, terminate);
      PutList(out + 0x100, next, true);
    };
  }
};

void SetFlags(uint8_t bits) {
  CommandFlags& f = FakeFirmware::MutableFlags();
  f.bios = bits & kRegionBios;
  f.gbe = bits & kRegionGbe;
  f.me = bits & kRegionMe;
  f.desc = bits & kRegionDescriptor;
  f.pdr = bits & kRegionPlatformData;
  SetStatus_region();
}

struct StatusRow {
  const char* what;
  std::function<void(CommandFlags&, FlashSettings&)> set;
  uint8_t flags;
  const char* trace;
};

struct MapsRow {
  const char* what;
  List current;
  bool terminate;
  size_t imageSize;  // 0: no image
  uint32_t count;
  // slot index -> (offset, size, access); the others stay zero
  std::vector<std::pair<int, Ext>> slots;
};

TEST(Region, GetExternalMapsKeepsTheCurrentListAndItsSlots) {
  const MapsRow rows[] = {
      {"four regions", kLayout, true, 0x2000, 4,
       {{0, {0, 0x0000, 0x1000, 1}}, {1, {1, 0x8000, 0x8000, 4}}, {2, {2, 0x2000, 0x4000, 3}},
        {3, {3, 0x1000, 0x1000, 2}}}},
      {"five records without an end are read in full, a sixth is not", 
       {{0, 0, 0x1000, 0}, {1, 0x1000, 0x1000, 0}, {2, 0x2000, 0x1000, 0}, {3, 0x3000, 0x1000, 0},
        {0x20, 0x4000, 0x1000, 5}},
       false, 0x800, 5,
       {{0, {0, 0, 0x1000, 0}}, {1, {1, 0x1000, 0x1000, 0}}, {2, {2, 0x2000, 0x1000, 0}},
        {3, {3, 0x3000, 0x1000, 0}}, {5, {0x20, 0x4000, 0x1000, 5}}}},
      {"empty list", {}, true, 0, 0, {}},
  };
  for (const MapsRow& row : rows) {
    int code = RunIsolated([&] {
      RegionBed bed(row.current, {{1, 0x8000, 0x8000, 0}}, row.terminate);
      std::vector<uint8_t> image(row.imageSize);
      for (size_t i = 0; i < image.size(); i++) image[i] = (uint8_t)(i + 1);
      ASSERT_TRUE(GetExternalMaps(row.imageSize ? image.data() : nullptr, (UINT32)row.imageSize)) << row.what;
      // The head of the image goes to the firmware, as far as the image reaches.
      for (size_t i = 0; i < 0x1000; i++) {
        uint8_t expected = i < row.imageSize ? (uint8_t)(i + 1) : 0;
        ASSERT_EQ(bed.sentHead[i], expected) << row.what << " at " << i;
      }
      const OblisExternalRecord* list = nullptr;
      UINT32 count = 99;
      GetCurrentExternalList(&list, &count);
      EXPECT_EQ(count, row.count) << row.what;
      UINT8 slots[54];
      std::memset(slots, 0xCC, sizeof slots);
      GetCurrentRegionSlots(slots);
      for (int slot = 0; slot < 6; slot++) {
        Ext expected{0, 0, 0, 0};
        for (auto& [index, e] : row.slots)
          if (index == slot) expected = e;
        const UINT8* at = slots + slot * 9;
        EXPECT_EQ(ReadU32(at), expected.offset) << row.what << " slot " << slot;
        EXPECT_EQ(ReadU32(at + 4), expected.size) << row.what << " slot " << slot;
        EXPECT_EQ(at[8], expected.access) << row.what << " slot " << slot;
      }
      std::string log = bed.fw.Log();
      size_t current = log.find("(Current)\r\n");
      size_t next = log.find("(New)\r\n");
      ASSERT_NE(current, std::string::npos) << row.what;
      ASSERT_NE(next, std::string::npos) << row.what;
      EXPECT_LT(current, next) << row.what;
    });
    EXPECT_EQ(code, 0) << row.what;
  }
}

struct SizeRow {
  const char* what;
  List current;
  uint8_t flags;
  uint32_t size;
  bool ok;
  std::string message;  // console, empty for none
  std::vector<std::string> matches;
};

const char kWarning[] = "Warning:\r\nthe new region ";

TEST(Region, CheckRegionSizeComparesEverySelectedRegion) {
  const List sameSizes = {{1, 0x8000, 0x1000, 0}, {3, 0x1000, 0x1000, 0}};
  const List ignitionOnly = {{0, 0, 0x1000, 0}, {0x20, 0x2000, 0x4000, 0}, {1, 0x8000, 0x8000, 0}};
  const List pastRom = {{1, 0xC000, 0x8000, 0}};
  const SizeRow rows[] = {
      {"-me with half the ME region", kLayout, kRegionMe, 0x2000, true, "", {"region size |match| ME\r\n"}},
      {"-me with the whole ME region", kLayout, kRegionMe, 0x4000, true, "", {"region size |match| ME\r\n"}},
      {"-me larger than ME", kLayout, kRegionMe, 0x4001, false,
       "Warning:\r\nthe new region ME (    4001h) not match with current (    4000h)\r\n\r\n", {}},
      {"-bios exact", kLayout, kRegionBios, 0x8000, true, "", {"region size |match| BIOS\r\n"}},
      {"-bios smaller", kLayout, kRegionBios, 0x4000, false,
       "Warning:\r\nthe new region BIOS (    4000h) not match with current (    8000h)\r\n\r\n", {}},
      {"-bios -gbe of equal sizes", sameSizes, kRegionBios | kRegionGbe, 0x1000, true, "",
       {"region size |match| BIOS\r\n", "region size |match| GBE\r\n"}},
      {"-bios -gbe: BIOS first, GbE not looked at", kLayout, kRegionBios | kRegionGbe, 0x1000, false,
       "Warning:\r\nthe new region BIOS (    1000h) not match with current (    8000h)\r\n\r\n", {}},
      {"-desc -bios: descriptor first", kLayout, kRegionDescriptor | kRegionBios, 0x8000, false,
       "Warning:\r\nthe new region Descriptor (    8000h) not match with current (    1000h)\r\n\r\n", {}},
      {"-pdr without the region counts as size 0", kLayout, kRegionPlatformData, 0x1000, false,
       "Warning:\r\nthe new region Platform Data (    1000h) not match with current (       0h)\r\n\r\n", {}},
      {"an empty file is no region image", kLayout, kRegionMe, 0, false,
       "Warning:\r\nthe new region ME (       0h) not match with current (    4000h)\r\n\r\n", {}},
      // Ignition ME stands in for a missing type 2 and must be matched exactly.
      {"Ignition ME, exact", ignitionOnly, kRegionMe, 0x4000, true, "", {"region size |match| Ignition ME\r\n"}},
      {"Ignition ME, half", ignitionOnly, kRegionMe, 0x2000, false,
       "Warning:\r\nthe new region Ignition ME (    2000h) not match with current (    4000h)\r\n\r\n", {}},
      {"a region past the ROM end", pastRom, kRegionBios, 0x8000, false,
       "Warning:\r\nthe current region BIOS (offset     C000h, size     8000h) lies outside the ROM (   10000h)\r\n\r\n",
       {}},
  };
  for (const SizeRow& row : rows) {
    int code = RunIsolated([&] {
      RegionBed bed(row.current);
      ASSERT_TRUE(GetExternalMaps(nullptr, 0));
      SetFlags(row.flags);
      EXPECT_EQ(CheckRegionSize(row.size), row.ok) << row.what;
      std::string console = bed.fw.Console();
      std::string log = bed.fw.Log();
      if (row.message.empty()) {
        EXPECT_EQ(console.find("Warning:"), std::string::npos) << row.what << "\n" << console;
      } else {
        EXPECT_NE(console.find(row.message), std::string::npos) << row.what << "\n" << console;
        EXPECT_EQ(CountOf(console, "Warning:"), 1u) << row.what;
        EXPECT_EQ(log.find("|match|"), std::string::npos) << row.what;
      }
      char head[64];
      std::snprintf(head, sizeof head, "|check| Region FD size(0x%X)\r\n", row.flags);
      EXPECT_NE(log.find(head), std::string::npos) << row.what;
      for (const std::string& m : row.matches) EXPECT_NE(log.find(m), std::string::npos) << row.what << m;
    });
    EXPECT_EQ(code, 0) << row.what;
  }
}

struct PlaceRow {
  const char* what;
  List current;
  uint8_t flags;
  uint32_t size;
  uint32_t landsAt;  // 0xFFFFFFFF: nowhere
  std::string trace;
};

struct RsvdRow {
  const char* what;
  List current;
  uint8_t flags;
  bool skipMe;
  std::vector<uint32_t> closedBlocks;
};

TEST(Region, SetRsvd17hClosesWhatIsNotSelected) {
  const List ignitionOnly = {{0, 0, 0x1000, 0}, {0x20, 0x2000, 0x4000, 0}, {1, 0x8000, 0x8000, 0}};
  const RsvdRow rows[] = {
      {"-bios closes descriptor, GbE and ME", kLayout, kRegionBios, false, {0, 1, 2, 3, 4, 5}},
      {"-me closes all but ME", kLayout, kRegionMe, false, {0, 1, 8, 9, 10, 11, 12, 13, 14, 15}},
      {"-me on a locked ME closes ME too", kLayout, kRegionMe, true,
       {0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 12, 13, 14, 15}},
      {"everything selected closes nothing", kLayout, 0x1F, false, {}},
      {"ME closed through its Ignition ME region", ignitionOnly, kRegionBios, false, {0, 2, 3, 4, 5}},
  };
  for (const RsvdRow& row : rows) {
    int code = RunIsolated([&] {
      RegionBed bed(row.current);
      ASSERT_TRUE(GetExternalMaps(nullptr, 0));
      SetFlags(row.flags);
      if (row.skipMe) SetSkipMeRegion();
      SetRsvd_17h();
      for (uint32_t block = 0; block < kBlocks; block++) {
        bool closed = std::find(row.closedBlocks.begin(), row.closedBlocks.end(), block) != row.closedBlocks.end();
        EXPECT_EQ(BlockFlagAt(kBase + block * kBlock), closed ? 1 : 0) << row.what << " block " << block;
      }
      char head[64];
      std::snprintf(head, sizeof head, "Set Rsvd 17h |enable| (0x%X)\r\n", row.flags);
      EXPECT_NE(bed.fw.Log().find(head), std::string::npos) << row.what;
    });
    EXPECT_EQ(code, 0) << row.what;
  }
}

}  // namespace
