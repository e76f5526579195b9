// The BVDT block: the marker search, the head copy and the two texts at their fixed offsets with
// every read kept inside the image and the field, and the search of the flash's OEM Data regions.
#include <gtest/gtest.h>

#include <cstring>

#include "image/ImageInternal.h"
#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using bed::At;
using Bvdt = bed::ScriptedBed;

// A block at `at` with the given texts, '$' before each field.
void PutBvdt(std::vector<uint8_t>& image, size_t at, const std::string& version, const std::string& model) {
  auto put = [&](size_t offset, const std::string& text) {
    for (size_t i = 0; i < text.size() && at + offset + i < image.size(); i++) image[at + offset + i] = text[i];
  };
  put(0, std::string(1, '$') + "BVDT$");
  put(0x09, "$");
  put(0x0D, "$");
  put(0x0E, version);
  put(0x26, "$");
  put(0x27, model);
  put(0x40, "$FURTHER");
}

std::string Narrow(const CHAR16* text) {
  std::string out;
  for (; *text != 0; ++text) out += (char)*text;
  return out;
}

TEST_F(Bvdt, ReadImageBvdtInfoStaysInsideTheImageAndTheFields) {
  // blocks at (version, model); found, offset, version, model
  using Blocks = std::vector<std::pair<size_t, std::pair<std::string, std::string>>>;
  const std::string full24(24, 'V'), full25(25, 'M');
  const std::tuple<const char*, Blocks, bool, uint32_t, std::string, std::string> rows[] = {
      {"plain block", {{0x100, {"1.02", "DOVRIN-X1"}}}, true, 0x100, "1.02", "DOVRIN-X1"},
      {"two blocks: the lower wins", {{0x300, {"2.00", "LATE"}}, {0x080, {"1.00", "EARLY"}}}, true, 0x80, "1.00", "EARLY"},
      {"unaligned block", {{0x123, {"3.3", "ODD"}}}, true, 0x123, "3.3", "ODD"},
      {"texts that fill their fields stop at the field end", {{0x10, {full24, full25}}}, true, 0x10, full24, full25},
      {"block in the last 63 bytes: version only partly there", {{0x400 - 0x14, {"ABCDEFGH", "NONE"}}}, true,
       0x400 - 0x14, "ABCDEF", ""},
      {"marker in the last bytes", {{0x400 - 5, {"", ""}}}, true, 0x400 - 5, "", ""},
      {"no block", {}, false, 0xFFFFFFFFu, "", ""},
  };
  for (const auto& [what, blocks, ok, at, version, model] : rows) {
    Install(Layout());
    // The image lies at the start of a larger allocation whose tail is poisoned: a read past the
    // image's end would take these bytes.
    std::vector<uint8_t> memory(0x400, 0);
    for (auto& [where, texts] : blocks) PutBvdt(memory, where, texts.first, texts.second);
    memory.resize(0x500, 'Z');
    UINT32 offset = 0;
    EXPECT_EQ(FindBvdtInImage(memory.data(), 0x400, &offset), ok) << what;
    EXPECT_EQ(offset, at) << what;
    EXPECT_EQ(ReadImageBvdtInfo(memory.data(), 0x400), ok) << what;
    EXPECT_EQ(Narrow(NewImageVersion()), version) << what;
    EXPECT_EQ(Narrow(NewImageModel()), model) << what;
    std::string log = Log();
    if (ok) {
      EXPECT_EQ(bed::CountOf(log, "===== BVDT Info =====\r\n"), 2u) << what;
      EXPECT_EQ(log.find("ZZZZ"), std::string::npos) << what << ": the head copy left the image\n" << log;
      EXPECT_NE(log.find(" Platform  (" + model + ")\r\n  Version  (" + version + ")\r\n"), std::string::npos) << what;
    } else {
      EXPECT_NE(log.find("BVDT table signature Not Found\r\n"), std::string::npos) << what;
    }
  }
}

constexpr uint32_t kBlock = 0x1000;
constexpr uint32_t kBase = 0xFFFF0000u;

TEST_F(Bvdt, FindBvdtBlockSearchesTheOemDataRegionsInMapOrder) {
  // the whole map (none: 1Eh fails), marker offsets, the 14h answer; found, address, size, trace
  const std::tuple<const char*, std::vector<bed::MapRegion>, std::vector<uint32_t>, uint8_t, bool, uint32_t, uint32_t, std::string> rows[] = {
      {"one OEM Data region holds it", {{0x03, kBase, 0x8000}, {0x0A, kBase + 0x9000, 0x2000}}, {0x9800}, 0, true,
       kBase + 0x9000, 0x2000, "BVDT found in block Address= 0xFFFF9000 Size= 0x2000\r\n"},
      {"the first OEM Data region without it is passed over",
       {{0x0A, kBase + 0x2000, 0x1000}, {0x0A, kBase + 0xA000, 0x1000}}, {0xA010}, 0, true, kBase + 0xA000, 0x1000,
       "BVDT found in block Address= 0xFFFFA000 Size= 0x1000\r\n"},
      {"a marker outside type 0x0A counts for nothing", {{0x03, kBase, 0x8000}, {0x0A, kBase + 0x9000, 0x1000}},
       {0x100}, 0, false, 0, 0, "<=== FindBvdtBlock\r\n"},
      {"read error", {{0x0A, kBase + 0x9000, 0x1000}}, {0x9000}, kOblisReadFailed, false, 0, 0,
       "<=== FindBvdtBlock (Read ROM failed)\r\n"},
      {"no whole ROM map", {}, {}, 0, false, 0, 0, "<=== FindBvdtBlock (Get whole ROM map failed)\r\n"},
  };
  for (const auto& [what, whole, markerAt, readCode, ok, address, size, trace] : rows) {
    Install(Layout());
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n");
    ASSERT_TRUE(InitialSmi());
    answers[0x13] = bed::FlashPartAnswer(0, {{kBlock / 256, 16}});
    ASSERT_TRUE(FuncOblis_13h());
    if (whole.empty()) AnswerCodes(0x1E, {0x22});
    else answers[0x1E] = bed::WholeMapAnswer(whole);
    std::vector<uint8_t> rom(16 * kBlock, 0xFF);
    for (uint32_t at : markerAt) PutBvdt(rom, at, "1", "M");
    answers[0x14] = [&, readCode = readCode](OblisRegisters& r) {
      if (readCode != 0) return bed::Answer(r, readCode);
      std::memcpy(At(r.esi), rom.data() + (r.edi - kBase), r.ecx);
    };
    UINT32 foundAddress = 7, foundSize = 7;
    EXPECT_EQ(FindBvdtBlock(&foundAddress, &foundSize), ok) << what;
    EXPECT_EQ(foundAddress, ok ? address : 7u) << what;
    EXPECT_EQ(foundSize, ok ? size : 7u) << what;
    EXPECT_NE(Log().find(trace), std::string::npos) << what << "\n" << Log();
    EXPECT_EQ(bed::CountOf(Log(), "===> FindBvdtBlock ["), 1u) << what;
  }
}

}  // namespace
