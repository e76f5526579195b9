// One SMI transaction as the driver makes it: who answers at all, the caller check, faults and
// unsupported functions, and the bytes of each answer at the offsets the driver reads them.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "SimHarness.h"

namespace {

using namespace simtest;

TEST(Transaction, NobodyAnswersOnAnotherPortOrToAnotherNumber) {
  TestMemory memory;
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  struct Case {
    const char* what;
    uint32_t eax, edx;
  };
  const Case cases[] = {
      {"wrong port", 0x10DF, 0xB3},
      {"wrong port in the low 16 bits", 0x10DF, 0x100B3},
      {"wrong SMI number", 0x10EF, 0xB2},
  };
  for (const Case& c : cases) {
    OblisRegisters frame{c.eax, kOblisCallerSignature, 0x12345678, c.edx, kBuf2, kBuf};
    const OblisRegisters before = frame;
    s.Transact(frame);
    EXPECT_EQ(std::memcmp(&frame, &before, sizeof(frame)), 0) << c.what;
  }
  EXPECT_TRUE(s.CallLog().empty());
}

TEST(Transaction, WrongCallerSignatureIsProhibitedAndTouchesNothing) {
  TestMemory memory;
  StageToolInformation(memory, kBuf);
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  OblisRegisters frame = Frame(s.machine(), 0x10, 0, kBuf);
  frame.ebx = 0x52564424;  // "$DVR" in the wrong byte order
  s.Transact(frame);
  EXPECT_EQ(Status(frame), kOblisAccessProhibited);
  EXPECT_EQ(Ah(frame), 0x10);
  EXPECT_EQ(memory.At(kBuf)[0], '$');  // the $VER block is still there: no answer was written
  EXPECT_EQ(s.CallLog(), std::vector<uint8_t>{0x10});
}

TEST(Transaction, UnlistedAndUnsupportedFunctionsAnswerEF) {
  TestMemory memory;
  StageToolInformation(memory, kBuf);
  sim::Simulator plain(sim::DefaultMachine(), {}, memory.Access());
  for (uint8_t fn : {0x00, 0x1B, 0x44, 0x48, 0x4C, 0xFF}) {
    EXPECT_EQ(Status(Call(plain, fn, 0, kBuf, kBuf2)), kOblisUnsupported) << std::hex << int(fn);
  }
  sim::Simulator limited(MachineFrom(R"({"unsupported": ["10h", "1Ch"]})"), {}, memory.Access());
  EXPECT_EQ(Status(Call(limited, 0x10, 0, kBuf)), kOblisUnsupported);
  EXPECT_EQ(Status(Call(limited, 0x1C)), kOblisUnsupported);
  EXPECT_EQ(Status(Call(limited, 0x1F, 1)), kOblisSuccess);
  EXPECT_TRUE(limited.HookPoints() == std::vector<uint32_t>{1});
}

TEST(Transaction, FaultFiresExactlyTimesThenTheFunctionAnswers) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"faults": {"13h": {"code": "0x23", "times": 2}, "1Eh": {"code": "0x22"},
                                             "1Fh": {"code": 5, "times": 0}}})"),
                   {}, memory.Access());
  std::vector<uint8_t> statuses;
  for (int i = 0; i < 4; ++i) statuses.push_back(Status(Call(s, 0x13, 0, kBuf, kBuf2)));
  EXPECT_EQ(statuses, (std::vector<uint8_t>{0x23, 0x23, 0x00, 0x00}));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Status(Call(s, 0x1E, 0, kBuf)), 0x22) << "attempt " << i;
  EXPECT_EQ(memory.At(kBuf)[0], 8) << "the third 13h wrote its size index";
  EXPECT_EQ(Status(Call(s, 0x1F, 3)), kOblisSuccess) << "times 0 never fires";
}

