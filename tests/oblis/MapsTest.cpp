// The ROM maps: the lists of function 12h, the whole map of 1Eh and the region map behind the
// OBLIS signature of an image; where each list ends, what is kept, and the trace lines.
#include <gtest/gtest.h>

#include <cstring>

#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"

namespace {

using bed::At;
using Maps = bed::ScriptedBed;

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
    answers[0x12] = [&privateBytes = privateBytes, &protectionBytes = protectionBytes](OblisRegisters& r) {
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
    if (protectionCount > 1) EXPECT_EQ(UINT32{protectionList[1].address}, 0xFFA01000u) << what;
    if (privateCount > 1) EXPECT_EQ(UINT32{privateList[1].address}, 0xFF801000u) << what;
    FreePoolAndNull(privateList);
    FreePoolAndNull(protectionList);
    std::string log = Log();
    EXPECT_NE(log.find("Get Platform ROM map protection. (12h)\r\n"), std::string::npos) << what;
    EXPECT_EQ(log.find("                Protection Region MAP\r\n"
                       " Type | Start Addr |  End Addr  |    Size    | Description \r\n"
                       "------+------------+------------+------------+-------------\r\n"
                       "  01h | 0xFFA00000 | 0xFFA00FFF | 0x00001000 |CPU Microcode\r\n") != std::string::npos,
              protectionCount > 0) << log;
    EXPECT_EQ(log.find("                Private Region MAP\r\n"
                       " Type | Start Addr |  End Addr  |    Size    | Description \r\n"
                       "------+------------+------------+------------+-------------\r\n"
                       "  FEh | 0xFF800000 | 0xFF800FFF | 0x00001000 |  Private Map\r\n") != std::string::npos,
              privateCount > 0) << what;
  }
}

std::vector<uint8_t> WholeRecord(uint8_t type, uint32_t address, uint32_t size) {
  std::vector<uint8_t> b = {type, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  bed::PutU32(&b[1], address), bed::PutU32(&b[5], size);
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
    answers[0x1E] = [&records = records](OblisRegisters& r) {
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

// Records of 10 bytes behind "$OBLIS" with '$' filler in front: a near miss at every place.
std::vector<uint8_t> MapImage(const std::vector<std::tuple<uint8_t, uint32_t, uint32_t>>& records, bool ended) {
  std::vector<uint8_t> image = bed::Bytes(std::string(0x30, '$') + "$OBLIS");
  for (auto [type, address, size] : records) {
    uint8_t bytes[10] = {type, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    bed::PutU32(bytes + 1, address);
    bed::PutU32(bytes + 5, size);
    image.insert(image.end(), bytes, bytes + 10);
  }
  if (ended) image.insert(image.end(), {0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  return image;
}

TEST_F(Maps, BvdtMapRecordsBehindTheSignatureAreTakenToTheirEnd) {
  std::vector<std::tuple<uint8_t, uint32_t, uint32_t>> many;
  for (uint32_t i = 0; i < 230; i++) many.push_back({0x02, 0xFF000000u + i * 0x100, 0x100});
  std::vector<uint8_t> cut = MapImage({{0x01, 0xFFA00000u, 0x1000}, {0x03, 0xFFB00000u, 0x1000}}, false);
  cut.pop_back();  // the second record lacks its last byte
  const std::tuple<const char*, std::vector<uint8_t>, bool, size_t, const char*> rows[] = {
      {"two records", MapImage({{0x01, 0xFFA00000u, 0x1000}, {0xFE, 0xFFB00000u, 0x2000}}, true), true, 2,
       "  FEh | 0xFFB00000 | 0xFFB01FFF | 0x00002000 |    1   |  Private Map\r\n"},
      {"start 0 size 0 is left out", MapImage({{0x01, 0xFFA00000u, 0x1000}, {0x05, 0, 0}, {0x06, 0xFFC00000u, 0x10}}, true),
       true, 2, "  06h | 0xFFC00000 | 0xFFC0000F |"},
      {"type FF ends the list",
       MapImage({{0x01, 0xFFA00000u, 0x1000}, {0xFF, 0xFFB00000u, 0x10}, {0x06, 0xFFC00000u, 0x10}}, false), true, 1,
       "  01h | 0xFFA00000 | 0xFFA00FFF |"},
      {"200 records at most", MapImage(many, false), true, 200, "  02h | 0xFF00C700 | 0xFF00C7FF |"},
      {"a record cut by the image end is not read", cut, true, 1, "  01h | 0xFFA00000 | 0xFFA00FFF |"},
      {"signature at the very end: found, empty", MapImage({}, false), true, 0, ""},
      {"no signature", std::vector<uint8_t>(0x100, '$'), false, 0, ""},
  };
  for (const auto& [what, image, found, count, last] : rows) {
    Install(Layout());
    EXPECT_EQ(LoadBvdtMap(image.data(), (UINT32)image.size()), found) << what;
    EXPECT_EQ(BvdtMapFound(), found) << what;
    std::string log = Log();
    EXPECT_EQ(bed::CountOf(log, "h | 0x"), count) << what << ": a line a record in the trace";
    size_t lastLine = log.rfind("h | 0x");
    if (count > 0) EXPECT_EQ(log.substr(lastLine - 4, std::strlen(last)), last) << what << "\n" << log;
    UINT32 privates = 999, protections = 999;
    GetBvdtRomMap(&privates, nullptr, &protections, nullptr);  // counts only: the lists go back at once
    EXPECT_EQ(privates + protections, count) << what;
  }
}

}  // namespace
