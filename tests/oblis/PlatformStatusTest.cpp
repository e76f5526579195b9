// Functions 10h, 11h, 1Fh and 16h from the level above the wrappers: what is sent, what is kept
// for the run, and the finish state that the last call of a run reports.
#include <gtest/gtest.h>

#include "FakeFirmware.h"
#include "checks/Checks.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

// A 10h answer: CL/CH version, AH permission, and the answer bytes at the buffer's start.
void Answer10h(FakeFirmware& fw, uint8_t permission, std::vector<uint8_t> answer) {
  fw.handlers[0x10] = [permission, answer](OblisRegisters& r) {
    std::memcpy(At(r.edi), answer.data(), answer.size());
    r.ecx = 0x0208;  // CH major 2, CL minor 8
    Answer(r, 0, permission);
  };
}

std::vector<uint8_t> StatusAnswer(uint16_t vendor) {
  std::vector<uint8_t> a(34, 0);
  a[0] = 1;     // AC
  a[1] = 0x65;  // DC: no battery
  a[2] = 20;    // bound
  PutU32(a, 3, 7);
  PutU32(a, 7, 9);
  PutU16(a, 11, vendor);
  PutU32(a, 29, 38);
  a[33] = 1;
  return a;
}

// Only the 0x80 bytes held (4 of result, 0x7C of the buffer) are known. The filter grants
// options, so a damaged record is cut or emptied, never dropped: dropping it would lift the
// firmware's restrictions.
TEST(PlatformStatus, FilterRecordKeepsOnlyTheBytesHeld) {
  struct Row {
    const char* what;
    size_t bufferOffset;  // where "$CMDFILT" starts in the firmware's buffer
    uint32_t length;
    bool kept;
    uint32_t entries;  // the length field of the caller's copy
  };
  const Row rows[] = {
      {"inside", 0x30, 16, true, 4},
      {"ends at the last byte held", 0x7C - 16, 16, true, 4},
      {"claims to run past the bytes held", 0x7C - 16, 17, true, 4},
      {"length shorter than its head", 0x30, 11, true, 0},
      {"head cut by the end of the bytes held", 0x7C - 10, 16, true, 0},
      {"signature outside the bytes held", 0x7C, 16, false, 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                std::vector<uint8_t> answer = StatusAnswer(kVendorNone);
                answer.resize(0x100, 0);
                std::memcpy(answer.data() + row.bufferOffset, "$CMDFILT", 8);
                PutU32(answer, row.bufferOffset + 8, row.length);
                for (uint32_t i = 12; i < 16; i++) answer[row.bufferOffset + i] = (uint8_t)(0xA0 + i);
                Answer10h(fw, 1, answer);
                ASSERT_TRUE(SMI_IsSupport());
                UINT8* table = nullptr;
                GetFilterTable(&table);
                ASSERT_EQ(table != nullptr, row.kept) << row.what;
                if (table != nullptr) {
                  EXPECT_EQ(std::memcmp(table, "$CMDFILT", 8), 0);
                  EXPECT_EQ(table[8] | (table[9] << 8), (int)row.entries) << "counts the entries only";
                  if (row.entries > 0) {
                    EXPECT_EQ(table[12], 0xAC);
                  }
                  EXPECT_NE(fw.Log().find("===== 10h Filter Table =====\r\n"), std::string::npos);
                }
              }))
        << row.what;
  }
}

