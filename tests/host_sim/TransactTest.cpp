// One SMI transaction as the driver makes it, one row per call: the registers loaded, what the
// firmware answers in its registers, and the bytes of the answer at the offsets the driver reads.
#include <gtest/gtest.h>

#include "SimBed.h"

namespace {

using namespace simtest;
using ByteList = std::vector<uint8_t>;

struct Probe {
  uint32_t address;
  ByteList bytes;
};

ByteList Le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
ByteList Text(const std::string& text) { return ByteList(text.begin(), text.end() + 1); }

TEST(Transaction, EachFunctionAnswersInItsRegistersAndBytes) {
  const ByteList toolInformation = {'$', 'V', 'E', 'R', 4, 0, '1', '3', 'k', '$', 'O', 'B', 'L', 'I', 'S', '2', '0', '8', 0xFF};
  const ByteList finish = {'$', 'F', 'I', 'N', 'I', 'S', 'H', 'I', 13, 0, 0, 0, 2};
  const ByteList request = {'$', 'B', 'U', 'F', 'F', 'E', 'R', '_', 0, 0, 8, 0};
  const ByteList restore = {'$', 'R', 'D', 'I', 16, 0, 0, 0, 4, 0xFE, 0, 0, 0, 0, 0, 0};
  struct Row {
    const char* what;
    const char* machine;
    uint8_t fn;
    uint32_t ecx, edi, esi;
    ByteList staged;  // at kBuf before the call
    uint8_t status;
    int64_t ecxOut;   // -1: not looked at
    std::vector<Probe> probes;
  };
  const Row rows[] = {
      {"10h platform status", R"({"status": {"permission": 1, "ac": 0, "dc": "0x65", "bound": 30, "vendor_id": "0x17AA",
         "major": 2, "minor": 9}})", 0x10, 0, kBuf, 0, toolInformation, 0, 0x0209,
       {{kBuf, {0, 0x65, 30}}, {kBuf + 11, {0xAA, 0x17}}, {kBuf + 29, Le32(34)}}},
      {"10h without the tool's end mark", "{}", 0x10, 0, kBuf, 0,
       ByteList(toolInformation.begin(), toolInformation.end() - 1), kOblisAccessProhibited, -1, {}},
      {"10h into memory the tool does not own", "{}", 0x10, 0, 0x20000000, 0, {}, kOblisBufferTooSmall, -1, {}},
      {"12h protection and private lists with their end marks",
       R"({"maps": {"protection": [{"type": 6, "address": "0xFF800000", "size": "0x40000"},
         {"type": "0x10", "address": "0xFFF00000", "size": 4096}], "private": [{"address": "0xFFA00000", "size": "0x2000"}]}})",
       0x12, 0, kBuf, kBuf2, {}, 0, -1,
       {{kBuf, {0x06, 0x00, 0x00, 0x80, 0xFF, 0x00, 0x00, 0x04, 0x00, 0x10, 0x00, 0x00, 0xF0, 0xFF, 0x00, 0x10, 0x00, 0x00,
               kProtectionListEnd}},
        {kBuf2, {0x00, 0x00, 0xA0, 0xFF, 0x00, 0x20, 0x00, 0x00}},
        {kBuf2 + 8, Le32(kPrivateListEnd)}}},
      {"13h part record and block map",
       R"({"flash": {"size": "0x800000", "size_index": 7, "vendor": "Macronix", "type": "MX25L6433F",
         "device_id": "0xC22017", "blocks": [{"size": "0x10000", "count": 127}, {"size": "0x1000", "count": 16}]}})",
       0x13, 0, kBuf, kBuf2, {}, 0, -1,
       {{kBuf, {7}}, {kBuf + 1, Text("Macronix")}, {kBuf + 32, Text("MX25L6433F")}, {kBuf + 64, Le32(0xC22017)},
        {kBuf + 68, Le32(0x800000)}, {kBuf2, Le32(0x007F0100)}, {kBuf2 + 4, Le32(0x00100010)}, {kBuf2 + 8, Le32(0)}}},
      {"13h fault fires", R"({"faults": {"13h": {"code": "0x23", "times": 1}}})", 0x13, 0, kBuf, kBuf2, {}, 0x23, -1, {}},
      {"1Eh empty whole map is its end mark", R"({"maps": {"whole": []}})", 0x1E, 0, kBuf, 0, {0x55}, 0, -1,
       {{kBuf, {0xFF}}}},
      {"1Ch anti-theft state in CL", R"({"anti_theft": "0xC7"})", 0x1C, 0, 0, 0, {}, 0, 0xC7, {}},
      {"16h finish record", "{}", 0x16, 0x0001, 0, kBuf, finish, 0, -1, {}},
      {"16h record of the wrong length", "{}", 0x16, 0x0001, 0, kBuf,
       {'$', 'F', 'I', 'N', 'I', 'S', 'H', 'I', 12, 0, 0, 0, 2}, kOblisAccessProhibited, -1, {}},
      {"21h the EC's size index in CL", R"({"ec": {"size_index": 3}})", 0x21, 0x0300, 0, kBuf, request, 0, 0x0303, {}},
      {"21h a part table", R"({"ec": {"parts": ["0x20000", 4096]}})", 0x21, 0xFF00, 0, kBuf, request, 0, 0xFFFF,
       {{kBuf, {'$', 'E', 'C', 'I', 'N', 'F', 'O', '_', 2, 0, 0, 0, 0, 0, 2, 0, 0, 0x10, 0, 0}}}},
      {"21h without its request", "{}", 0x21, 0, 0, kBuf, {}, kOblisAccessProhibited, -1, {}},
      {"49h answers its status bits", R"({"factory_copy": {"status": "0x8000"}})", 0x49, kBuf, 0, 0, restore, 0, -1,
       {{kBuf + 14, {0x00, 0x80}}}},
      {"49h on a machine without it", "{}", 0x49, kBuf, 0, 0, restore, kOblisUnsupported, -1, {}},
      {"44h unsupported", R"({"unsupported": ["44h"]})", 0x44, 0, kBuf, 0, {}, kOblisUnsupported, -1, {}},
      {"an unlisted function", "{}", 0x4C, 0, kBuf, 0, {}, kOblisUnsupported, -1, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    TestMemory memory;
    std::copy(row.staged.begin(), row.staged.end(), memory.At(kBuf));
    sim::Simulator s(MachineFrom(row.machine), {}, memory.Access());
    const OblisRegisters out = Call(s, row.fn, row.ecx, row.edi, row.esi);
    EXPECT_EQ(Status(out), row.status);
    if (row.ecxOut >= 0) EXPECT_EQ(out.ecx & 0xFFFF, row.ecxOut);
    for (const Probe& probe : row.probes)
      EXPECT_EQ(ByteList(memory.At(probe.address), memory.At(probe.address) + probe.bytes.size()), probe.bytes)
          << std::hex << probe.address;
  }
}

