// Function 48h from the tool's side: the block list that describes an image in place, and the
// probe that tells a secure platform from a legacy one, asked once per run.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"
#include "update/Update.h"

using namespace oblistest;

namespace {

uint64_t U64(const uint8_t* p) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | p[i];
  return value;
}

TEST(Capsule, TheBlockListCutsTheImageIn512KBlocksWithSignExtendedAddresses) {
  struct Row {
    const char* what;
    uint32_t address, size;
    std::vector<std::pair<uint64_t, uint64_t>> blocks;  // length, address
  };
  const Row rows[] = {
      {"empty image", 0x1000, 0, {}},
      {"exactly one block, no empty second", 0x1000, 0x80000, {{0x80000, 0x1000}}},
      {"one byte more makes a second block of 1", 0x1000, 0x80001, {{0x80000, 0x1000}, {1, 0x81000}}},
      {"addresses from 2 GB up carry ones in the upper half",
       0x7FF80000,
       0x100000,
       {{0x80000, 0x7FF80000}, {0x80000, 0xFFFFFFFF80000000ull}}},
      {"the 32-bit sum wraps before it is widened",
       0xFFF80000,
       0x100000,
       {{0x80000, 0xFFFFFFFFFFF80000ull}, {0x80000, 0}}},
  };
  for (const Row& row : rows) {
    std::vector<uint8_t> list(0x20000, 0xAA);
    uint32_t count = BuildCapsuleBlockList(list.data(), row.address, row.size);
    ASSERT_EQ(count, row.blocks.size()) << row.what;
    EXPECT_EQ(list[0] | list[1] << 8 | list[2] << 16 | list[3] << 24, (int)count) << row.what;
    for (size_t i = 0; i < row.blocks.size(); ++i) {
      EXPECT_EQ(U64(&list[8 + 16 * i]), row.blocks[i].first) << row.what << " block " << i;
      EXPECT_EQ(U64(&list[16 + 16 * i]), row.blocks[i].second) << row.what << " block " << i;
    }
  }
}

TEST(Capsule, TheProbeAsksOnceAndOnlyNotSupportedMeansLegacy) {
  struct Row {
    const char* what;
    uint8_t status;
    bool viaEsp;
    bool secure;
    const char* trace;
  };
  const Row rows[] = {
      {"not supported", 0xEF, false, false,
       "OBLIS 48h failed. (0xEF)\r\n<=== Oblis_48h (BIOS return not success)\r\n platform [legacy]\r\n"
       "<=== SMI_SecureCapsuleFlash (OBLIS 48h failed)\r\n"},
      {"taken", 0x00, true, true, " platform [secure]\r\n<=== SMI_IsSecurePlatform\r\n"},
      {"any other answer", 0x21, false, true, "OBLIS 48h failed. (0x21)\r\n<=== Oblis_48h\r\n platform [secure]\r\n"},
  };
  for (const Row& row : rows) {
    int code = RunIsolated([&] {
      FakeFirmware fw;
      EXPECT_TRUE(InitialSmi());
      std::vector<uint8_t> record;
      uint32_t listCount = 0xFFFFFFFF;
      fw.handlers[0x48] = [&](OblisRegisters& r) {
        record.assign(At(r.edi), At(r.edi) + 12);
        listCount = At(r.esi)[0] | At(r.esi)[1] << 8 | At(r.esi)[2] << 16 | At(r.esi)[3] << 24;
        EXPECT_EQ(r.ecx, 0u) << "the probe carries no image";
        Answer(r, row.status);
      };
      SetViaEsp(row.viaEsp ? 1 : 0);
      EXPECT_EQ(SMI_IsSecurePlatform(), row.secure) << row.what;
      EXPECT_EQ(SMI_IsSecurePlatform(), row.secure) << row.what;
      EXPECT_EQ(fw.FramesOf(0x48).size(), 1u) << row.what << ": a second call asks nothing";
      const uint8_t expected[] = {'$', 'E', 'X', 'T', 9, 0, 0, 0, (uint8_t)(row.viaEsp ? 1 : 0), 0, 0, 0};
      EXPECT_EQ(record, std::vector<uint8_t>(std::begin(expected), std::end(expected))) << row.what;
      EXPECT_EQ(listCount, 0u) << row.what;
      EXPECT_NE(fw.Log().find(row.trace), std::string::npos) << row.what << "\n" << fw.Log();
    });
    EXPECT_EQ(code, 0) << row.what;
  }
}

}  // namespace
