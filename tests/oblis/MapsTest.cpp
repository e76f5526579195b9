// The ROM maps of functions 12h and 1Eh: where each list ends, what is kept, and the trace lines
// that the maps are shown with.
#include <gtest/gtest.h>

#include <cstring>

#include "oblis/Oblis.h"
#include "support/DriverBed.h"

namespace {

using bed::At;

class Maps : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override { return {.firmware = bed::Firmware::Scripted}; }
};

// Private records of 8 bytes from FF800000, protection records of 9 bytes (type 01) from FFA00000.
std::vector<uint8_t> Records(bool privateList, uint32_t count, bool terminated) {
  std::vector<uint8_t> b;
  for (uint32_t i = 0; i < count; i++) {
    uint8_t record[9] = {0x01};
    uint8_t* at = privateList ? record : record + 1;
    bed::PutU32(at, (privateList ? 0xFF800000u : 0xFFA00000u) + i * 0x1000);
    bed::PutU32(at + 4, 0x1000);
    b.insert(b.end(), record, record + (privateList ? 8 : 9));
  }
  if (terminated) b.insert(b.end(), {0xFF, 0, 0, 0});
  return b;
}

TEST_F(Maps, PlatformListsEndAtTheirMarkOrAfter200) {
  std::vector<uint8_t> privateEmpty = Records(true, 0, true);
  std::vector<uint8_t> behind = Records(true, 2, false);
  privateEmpty.insert(privateEmpty.end(), behind.begin(), behind.end());  // records behind the mark
  const std::tuple<const char*, std::vector<uint8_t>, std::vector<uint8_t>, uint32_t, uint32_t> rows[] = {
      {"both ended", Records(true, 2, true), Records(false, 3, true), 2, 3},
      {"private starts with the mark", privateEmpty, Records(false, 0, true), 0, 0},
      {"200 without an end", Records(true, 210, false), Records(false, 230, false), 200, 200},
  };
  for (const auto& [what, privateBytes, protectionBytes, privateExpected, protectionExpected] : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    answers[0x12] = [&](OblisRegisters& r) {
      std::memcpy(At(r.edi), protectionBytes.data(), protectionBytes.size());
      std::memcpy(At(r.esi), privateBytes.data(), privateBytes.size());
    };
    ASSERT_TRUE(SMI_GetPlatformRomMap()) << what;
    UINT32 privateCount = 0, protectionCount = 0;
    OblisPrivateRecord* privateList = nullptr;
    OblisProtectionRecord* protectionList = nullptr;
    GetPlatformRomMap(&privateCount, &privateList, &protectionCount, &protectionList);
    EXPECT_EQ(privateCount, privateExpected) << what;
    EXPECT_EQ(protectionCount, protectionExpected) << what;
    if (protectionCount > 1) EXPECT_EQ(protectionList[1].address, 0xFFA01000u) << what;
    if (privateCount > 1) EXPECT_EQ(privateList[1].address, 0xFF801000u) << what;
    FreePoolAndNull(privateList);
    FreePoolAndNull(protectionList);
    std::string log = Log();
    EXPECT_NE(log.find("Get Platform ROM map protection. (12h)\r\n"), std::string::npos) << what;
    EXPECT_EQ(log.find("|CPU Microcode\r\n") != std::string::npos, protectionCount > 0) << what;
    if (protectionCount > 0) {
      EXPECT_NE(log.find("                Protection Region MAP\r\n"
                         " Type | Start Addr |  End Addr  |    Size    | Description \r\n"
                         "------+------------+------------+------------+-------------\r\n"
                         "  01h | 0xFFA00000 | 0xFFA00FFF | 0x00001000 |CPU Microcode\r\n"),
                std::string::npos) << log;
    }
    EXPECT_EQ(log.find("  FEh | 0xFF800000 | 0xFF800FFF | 0x00001000 |  Private Map\r\n") != std::string::npos,
              privateCount > 0) << what;
  }
}

std::vector<uint8_t> WholeRecord(uint8_t type, uint32_t address, uint32_t size) {
  std::vector<uint8_t> b(13, 0);
  b[0] = type;
  bed::PutU32(&b[1], address);
  bed::PutU32(&b[5], size);
  return b;
}

TEST_F(Maps, WholeMapWalkPassesOverEmptyRecordsAndStops) {
  std::vector<std::vector<uint8_t>> many;
  for (int i = 0; i < 250; i++) many.push_back(WholeRecord(0x02, 0xFF000000u + i * 0x100, 0x100));
  const std::tuple<const char*, std::vector<std::vector<uint8_t>>, uint8_t> rows[] = {
      {"zero record passed over",
       {WholeRecord(6, 0xFFE00000, 0x10000), WholeRecord(0, 0, 0), WholeRecord(0x16, 0xFFF00000, 0x1000),
        WholeRecord(0xFF, 1, 1)}, 2},
      {"type FF with address and size 0 is no end",
       {WholeRecord(0xFF, 0, 0), WholeRecord(6, 0xFFE00000, 0x10000), WholeRecord(0xFF, 0, 1)}, 1},
      {"200 records end the walk", many, 200},
      {"only zero records: nothing, inside the bytes held", {}, 0},
  };
  for (const auto& [what, records, expected] : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    answers[0x1E] = [&](OblisRegisters& r) {
      for (size_t i = 0; i < records.size() && (i + 1) * 13 <= 0x1000; i++) std::memcpy(At(r.edi) + i * 13, records[i].data(), 13);
    };
    static RomMapEntry entries[kRomMapEntries];
    UINT8 count = 0xAA;
    EXPECT_TRUE(SMI_GetWholeRomMap(entries, &count)) << what;
    EXPECT_EQ(count, expected) << what;
    UINT32 rawCount = 0;
    UINT8* raw = nullptr;
    GetWholeRomMapRecords(&rawCount, &raw);
    EXPECT_EQ(rawCount, expected) << what;
    if (expected > 0) {
      EXPECT_EQ(raw[13 * (expected - 1)], entries[expected - 1].type) << what;
      EXPECT_EQ(entries[0].end, entries[0].address + entries[0].size - 1) << what;
    }
    FreePoolAndNull(raw);
  }
}

}  // namespace