// A call on another port, to another SMI number or with another caller signature gets no answer
// that touches the tool's memory.
TEST(Transaction, OnlyTheToolsOwnCallIsAnswered) {
  struct Row {
    const char* what;
    uint32_t eax, ebx, edx;
    bool logged;
  };
  const Row rows[] = {
      {"wrong port", 0x10DF, kOblisCallerSignature, 0xB3, false},
      {"wrong port in the low 16 bits", 0x10DF, kOblisCallerSignature, 0x100B3, false},
      {"wrong SMI number", 0x10EF, kOblisCallerSignature, 0xB2, false},
      {"caller signature in the wrong byte order", 0x10DF, 0x52564424, 0xB2, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    TestMemory memory;
    memory.At(kBuf)[0] = '$';
    sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
    OblisRegisters frame{row.eax, row.ebx, 0, row.edx, 0, kBuf};
    s.Transact(frame);
    EXPECT_EQ(memory.At(kBuf)[0], '$');
    EXPECT_EQ(s.CallLog().size(), row.logged ? 1u : 0u);
    if (row.logged) EXPECT_EQ(Status(frame), kOblisAccessProhibited);
  }
}

TEST(MachineKeys, BadValuesAreRefusedInWords) {
  const std::pair<const char*, const char*> rows[] = {
      {R"({"ec": {"size_index": 6}})", "ec.size_index: value 6 is larger than 5"},
      {R"({"ec": {"parts": []}})", "ec.parts: expected 1 to 16 part sizes"},
      {R"({"ec": {"parts": [0]}})", "ec.parts: the parts together hold 1 byte to 16 MB"},
      {R"({"ec": {"size_index": 1, "parts": [4096]}})", "ec: give size_index or parts, not both"},
      {R"({"ec": {"part_signature": "$ECINFO"}})", "ec.part_signature: a signature is 8 characters"},
      {R"({"ec": {"size": 1}})", "unknown key 'ec.size'"},
      {R"({"factory_copy": {"status": "0x10000"}})", "factory_copy.status: value 65536 is larger than 65535"},
      {R"({"faults": {"20h": {"code": 1, "after": -1}}})", "faults.20h.after: negative numbers are not allowed"},
      {R"({"power_cut_programmed_bytes": 256})", "power_cut_programmed_bytes: value 256 is larger than 255"},
      {R"({"power_cut_programmed_bytes": 8})", "power_cut_programmed_bytes: needs power_cut_after_operations, the cut it belongs to"},
      {R"({"answer_bytes": {"12h": {"ecx": "00"}}})", "answer_bytes.12h.ecx: the function writes no answer at ecx"},
  };
  for (const auto& [json, message] : rows) {
    sim::Machine machine;
    std::string error;
    EXPECT_FALSE(sim::ParseMachine(json, machine, error)) << json;
    EXPECT_EQ(error, message) << json;
  }
}

}  // namespace