TEST(PlatformStatus, PlatformInformationFlagsAndStrings) {
  struct Row {
    uint8_t ah;
    uint32_t ecx;
    bool nameCheck, versionCheck, sameVersion, checksum, noName, noVersion, noCompare, extended, alp;
  };
  const Row rows[] = {
      {0x00, 0x1, false, false, false, false, false, false, false, false, false},
      {0x80, 0x1, false, false, false, false, false, false, false, true, true},
      {0x80, 0x2, false, false, false, false, false, false, false, true, false},
      {0x7F, 0x1, true, true, true, true, true, true, true, false, false},
      {0x41, 0x0, true, false, false, false, false, false, true, false, false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                fw.handlers[0x11] = [&](OblisRegisters& r) {
                  const char16_t name[] = u"KX-15";
                  const char16_t version[] = u"V1.07";
                  std::memcpy(At(r.edi), name, sizeof(name));
                  std::memcpy(At(r.edi + 0x40), version, sizeof(version));
                  r.ecx = row.ecx;
                  Answer(r, 0, row.ah);
                };
                ASSERT_TRUE(FuncOblis_11h());
                PlatformInfo info;
                GetPlatformInfo(&info);
                EXPECT_EQ(info.modelNameCheck, row.nameCheck);
                EXPECT_EQ(info.modelVersionCheck, row.versionCheck);
                EXPECT_EQ(info.allowSameVersion, row.sameVersion);
                EXPECT_EQ(info.verifyFileChecksum, row.checksum);
                EXPECT_EQ(info.disableDisplayName, row.noName);
                EXPECT_EQ(info.disableDisplayVersion, row.noVersion);
                EXPECT_EQ(info.disableComparison, row.noCompare);
                EXPECT_EQ(info.enableExtended, row.extended);
                EXPECT_EQ(info.allowAlpCommand, row.alp);
                EXPECT_EQ(AllowAlpCommand(), row.alp);
                EXPECT_EQ(DisableComparison(), row.noCompare);
                CHAR16* name = nullptr;
                CHAR16* version = nullptr;
                GetModelStrings(&name, &version);
                ASSERT_NE(name, nullptr);
                EXPECT_EQ(std::u16string(name), u"KX-15");
                EXPECT_EQ(std::u16string(version), u"V1.07");
                EXPECT_NE(fw.Log().find("              Model Name | KX-15\r\n           Model Version | V1.07\r\n"),
                          std::string::npos);
                EXPECT_NE(fw.Log().find("       Allow ALP command | " + std::to_string(row.alp) + "\r\n"),
                          std::string::npos);
              }));
  }
}

TEST(FinishState, IndexToActionMapsTheFirmwareIndexThenTheOptions) {
  struct Row {
    uint8_t index;
    bool r, s, n;
    uint8_t action;
  };
  const Row rows[] = {
      {0, false, false, false, 2}, {1, false, false, false, 2}, {2, false, false, false, 1},
      {3, false, false, false, 0}, {9, false, false, false, 2}, {3, true, false, false, 2},
      {0, true, true, false, 1},   {0, true, false, true, 0},   {2, false, true, true, 0},
  };
  FakeFirmware fw;
  for (const Row& row : rows) {
    FakeFirmware::MutableFlags().reboot = row.r;
    FakeFirmware::MutableFlags().shutdown = row.s;
    FakeFirmware::MutableFlags().nothing = row.n;
    EXPECT_EQ(IndexToAction_16h(row.index), row.action) << (int)row.index << row.r << row.s << row.n;
  }
  EXPECT_NE(fw.Log().find(" IndexToAction_16h\r\n----+-----------------\r\n  2  Oblis\r\n  1  16h\r\n"),
            std::string::npos);
}

TEST(FinishState, SetStatusLoadsTheSettingThenOptionsThenArguments) {
  struct Row {
    const char* what;
    int setting;
    bool r, s, n;
    uint8_t cmos, action, complete;
    uint8_t keptCmos, keptAction, keptComplete;
    const char* options;  // the option lines of the trace, in the order they are taken
  };
  const Row rows[] = {
      {"all left as they are", 1, false, false, false, 0xEF, 0xEF, 0xEF, 0, 1, 0, ""},
      {"-r and -n: nothing", 2, true, false, true, 0xEF, 0xEF, 1, 0, 0, 1, "Set 16h -r\r\nSet 16h -n\r\n"},
      {"-s beats -r", 0, true, true, false, 0xEF, 0xEF, 0xEF, 0, 1, 0, "Set 16h -r\r\nSet 16h -s\r\n"},
      {"argument beats options", 2, false, false, true, 1, 2, 2, 1, 2, 2, "Set 16h -n\r\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                FakeFirmware::MutableSettings().flashComplete.action = row.setting;
                FakeFirmware::MutableFlags().reboot = row.r;
                FakeFirmware::MutableFlags().shutdown = row.s;
                FakeFirmware::MutableFlags().nothing = row.n;
                SetStatus_16h(row.cmos, row.action, row.complete, CommonFlashFinishAction);
                EXPECT_EQ(GetFinishClearCmos(), row.keptCmos) << row.what;
                EXPECT_EQ(GetFinishAction(), row.keptAction) << row.what;
                EXPECT_EQ(GetFinishComplete(), row.keptComplete) << row.what;
                std::string options;
                for (size_t at = fw.Log().find("Set 16h -"); at != std::string::npos; at = fw.Log().find("Set 16h -", at + 1))
                  options += fw.Log().substr(at, 12);
                EXPECT_EQ(options, row.options) << row.what;
              }))
        << row.what;
  }
}

}  // namespace
