// The region map behind the OBLIS signature of an image, and the lookup of an external record.
#include <gtest/gtest.h>

#include "oblis/Oblis.h"
#include "support/DriverBed.h"

namespace {

class BvdtMap : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override { return {.firmware = bed::Firmware::Scripted}; }
};

struct Record {
  uint8_t type;
  uint32_t address, size;
  uint8_t action;
};

std::vector<uint8_t> MapImage(const std::vector<Record>& records, bool terminated) {
  std::vector<uint8_t> image(0x30, 0x24);  // '$' filler: a near miss at every place
  for (uint8_t b : bed::Bytes("$OBLIS")) image.push_back(b);
  for (const Record& r : records) {
    uint8_t bytes[10] = {r.type};
    bed::PutU32(bytes + 1, r.address);
    bed::PutU32(bytes + 5, r.size);
    bytes[9] = r.action;
    image.insert(image.end(), bytes, bytes + 10);
  }
  if (terminated) {
    image.push_back(0xFF);
    image.resize(image.size() + 9, 0);
  }
  return image;
}

TEST_F(BvdtMap, RecordsBehindTheSignatureAreTakenToTheirEnd) {
  std::vector<Record> many;
  for (uint32_t i = 0; i < 230; i++) many.push_back({0x02, 0xFF000000u + i * 0x100, 0x100, 0});
  std::vector<uint8_t> truncated = MapImage({{0x01, 0xFFA00000u, 0x1000, 1}, {0x03, 0xFFB00000u, 0x1000, 0}}, false);
  truncated.pop_back();  // the second record lacks its last byte
  struct Row {
    const char* what;
    std::vector<uint8_t> image;
    bool found;
    uint32_t count;
    uint32_t firstStart, lastEnd;
  };
  const Row rows[] = {
      {"two records", MapImage({{0x01, 0xFFA00000u, 0x1000, 1}, {0xFE, 0xFFB00000u, 0x2000, 0}}, true), true, 2,
       0xFFA00000u, 0xFFB01FFFu},
      {"start 0 size 0 is left out",
       MapImage({{0x01, 0xFFA00000u, 0x1000, 1}, {0x05, 0, 0, 0}, {0x06, 0xFFC00000u, 0x10, 0}}, true), true, 2,
       0xFFA00000u, 0xFFC0000Fu},
      {"type FF ends the list",
       MapImage({{0x01, 0xFFA00000u, 0x1000, 1}, {0xFF, 0xFFB00000u, 0x10, 0}, {0x06, 0xFFC00000u, 0x10, 0}}, false),
       true, 1, 0xFFA00000u, 0xFFA00FFFu},
      {"200 records at most", MapImage(many, false), true, 200, 0xFF000000u, 0xFF000000u + 199 * 0x100 + 0xFF},
      {"a record cut by the image end is not read", truncated, true, 1, 0xFFA00000u, 0xFFA00FFFu},
      {"signature at the very end: found, empty", MapImage({}, false), true, 0, 0, 0},
      {"no signature", std::vector<uint8_t>(0x100, 0x24), false, 0, 0, 0},
  };
  for (const Row& row : rows) {
    Install(Layout());
    EXPECT_EQ(LoadBvdtMap(row.image.data(), (UINT32)row.image.size()), row.found) << row.what;
    EXPECT_EQ(BvdtMapFound(), row.found) << row.what;
    UINT32 privateCount = 0, protectionCount = 0;
    OblisPrivateRecord* privateList = nullptr;
    OblisProtectionRecord* protectionList = nullptr;
    GetBvdtRomMap(&privateCount, &privateList, &protectionCount, &protectionList);
    EXPECT_EQ(privateCount + protectionCount, row.count) << row.what;
    EXPECT_EQ(bed::CountOf(Log(), "h | 0x"), row.count) << row.what << ": one trace line a record";
    if (row.count > 0) {
      uint32_t first = protectionCount > 0 ? protectionList[0].address : privateList[0].address;
      EXPECT_EQ(first, row.firstStart) << row.what;
      uint32_t lastEnd = privateCount > 0
                             ? privateList[privateCount - 1].address + privateList[privateCount - 1].size - 1
                             : protectionList[protectionCount - 1].address + protectionList[protectionCount - 1].size - 1;
      EXPECT_EQ(lastEnd, row.lastEnd) << row.what;
    }
    FreePoolAndNull(privateList);
    FreePoolAndNull(protectionList);
  }
}

TEST_F(BvdtMap, ExternalRegionFindTakesTheFirstOfItsTypeWithinTheCount) {
  OblisExternalRecord list[3] = {{0x01, 0x100000, 0x700000, 0x0A}, {0x02, 0x1000, 0xFF000, 0x0B}, {0x01, 0, 1, 1}};
  struct Row {
    uint8_t type;
    uint32_t count;
    bool found;
    uint32_t offset, size;
    uint8_t access;
  };
  const Row rows[] = {
      {0x01, 3, true, 0x100000, 0x700000, 0x0A},
      {0x02, 3, true, 0x1000, 0xFF000, 0x0B},
      {0x02, 1, false, 0xAA, 0xBB, 0xCC},
      {0x03, 3, false, 0xAA, 0xBB, 0xCC},
  };
  for (const Row& row : rows) {
    UINT32 offset = 0xAA, size = 0xBB;
    UINT8 access = 0xCC;
    EXPECT_EQ(ExternalRegionFind(list, row.count, row.type, &offset, &size, &access), row.found) << (int)row.type;
    EXPECT_EQ(offset, row.offset);
    EXPECT_EQ(size, row.size);
    EXPECT_EQ(access, row.access);
  }
  EXPECT_FALSE(ExternalRegionFind(nullptr, 3, 0x01, nullptr, nullptr, nullptr));
}

}  // namespace
