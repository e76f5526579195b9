// The channel and its wrappers: where the SMI number and the command port come from, the frame
// and the input record of every wrapper on the wire, the buffers refused when short, and the
// retry loop's attempts, delays, verdict and error report.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>

#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"

namespace {

using bed::At;
using Channel = bed::ScriptedBed;

TEST_F(Channel, SignatureIsFoundOnlyOnA16ByteBoundaryUpToTheLastSlot) {
  const std::pair<uint32_t, uint8_t> rows[] = {{0xE0000, 0x44}, {0xF0000, 0x44}, {0xFFFF0, 0x44}, {0xF0008, 0xEF}, {0xEFFF1, 0xEF}};
  for (auto [at, expected] : rows) {
    Place(0xF0000, {});  // the bed's own slot
    Place(at, bed::Bytes("$OBLIS\x44"));
    EXPECT_EQ(GetSmiMainFunctionNumberFromPhysicalMemory(), expected) << std::hex << at;
    Place(at, {});
  }
  EXPECT_EQ(bed::CountOf(Log(), " SMI main function number 0x44 found in 0xFFFF0\r\n"), 1u) << Log();
  EXPECT_EQ(bed::CountOf(Log(), " OBLIS signature not found.\r\n Using default value 0xEF for SMI main function number.\r\n"), 2u);
}

// A run refused before the set-up still ends with the host's hook point and final report; with
// no command port known they must not write to any port (port 0 is the DMA controller).
TEST_F(Channel, CallsBeforeASuccessfulSetUpTouchNoPort) {
  std::vector<uint8_t> fadt = bed::Bytes("FACP");  // SMI_CMD 0
  fadt.resize(116);
  Place(0x7E01000, fadt);
  EXPECT_FALSE(InitialSmi());
  EXPECT_NE(Log().find("<=== FindSMICommandPort (SMI command port not found)\r\n<=== InitialSmi (Find SMI command port failed)\r\n"),
            std::string::npos) << Log();
  EXPECT_FALSE(SMI_ApHookPoint(0));
  EXPECT_FALSE(FuncOblis_16h());
  EXPECT_TRUE(smiCalls.empty());
  EXPECT_NE(Log().find(" SMI command port not known, OBLIS 1Fh not called\r\n"), std::string::npos) << Log();
  EXPECT_NE(Log().find(" SMI command port not known, OBLIS 16h not called\r\n"), std::string::npos) << Log();
}

// Stand-ins for the addresses known only after the call.
constexpr uint32_t kBuf = 0xB0F1, kBuf2 = 0xB0F2, kData = 0xDA7A;
uint8_t gBlock[0x1000];  // static data lies below 4 GB in the host build
std::vector<uint8_t> gOut(0x20000), gOut2(0x20000), gHead(0x1000, 0x5A);

// Every wrapper's frame: AL the SMI number, AH the function, EBX "$DVR", DX the port, ECX, EDI
// and ESI as the function table lays them out; and the record it stages for the firmware.
TEST_F(Channel, EachWrapperPutsItsFrameAndRecordOnTheWire) {
  std::vector<uint8_t> version = bed::Bytes(std::string("$VER\x04\0" "13k$OBLIS208\xFF", 19));
  std::vector<uint8_t> finish = bed::Bytes(std::string("$FINISHI\x0D\0\0\0\x01", 13));
  std::memset(gBlock, 0xC3, 4);
  // the call, AH, ECX, EDI, ESI, the record at EDI ('D') or ESI ('S')
  const std::tuple<const char*, std::function<void()>, uint8_t, uint32_t, uint32_t, uint32_t, char, std::vector<uint8_t>> rows[] = {
      {"10h", [] { Oblis_10h({gOut.data(), 0x80}); }, 0x10, 0, kBuf, 0, 'D', version},
      {"11h", [] { UINT8 ah; UINT32 ecx; Oblis_11h({gOut.data(), 0x10000}, &ah, &ecx); }, 0x11, 0, kBuf, 0, 0, {}},
      {"12h", [] { Oblis_12h({gOut.data(), 0x10000}, {gOut2.data(), 0x10000}); }, 0x12, 0, kBuf, kBuf2, 0, {}},
      {"13h", [] { Oblis_13h({gOut.data(), 0x10000}, {gOut2.data(), 0x10000}); }, 0x13, 0, kBuf, kBuf2, 0, {}},
      {"16h", [] { Oblis_16h(0x01, 0x02, 1); }, 0x16, 0x0102, 0, kBuf, 'S', finish},
      {"1Ch", [] { UINT8 s; Oblis_1Ch(&s); }, 0x1C, 0, 0, 0, 0, {}},
      {"1Eh", [] { Oblis_1Eh({gOut.data(), 0x1000}); }, 0x1E, 0, kBuf, 0, 0, {}},
      {"1Fh", [] { Oblis_1Fh(9); }, 0x1F, 9, 0, 0, 0, {}},
      {"14h", [] { UINT8 s; Oblis_14h(0xFFF80000u, 0x10000, {gOut.data(), 0x10000}, &s); }, 0x14, 0x10000, 0xFFF80000u,
       kBuf, 0, {}},
      {"15h", [] { UINT8 s; Oblis_15h(gBlock, 0x1000, 0xFFF81000u, &s); }, 0x15, 0x1000, 0xFFF81000u, kData, 'S',
       {0xC3, 0xC3, 0xC3, 0xC3}},
      {"17h", [] { Oblis_17h(gHead.data(), {gOut.data(), 0x1000}); }, 0x17, 0x1000, kBuf, kBuf2, 'S', {0x5A, 0x5A}},
      {"1Ah", [] { SMI_OemOdmCustom2(2, 1); }, 0x1A, 0x0102, 0, 0, 0, {}},
  };
  for (const auto& [what, call, function, ecx, edi, esi, recordIn, expected] : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    std::vector<uint8_t> record;
    answers[function] = [&, recordIn = recordIn, &expected = expected](OblisRegisters& r) {
      if (recordIn != 0) record.assign(At(recordIn == 'D' ? r.edi : r.esi), At(recordIn == 'D' ? r.edi : r.esi) + expected.size());
    };
    call();
    UINT8 *buf = nullptr, *buf2 = nullptr;
    GetOblisBuffer(kOblisBufferSize, &buf);
    GetOblisBuffer2(kOblisBufferSize, &buf2);
    std::map<uint32_t, uint32_t> known = {{kBuf, (uint32_t)(uintptr_t)buf}, {kBuf2, (uint32_t)(uintptr_t)buf2}, {kData, (uint32_t)(uintptr_t)gBlock}};
    auto resolve = [&](uint32_t v) { return known.count(v) ? known[v] : v; };
    ASSERT_EQ(smiCalls.size(), 1u) << what;
    const OblisRegisters& r = smiCalls[0];
    EXPECT_EQ(std::vector<uint32_t>({r.eax & 0xFFFF, r.ebx, r.edx & 0xFFFF, r.ecx, r.edi, r.esi}),
              std::vector<uint32_t>({(function << 8) | 0xDFu, 0x24445652u, 0xB2u, resolve(ecx), resolve(edi), resolve(esi)}))
        << what;
    EXPECT_EQ(record, expected) << what;
  }
}

// A caller's buffer shorter than what the firmware hands back is refused before any call.
TEST_F(Channel, ShortBuffersAreRefusedBeforeTheCall) {
  const char* kShort = "Output buffer too short";
  const std::tuple<const char*, std::function<bool()>, const char*> rows[] = {  // reason null: taken
      {"11h", [] { return Oblis_11h({gOut.data(), 0xFFFF}, nullptr, nullptr); }, kShort},
      {"12h private", [] { return Oblis_12h({gOut.data(), 0x10000}, {gOut2.data(), 0xFFFF}); }, kShort},
      {"13h map", [] { return Oblis_13h({gOut.data(), 0x10000}, {gOut2.data(), 0xFFFF}); }, kShort},
      {"1Eh", [] { return Oblis_1Eh({gOut.data(), 0xFFF}); }, kShort},
      {"1Eh exact", [] { return Oblis_1Eh({gOut.data(), 0x1000}); }, nullptr},
      {"14h", [] { return Oblis_14h(0xFFFF0000u, 0x1000, {gOut.data(), 0xFFF}, nullptr); }, kShort},
      {"14h exact", [] { return Oblis_14h(0xFFFF0000u, 0x1000, {gOut.data(), 0x1000}, nullptr); }, nullptr},
      {"14h past the shared buffer", [] { return Oblis_14h(0xFFFF0000u, 0x20001, {}, nullptr); }, "Read size over OBLIS buffer"},
      {"ROM read", [] { return SMI_ReadRom(0xFFFF0000u, 0x1000, {gOut.data(), 0xFFF}); }, kShort},
      {"17h", [] { return Oblis_17h(nullptr, {gOut.data(), 0xFFF}); }, kShort},
  };
  for (const auto& [what, call, reason] : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    EXPECT_EQ(call(), reason == nullptr) << what;
    EXPECT_EQ(smiCalls.size(), reason == nullptr ? 1u : 0u) << what;
    if (reason != nullptr) EXPECT_NE(Log().find(std::string(" (") + reason + ")\r\n"), std::string::npos) << what << Log();
  }
}

// Per wrapper and code sequence: the codes that end the loop, the ones accepted, the attempts,
// the delays between them and the report on the console.
TEST_F(Channel, RetryLoopAttemptsDelaysVerdictAndReport) {
  struct Row {
    const char* what;
    const char* others;  // the [Others] keys
    uint8_t function;
    std::vector<uint8_t> codes;
    bool result;
    uint8_t status;  // 14h and 15h hand it back
    size_t attempts;
    size_t stalls;
    const char* console;
  };
  const char* retry2 = "SMIErrorRetry=2\nSMIErrorRetryDelay=1\n";
  const Row rows[] = {
      {"retry 0: one attempt, delay after it", "SMIErrorRetry=0\nSMIErrorRetryDelay=3\n", 0x1F, {0x20}, false, 0, 1, 3, ""},
      {"retry 255: no attempt at all", "SMIErrorRetry=255\nSMIErrorRetryDelay=3\n", 0x1F, {0x00}, false, 0, 0, 0, ""},
      {"success on the third", "SMIErrorRetry=5\nSMIErrorRetryDelay=2\n", 0x1F, {0x20, 0x24, 0x00}, true, 0, 3, 4, ""},
      {"default settings: six attempts 100 ms apart", "", 0x1F, {0x20}, false, 0, 6, 600, ""},
      {"16h unsupported throughout is success", retry2, 0x16, {0xEF}, true, 0, 3, 3, ""},
      {"1Eh unsupported is failure", retry2, 0x1E, {0xEF}, false, 0, 3, 3, ""},
      {"14h locked ME ends at once, success", retry2, 0x14, {0x2A}, true, 0x2A, 1, 0, ""},
      {"14h a failure then locked ME", retry2, 0x14, {0x24, 0x2A}, true, 0x2A, 2, 1, ""},
      {"14h read failure reported", retry2, 0x14, {0x24}, false, 0x24, 3, 3,
       "\r\n\r\nError: OBLIS 14h failed.\r\nInternal Error 24\r\nFBTS: Read bios failed.\r\n"},
      {"15h skipped block ends at once, success", retry2, 0x15, {0x29}, true, 0x29, 1, 0, ""},
      {"15h write failure reported", retry2, 0x15, {0x25}, false, 0x25, 3, 3,
       "\r\n\r\nError: OBLIS 15h failed.\r\nInternal Error 25\r\nFBTS: Write bios failed.\r\n"},
      {"15h locked ME is no loop end for a write", retry2, 0x15, {0x2A, 0x00}, true, 0x00, 2, 1, ""},
      {"17h failure is not reported", retry2, 0x17, {0xEF}, false, 0, 3, 3, ""},
      {"1Ah unsupported is success, once", retry2, 0x1A, {0xEF}, true, 0, 1, 0, ""},
      {"1Ah failure is not retried", retry2, 0x1A, {0x25, 0x00}, false, 0, 1, 0, ""},
      {"11h refusal names the code", "SMIErrorRetry=0\nSMIErrorRetryDelay=0\n", 0x11, {0x01}, false, 0, 1, 0,
       "\r\n\r\nError: OBLIS 11h failed.\r\nInternal Error 1\r\n"
       "Access prohibited. (Need provide secure mechanism to work for it, EBX='$DVR')'\r\n"},
  };
  for (const Row& row : rows) {
    Install(Layout());
    LoadSettings(std::string("[Log_file]\nFlag=1\nLevel=4\n[Others]\n") + row.others);
    ASSERT_TRUE(InitialSmi());
    AnswerCodes(row.function, row.codes);
    size_t stallsBefore = Environment().StallCalls().size();
    UINT8 status = 0x77;
    bool result = false;
    switch (row.function) {
      case 0x1F: result = Oblis_1Fh(3); break;
      case 0x16: result = Oblis_16h(0, 2, 1); break;
      case 0x1E: result = Oblis_1Eh({gOut.data(), 0x1000}); break;
      case 0x14: result = Oblis_14h(0xFFF00000u, 0x1000, {gBlock, 0x1000}, &status); break;
      case 0x15: result = Oblis_15h(gBlock, 0x1000, 0xFFF00000u, &status); break;
      case 0x17: result = Oblis_17h(nullptr, {gOut.data(), 0x1000}); break;
      case 0x1A: result = SMI_OemOdmCustom2(1, 0); break;
      case 0x11: result = Oblis_11h({}, nullptr, nullptr); break;
    }
    EXPECT_EQ(result, row.result) << row.what;
    if (row.function == 0x14 || row.function == 0x15) EXPECT_EQ(status, row.status) << row.what;
    EXPECT_EQ(SmiCallsOf(row.function).size(), row.attempts) << row.what;
    std::vector<uint64_t> stalls(Environment().StallCalls().begin() + stallsBefore, Environment().StallCalls().end());
    EXPECT_EQ(stalls, std::vector<uint64_t>(row.stalls, 1000)) << row.what;
    EXPECT_EQ(Console(), row.console) << row.what;
    // One close per call, the wrapper's own: a refusal names the loop's reason, and the wrappers
    // that open no trace (14h, 15h, 17h) write theirs only then.
    if (row.function != 0x1A) {
      char close[24];
      std::snprintf(close, sizeof(close), "<=== Oblis_%02Xh", row.function);
      bool opens = row.function != 0x14 && row.function != 0x15 && row.function != 0x17;
      EXPECT_EQ(bed::CountOf(Log(), close), opens || !row.result ? 1u : 0u) << row.what << Log();
      EXPECT_EQ(bed::CountOf(Log(), std::string(close) + " (BIOS return not success)\r\n"), row.result ? 0u : 1u) << row.what;
    }
  }
}

}  // namespace
