// The ROM maps of functions 12h and 1Eh: where each list ends, what is kept, how often the
// firmware is asked, and the names and trace lines that the maps are shown with.
#include <gtest/gtest.h>

#include "FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

std::string Narrow(const CHAR16* text) {
  std::string out;
  for (; *text; ++text) out.push_back((char)*text);
  return out;
}

TEST(Maps, RegionNamesOfTheListsAndOfTheWholeMap) {
  struct Row {
    uint8_t type;
    const char* listName;
    const char* wholeName;
  };
  const Row rows[] = {
      {0x00, "PEI", "PEI"},           {0x06, "NV Storage", "NV Storage"}, {0x10, "OEM NVS", "OEM NVS"},
      {0x11, "Reserved", ""},         {0x14, "Reserved", ""},             {0x15, "Unused", ""},
      {0x16, "Factory Copy", "Factory Copy"}, {0x17, "Undefined", "AMD PSP Data"},
      {0x18, "Undefined", "AMD Boot Block"},  {0x19, "Undefined", ""},
      {0xFE, "Private Map", "Private Map"},   {0xFF, "Undefined", ""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Narrow(RegionTypeName(row.type)), row.listName) << std::hex << (int)row.type;
    EXPECT_EQ(Narrow(WholeRegionTypeName(row.type)), row.wholeName) << std::hex << (int)row.type;
  }
}

struct ListRow {
  const char* what;
  std::vector<uint8_t> privateBytes;
  std::vector<uint8_t> protectionBytes;
  uint32_t privateCount;
  uint32_t protectionCount;
};

std::vector<uint8_t> PrivateRecords(uint32_t count, bool terminated) {
  std::vector<uint8_t> b;
  for (uint32_t i = 0; i < count; i++) {
    PutU32(b, b.size(), 0xFF800000u + i * 0x1000);
    PutU32(b, b.size(), 0x1000);
  }
  if (terminated) PutU32(b, b.size(), 0xFF);
  return b;
}

std::vector<uint8_t> ProtectionRecords(uint32_t count, bool terminated) {
  std::vector<uint8_t> b;
  for (uint32_t i = 0; i < count; i++) {
    b.push_back(0x01);
    PutU32(b, b.size(), 0xFFA00000u + i * 0x1000);
    PutU32(b, b.size(), 0x1000);
  }
  if (terminated) b.push_back(0xFF);
  return b;
}

TEST(Maps, PlatformListsEndAtTheirMarkOrAfter200) {
  std::vector<uint8_t> privateEmpty = PrivateRecords(0, true);
  std::vector<uint8_t> trailing = PrivateRecords(3, false);
  privateEmpty.insert(privateEmpty.end(), trailing.begin() + 4, trailing.end());  // records behind the mark
  const ListRow rows[] = {
      {"both terminated", PrivateRecords(2, true), ProtectionRecords(3, true), 2, 3},
      {"private starts with the mark", privateEmpty, ProtectionRecords(0, true), 0, 0},
      {"200 without terminator", PrivateRecords(210, false), ProtectionRecords(230, false), 200, 200},
  };
  for (const ListRow& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                fw.handlers[0x12] = [&](OblisRegisters& r) {
                  std::memcpy(At(r.edi), row.protectionBytes.data(), row.protectionBytes.size());
                  std::memcpy(At(r.esi), row.privateBytes.data(), row.privateBytes.size());
                };
                ASSERT_TRUE(SMI_GetPlatformRomMap()) << row.what;
                UINT32 privateCount = 0, protectionCount = 0;
                OblisPrivateRecord* privateList = nullptr;
                OblisProtectionRecord* protectionList = nullptr;
                GetPlatformRomMap(&privateCount, &privateList, &protectionCount, &protectionList);
                EXPECT_EQ(privateCount, row.privateCount) << row.what;
                EXPECT_EQ(protectionCount, row.protectionCount) << row.what;
                ASSERT_NE(protectionList, nullptr);
                if (protectionCount > 1) {
                  EXPECT_EQ(protectionList[1].address, 0xFFA01000u);
                  EXPECT_EQ(protectionList[1].type, 1);
                }
                if (privateCount > 0) EXPECT_EQ(privateList[0].address, 0xFF800000u);
                std::string log = fw.Log();
                EXPECT_NE(log.find("Get Platform ROM map protection. (12h)\r\n"), std::string::npos);
                if (protectionCount > 0) {
                  EXPECT_NE(log.find("                Protection Region MAP\r\n"
                                     " Type | Start Addr |  End Addr  |    Size    | Description \r\n"
                                     "------+------------+------------+------------+-------------\r\n"
                                     "  01h | 0xFFA00000 | 0xFFA00FFF | 0x00001000 |CPU Microcode\r\n"),
                            std::string::npos)
                      << log;
                }
                if (privateCount > 0) {
                  EXPECT_NE(log.find("  FEh | 0xFF800000 | 0xFF800FFF | 0x00001000 |  Private Map\r\n"),
                            std::string::npos);
                }
              }))
        << row.what;
  }
}

std::vector<uint8_t> WholeRecord(uint8_t type, uint32_t address, uint32_t size, uint32_t attribute = 0) {
  std::vector<uint8_t> b{type};
  PutU32(b, 1, address);
  PutU32(b, 5, size);
  PutU32(b, 9, attribute);
  return b;
}

TEST(Maps, WholeMapWalkPassesOverEmptyRecordsAndStops) {
  struct Row {
    const char* what;
    std::vector<std::vector<uint8_t>> records;
    uint8_t count;
  };
  std::vector<std::vector<uint8_t>> many;
  for (int i = 0; i < 250; i++) many.push_back(WholeRecord(0x02, 0xFF000000u + i * 0x100, 0x100));
  const Row rows[] = {
      {"zero record passed over", {WholeRecord(6, 0xFFE00000, 0x10000), WholeRecord(0, 0, 0), WholeRecord(0x16, 0xFFF00000, 0x1000), WholeRecord(0xFF, 1, 1)}, 2},
      {"type FF with address and size 0 is no end", {WholeRecord(0xFF, 0, 0), WholeRecord(6, 0xFFE00000, 0x10000), WholeRecord(0xFF, 0, 1)}, 1},
      {"200 records end the walk", many, 200},
      {"only zero records: nothing, inside the bytes held", {}, 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                fw.handlers[0x1E] = [&](OblisRegisters& r) {
                  size_t at = 0;
                  for (auto& record : row.records) {
                    if (at + 13 > 0x1000) break;
                    std::memcpy(At(r.edi) + at, record.data(), 13);
                    at += 13;
                  }
                };
                static RomMapEntry entries[kRomMapEntries];
                UINT8 count = 0xAA;
                EXPECT_TRUE(SMI_GetWholeRomMap(entries, &count)) << row.what;
                EXPECT_EQ(count, row.count) << row.what;
                UINT32 rawCount = 0;
                UINT8* raw = nullptr;
                GetWholeRomMapRecords(&rawCount, &raw);
                EXPECT_EQ(rawCount, row.count);
                EXPECT_EQ(raw != nullptr, row.count != 0);
                if (row.count > 0) EXPECT_EQ(raw[0], entries[0].type);
              }))
        << row.what;
  }
}

}  // namespace