TEST(Transaction, PlatformStatusAnswerAsTheDriverKeepsIt) {
  TestMemory memory;
  StageToolInformation(memory, kBuf);
  sim::Simulator s(MachineFrom(R"({"status": {"permission": 1, "ac": 0, "dc": "0x65", "bound": 30,
                                  "vendor_id": "0x17AA", "major": 2, "minor": 9}})"),
                   {}, memory.Access());
  const OblisRegisters out = Call(s, 0x10, 0, kBuf);
  EXPECT_EQ(Status(out), 0);
  EXPECT_EQ(Ah(out), 1);
  EXPECT_EQ(out.ecx & 0xFF, 9u);         // CL minor
  EXPECT_EQ((out.ecx >> 8) & 0xFF, 2u);  // CH major
  const uint8_t* a = memory.At(kBuf);
  EXPECT_EQ(a[0], 0);
  EXPECT_EQ(a[1], 0x65);
  EXPECT_EQ(a[2], 30);
  EXPECT_EQ(memory.U16(kBuf + 11), 0x17AA);
  EXPECT_EQ(memory.U32(kBuf + 29), 34u);
  const std::string kept(reinterpret_cast<char*>(memory.At(kBuf)), 0x7C);
  EXPECT_EQ(kept.find("$CMDFILT"), std::string::npos) << "no filter record without status.filter";
}

TEST(Transaction, FilterRecordLiesInsideTheKeptBytes) {
  TestMemory memory;
  StageToolInformation(memory, kBuf);
  sim::Simulator s(MachineFrom(R"({"status": {"filter": [1, 2, 3, "0xA5"]}})"), {}, memory.Access());
  ASSERT_EQ(Status(Call(s, 0x10, 0, kBuf)), 0);
  const std::string kept(reinterpret_cast<char*>(memory.At(kBuf)), 0x7C);
  const size_t at = kept.find("$CMDFILT");
  ASSERT_NE(at, std::string::npos);
  EXPECT_GE(at, sizeof(OblisPlatformStatusAnswer));
  EXPECT_EQ(memory.U32(kBuf + at + 8), 16u);
  EXPECT_LE(at + 16, 0x7Cu);
  EXPECT_EQ(std::vector<uint8_t>(memory.At(kBuf + at + 12), memory.At(kBuf + at + 16)),
            (std::vector<uint8_t>{1, 2, 3, 0xA5}));
}

TEST(Transaction, PlatformStatusRefusesABufferWithoutToolInformation) {
  TestMemory memory;
  StageToolInformation(memory, kBuf);
  memory.At(kBuf)[18] = 0;  // end mark missing
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  EXPECT_EQ(Status(Call(s, 0x10, 0, kBuf)), kOblisAccessProhibited);
}

std::u16string WideAt(TestMemory& memory, uint32_t address) {
  std::u16string text;
  for (uint32_t a = address; memory.U16(a) != 0; a += 2) text.push_back(memory.U16(a));
  return text;
}

TEST(Transaction, ModelStringsComeFromTheDescriptionOrTheFlashBvdt) {
  TestMemory memory;
  sim::Simulator described(MachineFrom(R"({"info": {"model_name": "NB-7", "model_version": "2.05",
                                           "policy": "0x87", "extended": 1}})"),
                           {}, memory.Access());
  OblisRegisters out = Call(described, 0x11, 0, kBuf);
  EXPECT_EQ(Status(out), 0);
  EXPECT_EQ(Ah(out), 0x87);
  EXPECT_EQ(out.ecx, 1u);
  EXPECT_EQ(WideAt(memory, kBuf + kModelNameOffset), u"NB-7");
  EXPECT_EQ(WideAt(memory, kBuf + kModelVersionOffset), u"2.05");

  // Left out: the identity is whatever the flash's BVDT says, so an update that wrote a new
  // block shows on the next run.
  const sim::Machine plain = sim::DefaultMachine();
  std::vector<uint8_t> flash = sim::DefaultFlashContent(plain);
  std::string model, version;
  ASSERT_TRUE(sim::ReadBvdtIdentity(flash, model, version));
  EXPECT_EQ(model, "DV-REF1000");
  const size_t bvdt = std::search(flash.begin(), flash.end(), "$BVDT$", "$BVDT$" + 6) - flash.begin();
  std::memcpy(flash.data() + bvdt + 0x0E, "V9.99", 5);
  std::memcpy(flash.data() + bvdt + 0x27, "DV-NEXT\0\0\0", 10);
  sim::Simulator updated(plain, flash, memory.Access());
  ASSERT_EQ(Status(Call(updated, 0x11, 0, kBuf)), 0);
  EXPECT_EQ(WideAt(memory, kBuf + kModelNameOffset), u"DV-NEXT");
  EXPECT_EQ(WideAt(memory, kBuf + kModelVersionOffset), u"V9.99");
}

