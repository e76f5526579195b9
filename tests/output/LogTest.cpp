// ZAPROM.Log as the engineer reads it: which levels a run writes, the bytes of each line, the
// function trace with its time, the hex dumps, and the old log removed at the first line.
#include <gtest/gtest.h>

#include <string>

#include "LogHarness.h"
#include "support/Isolated.h"

namespace {

using log_test::LogVolume;

const std::string kOldLog = "old run\r\n";

TEST(Log, OnAndLevelRulesDecideWhichLinesReachTheFile) {
  struct Row {
    std::vector<std::u16string> arguments;
    INT32 flag;
    INT32 level;
    const char* expected;  // nullptr: no log file at all
  } rows[] = {
      {{u"zaprom"}, 0, 0, nullptr},  // log off: the old log is deleted, none written
      {{u"zaprom"}, 0, 4, nullptr},  // a level without Flag does not turn the log on
      {{u"zaprom", u"-dbg"}, 0, 0, "level 0\r\nlevel 2\r\nlevel 4\r\n"},
      {{u"zaprom", u"x.bin", u"/DBG"}, 0, 0, "level 0\r\nlevel 2\r\nlevel 4\r\n"},
      {{u"zaprom", u"-DbG"}, 1, 0, "level 0\r\nlevel 2\r\nlevel 4\r\n"},
      {{u"zaprom"}, 1, 0, "level 0\r\n"},
      {{u"zaprom"}, 1, 2, "level 0\r\nlevel 2\r\n"},
      {{u"zaprom"}, 1, 4, "level 0\r\nlevel 2\r\nlevel 4\r\n"},
      {{u"zaprom", u"-dbgx"}, 0, 0, nullptr},  // only the whole option counts
      {{u"-dbg"}, 0, 0, nullptr},              // the program's own name is not an option
  };
  for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); i++) {
    const Row& row = rows[i];
    int exitCode = RunIsolated([&] {
      LogVolume volume;
      volume.WriteOldLog(kOldLog);
      volume.ScanArguments(row.arguments);
      LogVolume::SetLogFile(row.flag, row.level);
      EXPECT_EQ(IsLogEnabled(), row.expected != nullptr);
      LogPrint(0, u"level %d\n", 0);
      LogPrint(2, u"level %d\n", 2);
      LogPrint(4, u"level %d\n", 4);
      if (row.expected == nullptr) {
        EXPECT_FALSE(volume.LogExists());
      } else {
        EXPECT_EQ(volume.Log(), row.expected);
      }
    });
    EXPECT_EQ(exitCode, 0) << "row " << i;
  }
}

TEST(Log, FirstLineReplacesTheOldLogWhole) {
  LogVolume volume;
  volume.WriteOldLog(kOldLog);
  volume.ScanArguments({u"zaprom", u"-dbg"});
  // The delete traces through the log while the first line is on its way; the first line must
  // still be the one written, and the only one.
  LogPrint(0, u"first %s %d\n", u"line", 1);
  EXPECT_EQ(volume.Log(), "first line 1\r\n");
  LogPrint(4, u"second\n");
  EXPECT_EQ(volume.Log(), "first line 1\r\nsecond\r\n");
}

TEST(Log, LinesAreEightBitWithTheLowByteOfEachCharacter) {
  LogVolume volume;
  volume.ScanArguments({u"zaprom", u"-dbg"});
  LogPrint(0, u"A\u0142B\u2603%s\n", u"\u00E9");
  EXPECT_EQ(volume.Log(), std::string("A\x42" "B\x03\xE9\r\n"));
}

TEST(Log, LongLineKeeps8191Characters) {
  LogVolume volume;
  volume.ScanArguments({u"zaprom", u"-dbg"});
  std::u16string text(9000, u'x');
  LogPrint(0, u"%s", text.c_str());
  EXPECT_EQ(volume.Log(), std::string(8191, 'x'));
}

TEST(Log, TraceLinesCarryNameTimeAndReason) {
  LogVolume volume;
  volume.ScanArguments({u"zaprom", u"-dbg"});
  TraceEnter(u"Initialize");
  TraceLeave(u"Initialize", nullptr);
  TraceLeave(u"FuncUpdate", u"no image");
  TraceLeave(u"FuncUpdate", u"");
  EXPECT_EQ(volume.Log(),
            "===> Initialize [14:03:59]\r\n"
            "<=== Initialize\r\n"
            "<=== FuncUpdate (no image)\r\n"
            "<=== FuncUpdate ()\r\n");
}

TEST(Log, TraceStaysOutOfALevelZeroLog) {
  LogVolume volume;
  LogVolume::SetLogFile(1, 0);
  TraceEnter(u"Initialize");
  LogPrint(0, u"size %x\n", 0x1000u);
  TraceLeave(u"Initialize", nullptr);
  EXPECT_EQ(volume.Log(), "size 1000\r\n");
}

TEST(Log, TimeStampHasThreeForms) {
  LogVolume volume;
  struct Row {
    Bool date;
    Bool time;
    std::u16string expected;
  } rows[] = {
      {true, true, u"2026/03/07 14:03:59"},
      {true, false, u"2026/03/07"},
      {false, true, u"14:03:59"},
  };
  for (const Row& row : rows) {
    CHAR16* stamp = TimeStamp(row.date, row.time);
    ASSERT_NE(stamp, nullptr);
    EXPECT_EQ(std::u16string(stamp), row.expected);
    FreePoolAndNull(stamp);
  }
}

TEST(Log, HexDumpLinesAreSixteenBytesWithTheirText) {
  LogVolume volume;
  volume.ScanArguments({u"zaprom", u"-dbg"});
  const UINT8 seventeen[] = "ABCDEFGHIJKLMNOP{";
  HexDump(seventeen, 17);
  const UINT8 edges[] = {0x1F, 0x20, 0x7A, 0x7B, 0x7C, 0x7D, 0x7E, 0x7F, 0x80, 0xFF};
  HexDump(edges, sizeof(edges));
  HexDump(edges, 0);
  EXPECT_EQ(volume.Log(),
            "0000:  41 42 43 44 45 46 47 48-49 4A 4B 4C 4D 4E 4F 50     ABCDEFGHIJKLMNOP\r\n"
            "0010:  7B" + std::string(46, ' ') + "    .\r\n"
            "0000:  1F 20 7A 7B 7C 7D 7E 7F-80 FF " + std::string(18, ' ') + "    . z.......\r\n"
            "0000:  " + std::string(48, ' ') + "    \r\n");
}

TEST(Log, FramedDumpStandsBetweenTwoLabelLinesAtDetailLevel) {
  for (INT32 level : {2, 4}) {
    int exitCode = RunIsolated([&] {
      LogVolume volume;
      LogVolume::SetLogFile(1, level);
      const UINT8 bytes[] = {'$', 'I', 'S', 'B'};
      HexDumpFramed(u"===== 10h Info =====\r\n", bytes, sizeof(bytes));
      if (level < 4) {
        EXPECT_FALSE(volume.LogExists());
      } else {
        EXPECT_EQ(volume.Log(),
                  "===== 10h Info =====\r\n"
                  "0000:  24 49 53 42 " + std::string(36, ' ') + "    $ISB\r\n"
                  "===== 10h Info =====\r\n");
      }
    });
    EXPECT_EQ(exitCode, 0) << "level " << level;
  }
}

}  // namespace
