// The channel: where the SMI number and the command port come from, the register frame of every
// wrapper on the wire, the retry loop's attempts and delays, and the error report's text.
#include <gtest/gtest.h>

#include "FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

TEST(Channel, SignatureIsFoundOnlyOnA16ByteBoundaryUpToTheLastSlot) {
  FakeFirmware fw;
  struct Row {
    uint32_t at;
    uint8_t expected;
  };
  const Row rows[] = {
      {0xE0000, 0x44},  // first slot
      {0xF0000, 0x44},
      {0xFFFF0, 0x44},  // last slot
      {0xF0008, 0xEF},  // misaligned: not seen
      {0xEFFF1, 0xEF},
  };
  fw.Clear(kSignatureSlot);
  for (const Row& row : rows) {
    std::vector<uint8_t> slot = Bytes("$OBLIS");
    slot.push_back(0x44);
    fw.Place(row.at, slot);
    EXPECT_EQ(GetSmiMainFunctionNumberFromPhysicalMemory(), row.expected) << std::hex << row.at;
    fw.Clear(row.at);
  }
  std::string log = fw.Log();
  EXPECT_EQ(CountOf(log, " SMI main function number 0x44 found in 0xFFFF0\r\n"), 1u) << log;
  EXPECT_EQ(CountOf(log, " OBLIS signature not found.\r\n Using default value 0xEF for SMI main function number.\r\n"),
            2u);
}

// A run refused before the set-up still ends with the host's hook point and final report;
// with no command port known they must not write to any port (port 0 is the DMA controller).
TEST(Channel, CallsBeforeASuccessfulSetUpTouchNoPort) {
  FakeFirmware fw;
  fw.PlaceFacp(kFacp, 0);
  EXPECT_FALSE(InitialSmi());
  EXPECT_FALSE(SMI_ApHookPoint(0));
  EXPECT_FALSE(FuncOblis_16h());
  EXPECT_TRUE(fw.frames.empty());
  EXPECT_NE(fw.Log().find(" SMI command port not known, OBLIS 1Fh not called\r\n"), std::string::npos) << fw.Log();
  EXPECT_NE(fw.Log().find(" SMI command port not known, OBLIS 16h not called\r\n"), std::string::npos) << fw.Log();
}

// Every wrapper's frame: AL the SMI number, AH the function, EBX the signature, DX the port,
// ECX/EDI/ESI as the function table lays them out.
TEST(Channel, EachWrapperPutsItsFrameOnTheWire) {
  enum Arg { kZero, kBuf, kBuf2, kValue };
  struct Row {
    const char* what;
    std::function<void()> call;
    uint8_t function;
    Arg ecx, edi, esi;
    uint32_t ecxValue;
  };
  static std::vector<uint8_t> out(0x10000), out2(0x10000);
  const Row rows[] = {
      {"10h", [] { Oblis_10h({out.data(), 0x80}); }, 0x10, kZero, kBuf, kZero, 0},
      {"11h", [] { UINT8 ah; UINT32 ecx; Oblis_11h({out.data(), 0x10000}, &ah, &ecx); }, 0x11, kZero, kBuf, kZero, 0},
      {"12h", [] { Oblis_12h({out.data(), 0x10000}, {out2.data(), 0x10000}); }, 0x12, kZero, kBuf, kBuf2, 0},
      {"13h", [] { Oblis_13h({out.data(), 0x10000}, {out2.data(), 0x10000}); }, 0x13, kZero, kBuf, kBuf2, 0},
      {"16h", [] { Oblis_16h(0x01, 0x02, 1); }, 0x16, kValue, kZero, kBuf, 0x0102},
      {"1Ch", [] { UINT8 s; Oblis_1Ch(&s); }, 0x1C, kZero, kZero, kZero, 0},
      {"1Eh", [] { Oblis_1Eh({out.data(), 0x1000}); }, 0x1E, kZero, kBuf, kZero, 0},
      {"1Fh", [] { Oblis_1Fh(9); }, 0x1F, kValue, kZero, kZero, 9},
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
                auto expect = [&](Arg a) -> uint32_t {
                  return a == kBuf ? (uint32_t)(uintptr_t)buf : a == kBuf2 ? (uint32_t)(uintptr_t)buf2 : 0;
                };
                ASSERT_EQ(fw.frames.size(), 1u) << row.what;
                const OblisRegisters& r = fw.frames[0];
                EXPECT_EQ(Smi(r), kSmiNumber) << row.what;
                EXPECT_EQ(Fn(r), row.function) << row.what;
                EXPECT_EQ(r.ebx, 0x24445652u) << row.what;
                EXPECT_EQ(r.edx & 0xFFFF, kCommandPort) << row.what;
                EXPECT_EQ(r.ecx, row.ecx == kValue ? row.ecxValue : expect(row.ecx)) << row.what;
                EXPECT_EQ(r.edi, expect(row.edi)) << row.what;
                EXPECT_EQ(r.esi, expect(row.esi)) << row.what;
              }))
        << row.what;
  }
}

TEST(Channel, RetryLoopAttemptsDelaysAndVerdict) {
  struct Row {
    const char* what;
    int retry;
    int delay;
    uint8_t function;
    std::vector<uint8_t> codes;
    bool result;
    size_t attempts;
    size_t stalls;
  };
  const Row rows[] = {
      {"retry 0: one attempt, delay after it", 0, 3, 0x1F, {0x20}, false, 1, 3},
      {"retry 255: no attempt at all", 255, 3, 0x1F, {0x00}, false, 0, 0},
      {"success on the third", 5, 2, 0x1F, {0x20, 0x24, 0x00}, true, 3, 4},
      {"16h unsupported throughout is success", 2, 1, 0x16, {0xEF}, true, 3, 3},
      {"1Eh unsupported is failure", 1, 1, 0x1E, {0xEF}, false, 2, 2},
      {"default settings: six attempts 100 ms apart", -1, -1, 0x1F, {0x20}, false, 6, 600},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                if (row.retry >= 0) FakeFirmware::MutableSettings().others.smiErrorRetry = row.retry;
                if (row.delay >= 0) FakeFirmware::MutableSettings().others.smiErrorRetryDelay = row.delay;
                if (row.retry < 0) InitialIniStructure();
                ASSERT_TRUE(InitialSmi());
                fw.AnswerCodes(row.function, row.codes);
                bool result = false;
                static UINT8 out[0x1000];
                if (row.function == 0x1F) result = Oblis_1Fh(3);
                if (row.function == 0x16) result = Oblis_16h(0, 2, 1);
                if (row.function == 0x1E) result = Oblis_1Eh({out, sizeof out});
                EXPECT_EQ(result, row.result) << row.what;
                EXPECT_EQ(fw.FramesOf(row.function).size(), row.attempts) << row.what;
                EXPECT_EQ(fw.StallCount(), row.stalls) << row.what;
                for (uint64_t us : fw.Stalls()) EXPECT_EQ(us, 1000u);
              }))
        << row.what;
  }
}

}  // namespace