TEST(Transaction, RomMapListsEndWithTheirMarks) {
  TestMemory memory;
  std::memset(memory.At(kBuf), 0xAA, 0x100);
  std::memset(memory.At(kBuf2), 0xAA, 0x100);
  sim::Simulator s(MachineFrom(R"({"maps": {"protection": [{"type": 6, "address": "0xFF800000", "size": "0x40000"},
                                                          {"type": "0x10", "address": "0xFFF00000", "size": 4096}],
                                           "private": [{"address": "0xFFA00000", "size": "0x2000"}]}})"),
                   {}, memory.Access());
  ASSERT_EQ(Status(Call(s, 0x12, 0, kBuf, kBuf2)), 0);
  const std::vector<uint8_t> protection(memory.At(kBuf), memory.At(kBuf + 19));
  EXPECT_EQ(protection, (std::vector<uint8_t>{0x06, 0x00, 0x00, 0x80, 0xFF, 0x00, 0x00, 0x04, 0x00,  //
                                              0x10, 0x00, 0x00, 0xF0, 0xFF, 0x00, 0x10, 0x00, 0x00,  //
                                              kProtectionListEnd}));
  EXPECT_EQ(memory.U32(kBuf2), 0xFFA00000u);
  EXPECT_EQ(memory.U32(kBuf2 + 4), 0x2000u);
  EXPECT_EQ(memory.U32(kBuf2 + 8), kPrivateListEnd);
}

TEST(Transaction, FlashPartRecordAndBlockMap) {
  TestMemory memory;
  std::memset(memory.At(kBuf2), 0xAA, 0x100);
  sim::Simulator s(MachineFrom(R"({"flash": {"size": "0x800000", "size_index": 7, "vendor": "Macronix",
                                  "type": "MX25L6433F", "device_id": "0xC22017",
                                  "blocks": [{"size": "0x10000", "count": 127}, {"size": "0x1000", "count": 16}]}})"),
                   {}, memory.Access());
  ASSERT_EQ(Status(Call(s, 0x13, 0, kBuf, kBuf2)), 0);
  EXPECT_EQ(memory.At(kBuf)[0], 7);
  EXPECT_STREQ(reinterpret_cast<char*>(memory.At(kBuf + 1)), "Macronix");
  EXPECT_STREQ(reinterpret_cast<char*>(memory.At(kBuf + 32)), "MX25L6433F");
  EXPECT_EQ(memory.U32(kBuf + 64), 0xC22017u);
  EXPECT_EQ(memory.U32(kBuf + 68), 0x800000u);
  EXPECT_EQ(memory.U32(kBuf2 + 0), 0x007F0100u);  // 0x100 units of 256 bytes, 127 of them
  EXPECT_EQ(memory.U32(kBuf2 + 4), 0x00100010u);
  EXPECT_EQ(memory.U32(kBuf2 + 8), 0u);
}

TEST(Transaction, WholeRomMapRecordsEndWithTypeFF) {
  TestMemory memory;
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  ASSERT_EQ(Status(Call(s, 0x1E, 0, kBuf)), 0);
  const auto& whole = s.machine().whole;
  ASSERT_FALSE(whole.empty());
  for (size_t i = 0; i < whole.size(); ++i) {
    const uint32_t at = kBuf + static_cast<uint32_t>(i * 13);
    EXPECT_EQ(memory.At(at)[0], whole[i].type);
    EXPECT_EQ(memory.U32(at + 1), whole[i].address);
    EXPECT_EQ(memory.U32(at + 5), whole[i].size);
    EXPECT_EQ(memory.U32(at + 9), whole[i].attribute);
  }
  EXPECT_EQ(memory.At(kBuf + static_cast<uint32_t>(whole.size() * 13))[0], 0xFF);

  TestMemory second;
  std::memset(second.At(kBuf), 0x55, 13);
  sim::Simulator empty(MachineFrom(R"({"maps": {"whole": []}})"), {}, second.Access());
  ASSERT_EQ(Status(Call(empty, 0x1E, 0, kBuf)), 0);
  EXPECT_EQ(second.At(kBuf)[0], 0xFF);
}

