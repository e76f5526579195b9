// Functions 10h, 11h and 16h from the level above the wrappers: the command filter record kept
// from the 10h answer, the policy flags and model strings of 11h, and the finish state.
#include <gtest/gtest.h>

#include <cstring>

#include "checks/ChecksInternal.h"
#include "config/ConfigInternal.h"
#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"

namespace {

using bed::At;
using PlatformStatus = bed::ScriptedBed;

// Only the 0x80 bytes held (4 of result, 0x7C of the buffer) are known. The filter grants
// options, so a damaged record is cut or emptied, never dropped: dropping it would lift the
// firmware's restrictions.
TEST_F(PlatformStatus, FilterRecordKeepsOnlyTheBytesHeld) {
  // where "$CMDFILT" starts in the firmware's buffer, its length field, kept, the caller's count
  const std::tuple<const char*, size_t, uint32_t, bool, uint32_t> rows[] = {
      {"inside", 0x30, 16, true, 4},
      {"ends at the last byte held", 0x7C - 16, 16, true, 4},
      {"claims to run past the bytes held", 0x7C - 16, 17, true, 4},
      {"length shorter than its head", 0x30, 11, true, 0},
      {"head cut by the end of the bytes held", 0x7C - 10, 16, true, 0},
      {"signature outside the bytes held", 0x7C, 16, false, 0},
  };
  for (const auto& [what, at, length, kept, entries] : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    answers[0x10] = [at = at, length = length](OblisRegisters& r) {
      std::memcpy(At(r.edi + at), "$CMDFILT", 8);
      bed::PutU32(At(r.edi + at + 8), length);
      bed::PutU32(At(r.edi + at + 12), 0xAFAEADAC);
      bed::Answer(r, 0, 1);  // AH: permission
    };
    ASSERT_TRUE(SMI_IsSupport()) << what;
    UINT8* table = nullptr;
    GetFilterTable(&table);
    ASSERT_EQ(table != nullptr, kept) << what;
    if (table == nullptr) continue;
    EXPECT_EQ(std::string((char*)table, 8) + std::to_string(ReadU32(table + 8)), "$CMDFILT" + std::to_string(entries)) << what;
    if (entries > 0) EXPECT_EQ(table[12], 0xAC) << what;
    EXPECT_NE(Log().find("===== 10h Filter Table =====\r\n"), std::string::npos) << what;
    FreePoolAndNull(table);
    // A later answer without a record lifts the filter the first one set.
    answers[0x10] = [](OblisRegisters& r) { bed::Answer(r, 0, 1); };
    ASSERT_TRUE(SMI_IsSupport()) << what;
    GetFilterTable(&table);
    EXPECT_EQ(table, nullptr) << what;
  }
}

TEST_F(PlatformStatus, PlatformInformationFlagsAndStrings) {
  // AH, ECX; name, version, same, checksum, no name, no version, no compare, extended, ALP
  const std::tuple<uint8_t, uint32_t, std::string> rows[] = {
      {0x00, 0x1, "000000000"}, {0x80, 0x1, "000000011"}, {0x80, 0x2, "000000010"},
      {0x7F, 0x1, "111111100"}, {0x41, 0x0, "100000100"},
  };
  for (const auto& [ah, ecx, expected] : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    answers[0x11] = [ah = ah, ecx = ecx](OblisRegisters& r) {
      std::memcpy(At(r.edi), u"KX-15", 12);
      std::memcpy(At(r.edi + 0x40), u"V1.07", 12);
      r.ecx = ecx;
      bed::Answer(r, 0, ah);
    };
    ASSERT_TRUE(FuncOblis_11h());
    PlatformInfo i;
    GetPlatformInfo(&i);
    std::string flags;
    for (Bool f : {i.modelNameCheck, i.modelVersionCheck, i.allowSameVersion, i.verifyFileChecksum, i.disableDisplayName,
                   i.disableDisplayVersion, i.disableComparison, i.enableExtended, i.allowAlpCommand, DisableComparison(),
                   AllowAlpCommand()})
      flags.push_back(f ? '1' : '0');
    EXPECT_EQ(flags, expected + expected[6] + expected[8]) << std::hex << (int)ah;
    CHAR16 *name = nullptr, *version = nullptr;
    GetModelStrings(&name, &version);
    EXPECT_EQ(std::u16string(name) + u"|" + version, u"KX-15|V1.07");
    FreePoolAndNull(name), FreePoolAndNull(version);
    EXPECT_NE(Log().find("              Model Name | KX-15\r\n           Model Version | V1.07\r\n"), std::string::npos);
    EXPECT_NE(Log().find(std::string("       Allow ALP command | ") + expected[8] + "\r\n"), std::string::npos);
  }
}

using FinishState = bed::ScriptedBed;

// The firmware's index first (2 shutdown, 3 nothing, else reboot), then -r, -s, -n in turn.
TEST_F(FinishState, IndexToActionMapsTheFirmwareIndexThenTheOptions) {
  const std::tuple<uint8_t, std::vector<std::u16string>, uint8_t> rows[] = {
      {0, {}, 2},          {1, {}, 2},          {2, {}, 1},           {3, {}, 0},           {9, {}, 2},
      {3, {u"-r"}, 2},     {0, {u"-r", u"-s"}, 1}, {0, {u"-r", u"-n"}, 0}, {2, {u"-s", u"-n"}, 0},
  };
  for (const auto& [index, options, action] : rows) {
    Install(Layout());
    ASSERT_TRUE(Options(options));
    EXPECT_EQ(IndexToAction_16h(index), action) << (int)index << " " << options.size();
  }
  EXPECT_NE(Log().find(" IndexToAction_16h\r\n----+-----------------\r\n  2  Oblis\r\n  0  16h\r\n"), std::string::npos) << Log();
}

// The [FlashComplete] action, then the options (traced in the order they are taken), then the
// arguments that are not 0xEF.
TEST_F(FinishState, SetStatusLoadsTheSettingThenOptionsThenArguments) {
  struct Row {
    const char* what;
    int setting;
    std::vector<std::u16string> options;
    uint8_t cmos, action, complete;
    uint8_t keptCmos, keptAction, keptComplete;
    const char* lines;  // the "Set 16h" lines: options, then arguments
  };
  const Row rows[] = {
      {"all left as they are", 1, {}, 0xEF, 0xEF, 0xEF, 0, 1, 0, ""},
      {"-r and -n: nothing", 2, {u"-r", u"-n"}, 0xEF, 0xEF, 1, 0, 0, 1, "Set 16h -r\r\nSet 16h -n\r\nSet 16h Complete (1)\r\n"},
      {"-s beats -r", 0, {u"-s", u"-r"}, 0xEF, 0xEF, 0xEF, 0, 1, 0, "Set 16h -r\r\nSet 16h -s\r\n"},
      {"argument beats options", 2, {u"-n"}, 1, 2, 2, 1, 2, 2, "Set 16h -n\r\nSet 16h CMOS (1)\r\nSet 16h Action 2/Reboot\r\nSet 16h Complete (2)\r\n"},
  };
  for (const Row& row : rows) {
    Install(Layout());
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[FlashComplete]\nAction=" + std::to_string(row.setting) + "\n");
    ASSERT_TRUE(Options(row.options));
    SetStatus_16h(row.cmos, row.action, row.complete, CommonFlashFinishAction);
    EXPECT_EQ(std::vector<int>({GetFinishClearCmos(), GetFinishAction(), GetFinishComplete()}),
              std::vector<int>({row.keptCmos, row.keptAction, row.keptComplete})) << row.what;
    std::string log = Log(), lines;
    for (size_t at = log.find("Set 16h "); at != std::string::npos; at = log.find("Set 16h ", at + 1))
      lines += log.substr(at, log.find("\r\n", at) + 2 - at);
    EXPECT_EQ(lines, row.lines) << row.what;
  }
}

}  // namespace
