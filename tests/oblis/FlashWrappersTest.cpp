// The flash wrappers: read (14h), write (15h), external map (17h) and the update bracket (1Ah) —
// their frames on the wire, the codes that end their loops, what they hand back and trace.
#include <gtest/gtest.h>

#include "FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

TEST(FlashWrappers, EachPutsItsFrameOnTheWire) {
  enum Arg { kZero, kBuf, kBuf2, kData, kValue };
  struct Row {
    const char* what;
    std::function<void()> call;
    uint8_t function;
    Arg ecx, edi, esi;
    uint32_t ecxValue, ediValue;
  };
  static std::vector<uint8_t> out(0x20000);
  static std::vector<uint8_t> head(0x1000, 0x5A);
  static uint8_t block[0x1000];  // static data lies below 4 GB in the host build
  const Row rows[] = {
      {"14h", [] { UINT8 s; Oblis_14h(0xFFF80000u, 0x10000, {out.data(), 0x10000}, &s); }, 0x14, kValue, kValue, kBuf, 0x10000,
       0xFFF80000u},
      {"15h", [] { UINT8 s; Oblis_15h(block, 0x1000, 0xFFF81000u, &s); }, 0x15, kValue, kValue, kData, 0x1000,
       0xFFF81000u},
      {"17h", [] { Oblis_17h(head.data(), {out.data(), 0x1000}); }, 0x17, kValue, kBuf, kBuf2, 0x1000, 0},
      {"1Ah", [] { SMI_OemOdmCustom2(2, 1); }, 0x1A, kValue, kZero, kZero, 0x0102, 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                row.call();
                UINT8* buf = nullptr;
                UINT8* buf2 = nullptr;
                GetOblisBuffer(kOblisBufferSize, &buf);
                GetOblisBuffer2(kOblisBufferSize, &buf2);
                auto expect = [&](Arg a, uint32_t value) -> uint32_t {
                  switch (a) {
                    case kBuf: return (uint32_t)(uintptr_t)buf;
                    case kBuf2: return (uint32_t)(uintptr_t)buf2;
                    case kData: return (uint32_t)(uintptr_t)block;
                    case kValue: return value;
                    default: return 0;
                  }
                };
                ASSERT_EQ(fw.frames.size(), 1u) << row.what;
                const OblisRegisters& r = fw.frames[0];
                EXPECT_EQ(Smi(r), kSmiNumber) << row.what;
                EXPECT_EQ(Fn(r), row.function) << row.what;
                EXPECT_EQ(r.ebx, 0x24445652u) << row.what;
                EXPECT_EQ(r.edx & 0xFFFF, kCommandPort) << row.what;
                EXPECT_EQ(r.ecx, expect(row.ecx, row.ecxValue)) << row.what;
                EXPECT_EQ(r.edi, expect(row.edi, row.ediValue)) << row.what;
                EXPECT_EQ(r.esi, expect(row.esi, 0)) << row.what;
              }))
        << row.what;
  }
}

// Loop endings, acceptance, delays and the report, per wrapper and code sequence.
TEST(FlashWrappers, LoopEndingsAcceptanceAndReports) {
  struct Row {
    const char* what;
    uint8_t function;
    std::vector<uint8_t> codes;
    bool result;
    uint8_t status;
    size_t attempts;
    size_t stalls;
    const char* console;
  };
  const Row rows[] = {
      {"14h locked ME ends at once, success", 0x14, {0x2A}, true, 0x2A, 1, 0, ""},
      {"14h a failure then locked ME", 0x14, {0x24, 0x2A}, true, 0x2A, 2, 1, ""},
      {"14h read failure reported", 0x14, {0x24}, false, 0x24, 3, 3,
       "\r\n\r\nError: OBLIS 14h failed.\r\nInternal Error 24\r\nFBTS: Read bios failed.\r\n"},
      {"15h skipped block ends at once, success", 0x15, {0x29}, true, 0x29, 1, 0, ""},
      {"15h write failure reported", 0x15, {0x25}, false, 0x25, 3, 3,
       "\r\n\r\nError: OBLIS 15h failed.\r\nInternal Error 25\r\nFBTS: Write bios failed.\r\n"},
      {"15h locked ME is no loop end for a write", 0x15, {0x2A, 0x00}, true, 0x00, 2, 1, ""},
      {"17h failure is not reported", 0x17, {0xEF}, false, 0xEF, 3, 3, ""},
      {"1Ah unsupported is success, once", 0x1A, {0xEF}, true, 0xEF, 1, 0, ""},
      {"1Ah failure is not retried", 0x1A, {0x25, 0x00}, false, 0x25, 1, 0, ""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                FakeFirmware::MutableSettings().others.smiErrorRetry = 2;
                ASSERT_TRUE(InitialSmi());
                fw.AnswerCodes(row.function, row.codes);
                static uint8_t data[0x1000];
                UINT8 status = 0x77;
                bool result = false;
                if (row.function == 0x14) result = Oblis_14h(0xFFF00000u, 0x1000, {data, 0x1000}, &status);
                if (row.function == 0x15) result = Oblis_15h(data, 0x1000, 0xFFF00000u, &status);
                if (row.function == 0x17) result = Oblis_17h(nullptr, {data, 0x1000});
                if (row.function == 0x1A) result = SMI_OemOdmCustom2(1, 0);
                EXPECT_EQ(result, row.result) << row.what;
                if (row.function == 0x14 || row.function == 0x15) EXPECT_EQ(status, row.status) << row.what;
                EXPECT_EQ(fw.FramesOf(row.function).size(), row.attempts) << row.what;
                EXPECT_EQ(fw.StallCount(), row.stalls) << row.what;
                EXPECT_EQ(fw.Console(), row.console) << row.what;
              }))
        << row.what;
  }
}

}  // namespace
