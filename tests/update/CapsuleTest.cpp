// Function 48h from the tool's side: the block list that describes an image in place, and the
// probe that tells a secure platform from a legacy one, asked once per run.
#include <gtest/gtest.h>

#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using bed::At;

using Capsule = bed::ScriptedBed;

uint64_t U64(const uint8_t* p) { return ReadU32(p) | (uint64_t)ReadU32(p + 4) << 32; }

TEST_F(Capsule, TheBlockListCutsTheImageIn512KBlocksWithSignExtendedAddresses) {
  const std::tuple<const char*, uint32_t, uint32_t, std::vector<std::pair<uint64_t, uint64_t>>> rows[] = {
      {"empty image", 0x1000, 0, {}},
      {"exactly one block, no empty second", 0x1000, 0x80000, {{0x80000, 0x1000}}},
      {"one byte more makes a second block of 1", 0x1000, 0x80001, {{0x80000, 0x1000}, {1, 0x81000}}},
      {"addresses from 2 GB up carry ones in the upper half", 0x7FF80000, 0x100000,
       {{0x80000, 0x7FF80000}, {0x80000, 0xFFFFFFFF80000000ull}}},
      {"the 32-bit sum wraps before it is widened", 0xFFF80000, 0x100000, {{0x80000, 0xFFFFFFFFFFF80000ull}, {0x80000, 0}}},
  };
  for (const auto& [what, address, size, blocks] : rows) {
    std::vector<uint8_t> list(0x20000, 0xAA);
    uint32_t count = BuildCapsuleBlockList(list.data(), address, size);
    ASSERT_EQ(count, blocks.size()) << what;
    EXPECT_EQ(list[0] | list[1] << 8 | list[2] << 16 | list[3] << 24, (int)count) << what;
    for (size_t i = 0; i < blocks.size(); ++i) {
      EXPECT_EQ(U64(&list[8 + 16 * i]), blocks[i].first) << what << " block " << i;
      EXPECT_EQ(U64(&list[16 + 16 * i]), blocks[i].second) << what << " block " << i;
    }
  }
}

TEST_F(Capsule, TheProbeAsksOnceAndOnlyNotSupportedMeansLegacy) {
  // the answer, the image through the ESP, secure, the trace
  const std::tuple<const char*, uint8_t, bool, bool, const char*> rows[] = {
      {"not supported", 0xEF, false, false,
       "OBLIS 48h failed. (0xEF)\r\n<=== Oblis_48h (BIOS return not success)\r\n platform [legacy]\r\n"
       "<=== SMI_SecureCapsuleFlash (OBLIS 48h failed)\r\n"},
      {"taken", 0x00, true, true, " platform [secure]\r\n<=== SMI_IsSecurePlatform\r\n"},
      {"any other answer", 0x21, false, true, "OBLIS 48h failed. (0x21)\r\n<=== Oblis_48h\r\n platform [secure]\r\n"},
  };
  for (const auto& [what, status, viaEsp, secure, trace] : rows) {
    Install(Layout());
    EXPECT_TRUE(InitialSmi());
    std::vector<uint8_t> record, list;
    answers[0x48] = [&, status = status](OblisRegisters& r) {
      record.assign(At(r.edi), At(r.edi) + 12);
      list.assign(At(r.esi), At(r.esi) + 4);
      EXPECT_EQ(r.ecx, 0u) << "the probe carries no image";
      bed::Answer(r, status);
    };
    SetViaEsp(viaEsp ? 1 : 0);
    EXPECT_EQ(SMI_IsSecurePlatform(), secure) << what;
    EXPECT_EQ(SMI_IsSecurePlatform(), secure) << what;
    EXPECT_EQ(SmiCallsOf(0x48).size(), 1u) << what << ": a second call asks nothing";
    EXPECT_EQ(record, std::vector<uint8_t>({'$', 'E', 'X', 'T', 9, 0, 0, 0, (uint8_t)viaEsp, 0, 0, 0})) << what;
    EXPECT_EQ(list, std::vector<uint8_t>(4, 0)) << what << ": an empty block list";
    EXPECT_NE(Log().find(trace), std::string::npos) << what << "\n" << Log();
  }
}

}  // namespace
