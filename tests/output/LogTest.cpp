// ZAPROM.Log as the engineer reads it: which levels a run writes, the bytes of each line, the
// function trace with its time, the hex dumps, and the old log removed at the first line.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "config/ConfigInternal.h"
#include "output/OutputInternal.h"
#include "support/DriverBed.h"

namespace {

class LogFile : public bed::DriverBed {
 protected:
  // Each row is a run of its own: the -dbg scan and the first line's delete happen once per run.
  void LogRun(const char* what, INT32 flag, INT32 level, const std::vector<std::u16string>& arguments, void (*lines)(),
              const char* expected) {
    bed::BedSetup setup;
    setup.firmware = bed::Firmware::Scripted;
    setup.log = false;
    Install(setup);
    // The bed's own set-up has printed; handing the log buffer back makes the next line the
    // first of a run again.
    ReleaseOutputMemory();
    std::ofstream(Volume(0) / "ZAPROM.Log") << "old run\r\n";
    ScanArguments(arguments);
    MutableSettings()->logFile.flag = flag;
    MutableSettings()->logFile.level = level;
    lines();
    if (expected == nullptr) {
      EXPECT_FALSE(std::filesystem::exists(Volume(0) / "ZAPROM.Log")) << what;
    } else {
      EXPECT_EQ(Log(), expected) << what;
    }
  }
};

void ThreeLevels() { LogPrint(0, u"level %d\n", 0), LogPrint(2, u"level %d\n", 2), LogPrint(4, u"level %d\n", 4); }

TEST_F(LogFile, OnAndLevelRulesDecideWhichLinesReachTheFile) {
  const char* all = "level 0\r\nlevel 2\r\nlevel 4\r\n";
  LogRun("log off: the old log is deleted, none written", 0, 0, {u"zaprom"}, ThreeLevels, nullptr);
  LogRun("a level without Flag does not turn the log on", 0, 4, {u"zaprom"}, ThreeLevels, nullptr);
  LogRun("-dbg", 0, 0, {u"zaprom", u"-dbg"}, ThreeLevels, all);
  LogRun("/DBG after an image name", 0, 0, {u"zaprom", u"x.bin", u"/DBG"}, ThreeLevels, all);
  LogRun("-DbG over Flag", 1, 0, {u"zaprom", u"-DbG"}, ThreeLevels, all);
  LogRun("level 0", 1, 0, {u"zaprom"}, ThreeLevels, "level 0\r\n");
  LogRun("level 2", 1, 2, {u"zaprom"}, ThreeLevels, "level 0\r\nlevel 2\r\n");
  LogRun("level 4", 1, 4, {u"zaprom"}, ThreeLevels, all);
  LogRun("only the whole option counts", 0, 0, {u"zaprom", u"-dbgx"}, ThreeLevels, nullptr);
  LogRun("the program's own name is not an option", 0, 0, {u"-dbg"}, ThreeLevels, nullptr);
}

TEST_F(LogFile, LinesTracesAndDumpsHaveTheirExactBytes) {
  LogRun("the first line replaces the old log whole", 0, 0, {u"z", u"-dbg"}, [] {
    LogPrint(0, u"first %s %d\n", u"line", 1);
    LogPrint(4, u"second\n");
  }, "first line 1\r\nsecond\r\n");
  LogRun("eight bits: the low byte of each character", 0, 0, {u"z", u"-dbg"}, [] { LogPrint(0, u"A\u0142B\u2603%s\n", u"\u00E9"); },
         "A\x42" "B\x03\xE9\r\n");
  static const std::string longLine(8191, 'x');
  LogRun("a long line keeps 8191 characters", 0, 0, {u"z", u"-dbg"}, [] { LogPrint(0, u"%s", std::u16string(9000, u'x').c_str()); },
         longLine.c_str());
  LogRun("trace lines carry name, time and reason", 0, 0, {u"z", u"-dbg"}, [] {
    TraceEnter(u"Initialize");
    TraceLeave(u"Initialize", nullptr);
    TraceLeave(u"FuncUpdate", u"no image");
    TraceLeave(u"FuncUpdate", u"");
  }, "===> Initialize [14:03:59]\r\n<=== Initialize\r\n<=== FuncUpdate (no image)\r\n<=== FuncUpdate ()\r\n");
  LogRun("the trace stays out of a level 0 log", 1, 0, {u"z"}, [] {
    TraceEnter(u"Initialize");
    LogPrint(0, u"size %x\n", 0x1000u);
    TraceLeave(u"Initialize", nullptr);
  }, "size 1000\r\n");
  static const std::string dumps = "0000:  41 42 43 44 45 46 47 48-49 4A 4B 4C 4D 4E 4F 50     ABCDEFGHIJKLMNOP\r\n"
                                   "0010:  7B" + std::string(46, ' ') + "    .\r\n"
                                   "0000:  1F 20 7A 7B 7C 7D 7E 7F-80 FF " + std::string(18, ' ') + "    . z.......\r\n"
                                   "0000:  " + std::string(48, ' ') + "    \r\n";
  LogRun("hex dump lines are 16 bytes with their text", 0, 0, {u"z", u"-dbg"}, [] {
    HexDump("ABCDEFGHIJKLMNOP{", 17);
    const UINT8 edges[] = {0x1F, 0x20, 0x7A, 0x7B, 0x7C, 0x7D, 0x7E, 0x7F, 0x80, 0xFF};
    HexDump(edges, sizeof(edges));
    HexDump(edges, 0);
  }, dumps.c_str());
  auto framed = [] { HexDumpFramed(u"===== 10h Info =====\r\n", "$ISB", 4); };
  LogRun("a framed dump is at the detail level", 1, 2, {u"z"}, framed, nullptr);
  static const std::string frame = "===== 10h Info =====\r\n0000:  24 49 53 42 " + std::string(36, ' ') +
                                   "    $ISB\r\n===== 10h Info =====\r\n";
  LogRun("a framed dump stands between two label lines", 1, 4, {u"z"}, framed, frame.c_str());
}

}  // namespace
