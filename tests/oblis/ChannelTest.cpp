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

TEST(Channel, FadtComesFromTheAcpi20PointerWhateverTheOrder) {
  FakeFirmware fw;
  fw.PlaceAcpi(kRsdp10, 0x7D00000, {kFacp});
  fw.PlaceAcpi(kRsdp20, kRsdt, {kDsdt, kFacp2});
  fw.PlaceFacp(kFacp2, 0xB3);
  struct Row {
    const char* what;
    std::vector<std::pair<EFI_GUID, uint32_t>> tables;
    bool found;
    uint32_t address;
    const char* console;
  };
  const Row rows[] = {
      {"1.0 only", {{kAcpi10TableGuid, kRsdp10}}, true, kFacp, ""},
      {"2.0 first", {{kAcpi20TableGuid, kRsdp20}, {kAcpi10TableGuid, kRsdp10}}, true, kFacp2, ""},
      {"1.0 first", {{kAcpi10TableGuid, kRsdp10}, {kAcpi20TableGuid, kRsdp20}}, true, kFacp2, ""},
      {"none", {{kGlobalVariableGuid, kRsdp10}}, false, 0, "Error: RSDP not found!\r\n"},
      {"RSDT zero", {{kAcpi10TableGuid, 0xF3000}}, false, 0, "Error: RSDT not found!\r\n"},
      {"no FACP listed", {{kAcpi10TableGuid, 0xF4000}}, false, 0, ""},
  };
  fw.PlaceAcpi(0xF3000, 0, {});
  fw.PlaceAcpi(0xF4000, 0x7D10000, {kDsdt});
  for (const Row& row : rows) {
    fw.SetConfigurationTables(row.tables);
    std::string before = fw.Console();
    uint32_t address = 0xDEAD;
    EXPECT_EQ(GetFacpTableAddress(&address), row.found) << row.what;
    EXPECT_EQ(address, row.address) << row.what;
    EXPECT_EQ(fw.Console().substr(before.size()), row.console) << row.what;
  }
  std::string log = fw.Log();
  EXPECT_NE(log.find(" FACP table address = 0x07E02000\r\n===== ACPI TABLE FACP =====\r\n0000:  46 41 43 50"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("<=== GetFacpTableAddress (RSDT not found)"), std::string::npos);
  EXPECT_NE(log.find("<=== GetFacpTableAddress (Not found)"), std::string::npos);
}

TEST(Channel, ZeroSmiCommandPortFailsSetUp) {
  FakeFirmware fw;
  fw.PlaceFacp(kFacp, 0xFFFF0000u);  // only the low 16 bits count
  EXPECT_FALSE(InitialSmi());
  EXPECT_EQ(fw.Console(), "Error: SMI command port not found!\r\n");
  EXPECT_NE(fw.Log().find("<=== InitialSmi (Find SMI command port failed)"), std::string::npos);
  EXPECT_TRUE(fw.frames.empty());
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

TEST(Channel, SecondInitialSmiDoesNotScanAgain) {
  FakeFirmware fw;
  ASSERT_TRUE(InitialSmi());
  EXPECT_EQ(GetSmiNumber(), kSmiNumber);
  EXPECT_EQ(GetSmiCommandPort(), kCommandPort);
  size_t reads = fw.physicalReads;
  fw.PlaceFacp(kFacp, 0x99);
  ASSERT_TRUE(InitialSmi());
  EXPECT_EQ(fw.physicalReads, reads);
  EXPECT_EQ(GetSmiCommandPort(), kCommandPort);
  EXPECT_NE(fw.Log().find("<=== InitialSmi (Already initialed)"), std::string::npos);
}

TEST(Channel, SharedBuffersAreLowZeroedAndKept) {
  FakeFirmware fw;
  UINT8* first = nullptr;
  UINT8* again = nullptr;
  UINT8* second = nullptr;
  ASSERT_TRUE(GetOblisBuffer(kOblisBufferSize, &first));
  ASSERT_TRUE(GetOblisBuffer2(kOblisBufferSize, &second));
  first[0x1FFFF] = 0x5A;
  ASSERT_TRUE(GetOblisBuffer(kOblisBufferSize, &again));
  EXPECT_EQ(first, again);
  EXPECT_EQ(again[0x1FFFF], 0x5A) << "kept, not zeroed again on a later request";
  EXPECT_NE(first, second);
  EXPECT_LE(reinterpret_cast<uintptr_t>(first) + kOblisBufferSize - 1, 0x0FFFFFFFu);
  EXPECT_LE(reinterpret_cast<uintptr_t>(second) + kOblisBufferSize - 1, 0x0FFFFFFFu);
  EXPECT_EQ(second[0x1FFFF], 0);
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

TEST(Channel, RetryLoopTracesEachFailedAttemptAndTheVerdict) {
  FakeFirmware fw;
  FakeFirmware::MutableSettings().others.smiErrorRetry = 2;
  ASSERT_TRUE(InitialSmi());
  fw.AnswerCodes(0x1F, {0x25, 0x26, 0x00});
  EXPECT_TRUE(Oblis_1Fh(1));
  fw.AnswerCodes(0x1F, {0x27});
  EXPECT_FALSE(Oblis_1Fh(1));
  std::string log = fw.Log();
  EXPECT_NE(log.find("Call OBLIS failed. Error Code: 0x25, Retry Count: 01\r\n"
                     "Call OBLIS failed. Error Code: 0x26, Retry Count: 02\r\n"
                     "Call OBLIS success\r\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("Call OBLIS failed. Error Code: 0x27, Retry Count: 03\r\n<=== Oblis_1Fh (BIOS return not success)"),
            std::string::npos)
      << log;
  EXPECT_EQ(fw.Console(), "") << "1Fh does not report";
}

TEST(Channel, LoopEndingCodeStopsAtOnceWithoutDelay) {
  FakeFirmware fw;
  static const UINT8 accepted[] = {0x00, 0x29};
  static const UINT8 ending[] = {0x29};
  OblisRetrySpec spec = {u"Oblis_15h", 0x15, accepted, 2, ending, 1, true};
  struct Context {
    int calls;
    std::vector<uint8_t> codes;
  } context{0, {0x25, 0x29, 0x00}};
  auto attempt = [](VOID* c) -> UINT8 {
    auto* ctx = static_cast<Context*>(c);
    return ctx->codes[ctx->calls++];
  };
  UINT8 status = 0;
  EXPECT_TRUE(RunOblisRetryLoop(&spec, attempt, &context, &status));
  EXPECT_EQ(status, 0x29);
  EXPECT_EQ(context.calls, 2);
  EXPECT_EQ(fw.StallCount(), 1u) << "only the 0x25 attempt is followed by a delay";
}

TEST(Channel, FailedReportingWrapperPrintsTheErrorReport) {
  struct Row {
    uint8_t code;
    const char* console;
  };
  const Row rows[] = {
      {0x22, "\r\n\r\nError: OBLIS 1Ch failed.\r\nInternal Error 22\r\nFBTS: Unknown platform rom map.\r\n"},
      {0xEF, "\r\n\r\nError: OBLIS 1Ch failed.\r\nInternal Error EF\r\nFunction not supported.\r\n"},
      {0x5C, "\r\n\r\nError: OBLIS 1Ch failed.\r\nInternal Error 5C\r\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                FakeFirmware::MutableSettings().others.smiErrorRetry = 0;
                ASSERT_TRUE(InitialSmi());
                fw.AnswerCodes(0x1C, {row.code});
                UINT8 status = 0;
                EXPECT_FALSE(Oblis_1Ch(&status));
                EXPECT_EQ(fw.Console(), row.console);
              }));
  }
}

}  // namespace