TEST(Transaction, FinishAntiTheftAndHookPointsAreTakenAsSent) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"anti_theft": "0xC7"})"), {}, memory.Access());
  EXPECT_FALSE(s.LastFinish());
  const uint8_t finish[13] = {'$', 'F', 'I', 'N', 'I', 'S', 'H', 'I', 13, 0, 0, 0, 2};
  std::memcpy(memory.At(kBuf), finish, sizeof(finish));
  EXPECT_EQ(Status(Call(s, 0x16, 0x0001, 0, kBuf)), 0);  // CH clear CMOS 0, CL action 1
  EXPECT_EQ(s.LastFinish(), (std::vector<uint8_t>{0, 1, 2}));

  *memory.At(kBuf + 8) = 12;  // wrong length: not a finish record
  EXPECT_EQ(Status(Call(s, 0x16, 0x0102, 0, kBuf)), kOblisAccessProhibited);
  EXPECT_EQ(s.LastFinish(), (std::vector<uint8_t>{0, 1, 2}));

  const OblisRegisters anti = Call(s, 0x1C);
  EXPECT_EQ(Status(anti), 0);
  EXPECT_EQ(anti.ecx & 0xFF, 0xC7u);

  Call(s, 0x1F, 1);
  Call(s, 0x1F, 9);
  Call(s, 0x1F, 0);
  EXPECT_EQ(s.HookPoints(), (std::vector<uint32_t>{1, 9, 0}));
  EXPECT_EQ(s.CallLog(), (std::vector<uint8_t>{0x16, 0x16, 0x1C, 0x1F, 0x1F, 0x1F}));
}

TEST(Transaction, RefusedBufferAddressAnswersTooSmallAndWritesNothing) {
  TestMemory memory;
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  const std::vector<uint8_t> before = memory.bytes;
  struct Case {
    uint8_t fn;
    uint32_t edi, esi;
  };
  const Case cases[] = {
      {0x10, 0x20000000, 0},
      {0x11, kMemoryBase + kMemorySize - 0x10, 0},  // runs past the end
      {0x13, 0x0, kBuf2},
      {0x1E, 0xFFFFF000, 0},
      {0x16, 0, 0x30000000},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Status(Call(s, c.fn, 0, c.edi, c.esi)), kOblisBufferTooSmall) << std::hex << int(c.fn);
  }
  EXPECT_EQ(memory.bytes, before);
  EXPECT_FALSE(s.LastFinish());
}

TEST(Transaction, TraceLineCarriesFunctionRegistersAndStatus) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"anti_theft": "0x80"})"), {}, memory.Access());
  std::ostringstream trace;
  s.SetTrace(&trace);
  Call(s, 0x1C);
  Call(s, 0x4C);
  std::istringstream lines(trace.str());
  std::string line;
  std::vector<nlohmann::json> parsed;
  while (std::getline(lines, line)) parsed.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(parsed.size(), 2u);
  EXPECT_EQ(parsed[0]["fn"], "1Ch");
  EXPECT_EQ(parsed[0]["in"]["eax"], 0x1CDFu);
  EXPECT_EQ(parsed[0]["in"]["ebx"], kOblisCallerSignature);
  EXPECT_EQ(parsed[0]["in"]["edx"], 0xB2u);
  EXPECT_EQ(parsed[0]["in"]["ecx"], 0u);
  EXPECT_EQ(parsed[0]["out"]["ecx"], 0x80u);
  EXPECT_EQ(parsed[0]["out"]["eax"], 0x1C00u);
  EXPECT_EQ(parsed[0]["status"], 0);
  EXPECT_FALSE(parsed[0].contains("flash"));
  for (const char* key : {"eax", "ebx", "ecx", "edx", "esi", "edi"}) {
    EXPECT_TRUE(parsed[0]["in"].contains(key) && parsed[0]["out"].contains(key)) << key;
  }
  EXPECT_EQ(parsed[1]["fn"], "4Ch");
  EXPECT_EQ(parsed[1]["status"], 0xEF);
}

}  // namespace

namespace {

TEST(PortSpace, PortsWithNothingBehindReadAllOnesWhateverWasWritten) {
  simtest::TestMemory memory;
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  s.IoWrite8(0x80, 0x12);
  s.IoWrite8(0xB2, 0x00);
  EXPECT_EQ(s.IoRead(0x80, 1), 0xFFu);
  EXPECT_EQ(s.IoRead(0x80, 2), 0xFFFFu);
  EXPECT_EQ(s.IoRead(0xCF8, 4), 0xFFFFFFFFu);
  EXPECT_TRUE(s.CallLog().empty()) << "a plain port write is no SMI transaction";
}

}  // namespace
