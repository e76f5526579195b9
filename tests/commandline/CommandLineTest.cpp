// The command line: tokens into CommandFlags (or the exact refusal), arguments into the image name
// and the option text, and the token cutter the reader is built from.
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "config/ConfigInternal.h"
#include "support/DriverBed.h"

namespace {

// Each row starts from a fresh driver with the trace on at level 4.
class CommandLine : public bed::DriverBed {};

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

std::string Narrow(const CHAR16* text) {
  std::string out;
  for (; *text != 0; text++) out.push_back(static_cast<char>(*text));
  return out;
}

using Check = std::function<bool(const CommandFlags&)>;

bool NoTypeFlag(const CommandFlags& f) {
  for (bool set : f.typeFlags)
    if (set) return false;
  return true;
}

bool OnlyTypeFlag(const CommandFlags& f, size_t type) {
  for (size_t i = 0; i < kTypeFlagCount; i++)
    if (f.typeFlags[i] != (i == type)) return false;
  return true;
}

TEST_F(CommandLine, EachOptionTokenSetsItsFlagOrIsRefused) {
  struct Row {
    std::string token;
    bool accepted;
    Check check;             // null: the record must be as it was
    std::string trace;       // in ZAPROM.Log, if not empty
    std::string console;     // on the console, if not empty
  };
  const std::vector<Row> rows = {
      {"-h", true, [](auto& f) { return f.help; }, "", ""},
      {"-H", true, [](auto& f) { return f.help; }, "", ""},
      {"/?", true, [](auto& f) { return f.help; }, "", ""},
      {"-ALL", true, [](auto& f) { return f.all; }, "Command -all\r\n", ""},
      {"/all", true, [](auto& f) { return f.all; }, "Command -all\r\n", ""},
      {"-alp", true, [](auto& f) { return f.alp; }, "Command -alp\r\n", ""},
      {"-bios2", false, nullptr, "", ""},
      {"-b", true, [](auto& f) { return OnlyTypeFlag(f, 0); }, "Command -ft 00 ", ""},
      {"-FM", true, [](auto& f) { return OnlyTypeFlag(f, 1); }, "Command -ft 01 ", ""},
      {"-fn", true, [](auto& f) { return OnlyTypeFlag(f, 0x10); }, "Command -ft 10 ", ""},
      {"-fp", true, [](auto& f) { return OnlyTypeFlag(f, 0x0F); }, "Command -ft 0F ", ""},
      {"-ft:13x", true, [](auto& f) { return OnlyTypeFlag(f, 0x13); }, "Command -ft 13 ", ""},
      {"-ft:x", true, [](auto& f) { return OnlyTypeFlag(f, 0); }, "", ""},
      // 0xFF names no entry of the table: accepted, and nothing changes.
      {"-ft:FF", true, nullptr, "", ""},
      {"-dc", true, [](auto& f) { return f.dc; }, "Command -dc enable\r\n", ""},
      {"-dbgx", true, nullptr, "", ""},
      {"-rt:0,100", true, [](auto& f) { return f.rt && f.rtCount == 1 && f.rtDelay == 0x100; },
       " Command -rt Count (01) Delay (100)\r\n", ""},
      {"-rt:105", true, [](auto& f) { return f.rt && f.rtCount == 5 && f.rtDelay == 0; }, "", ""},
      {"-vrt:10", true, [](auto& f) { return f.vrt && f.vrtCount == 0x10; }, " Command -vrt count 10\r\n", ""},
      {"-vrt:x", true, [](auto& f) { return f.vrt && f.vrtCount == 0; }, "", ""},
      {"-vrt:", true, nullptr, "", ""},
      {"-e:10,20,30", true, [](auto& f) { return f.e && f.eOffset == 0x10 && f.eSize == 0x20 && f.eAddress == 0x30; },
       " command -e\r\n--------+-----------\r\n Offset  10\r\n   Size  20\r\n   Addr  30\r\n", ""},
      {"-E:1,,3", true, [](auto& f) { return f.e && f.eOffset == 1 && f.eSize == 0 && f.eAddress == 3; }, "", ""},
      {"-e:10,20", true, nullptr, "Command -e invalid 10,20\r\n", ""},
      {"-e:", true, nullptr, "", ""},
      {"-ecbp", true, [](auto& f) { return f.ecbp && !f.ec && !f.ecb && !f.ecp; }, "Command -ecbp\r\n", ""},
      {"-ec", true, [](auto& f) { return f.ec && !f.ecbp; }, "Command -ec\r\n", ""},
      {"-EC_CRISIS", true, [](auto& f) { return f.ecCrisis && !f.ec; }, "", ""},
      {"-eob", true, [](auto& f) { return f.eob; }, "Command -eob\r\n", ""},
      {"-edt4f:logo.jpg", true,
       [](auto& f) { return f.edtCount == 1 && Narrow(f.edtList[0]) == "edt4f:logo.jpg"; }, "raw command (edt4f:logo.jpg)", ""},
      {"-edtAs:x", true, [](auto& f) { return f.edtCount == 1 && Narrow(f.edtList[0]) == "edtas:x"; }, "", ""},
      {"/EDTCDW:Ab", true, [](auto& f) { return f.edtCount == 1 && Narrow(f.edtList[0]) == "edtcdw:Ab"; }, "", ""},
      {"-edt3f:x", false, nullptr, "", "Warning - Type code error. (0x4-0xC)\r\n"},
      {"-edtDf:x", false, nullptr, "", "Warning - Type code error. (0x4-0xC)\r\n"},
      {"-edt9x:1", false, nullptr, "", "Warning - Format code error.\r\n"},
      {"-edt", false, nullptr, "", ""},
      {"-forceit", true, [](auto& f) { return f.forceit; }, "Dell -forceit enable\r\n", ""},
      {"-g", true, [](auto& f) { return f.g && !f.gbe; }, "Command -g\r\n", ""},
      {"-mfg", true, [](auto& f) { return f.mfg; }, "set parameter |MFG|\r\n", ""},
      {"-nopause", true, [](auto& f) { return f.nopause && !f.nothing; }, "Command -nopause used\r\n", ""},
      {"-ppriv", true, [](auto& f) { return f.priv; }, "Command -priv\r\n", ""},
      {"-priv", true, [](auto& f) { return f.priv; }, "Command -priv\r\n", ""},
      {"-r", true, [](auto& f) { return f.reboot && !f.rt; }, "Command -r\r\n", ""},
      {"-s", true, [](auto& f) { return f.shutdown && !f.skipSbp; }, "Command -s\r\n", ""},
      {"-n", true, [](auto& f) { return f.nothing; }, "Command -n\r\n", ""},
      {"-skipsbp", true, [](auto& f) { return f.skipSbp && !f.shutdown; }, "Command -skipsbp enable\r\n", ""},
      {"-u", true, [](auto& f) { return f.u; }, "Command -u\r\n", ""},
      {"-unvs", true, [](auto& f) { return f.unvs && !f.u; }, "Command -unvs\r\n", ""},
      {"-v", true, [](auto& f) { return f.v && !f.vrt; }, "Command -v\r\n", ""},
      {"-pbi:3", true, nullptr, "", ""},
      {"-OEMCUS", true, nullptr, "", ""},
      {"-extrfd", true, nullptr, "", ""},
      {"-x", false, nullptr, "", ""},
      {"all", false, nullptr, "", ""},
      {"-", false, nullptr, "", ""},
      {"-hh", false, nullptr, "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.token);
    Install({});
    CommandFlags before = *Flags();
    EXPECT_EQ(Options({Wide(row.token)}), row.accepted);
    if (row.check) {
      EXPECT_TRUE(row.check(*Flags()));
    } else {
      EXPECT_EQ(std::memcmp(&before, Flags(), sizeof(CommandFlags)), 0);
    }
    if (!row.trace.empty()) EXPECT_NE(Log().find(row.trace), std::string::npos) << Log();
    EXPECT_EQ(Console(), row.console);
  }
}

TEST_F(CommandLine, ArgumentsBecomeImageNameAndOptionText) {
  struct Row {
    std::string name;
    std::vector<std::string> arguments;  // without argument 0
    bool accepted;
    std::string imageName;
    std::string commandText;
    std::string refusal;  // behind the long banner
  };
  const std::string longWord = "-e:" + std::string(29, '1');  // 32 characters
  const std::string huge = "-" + std::string(599, 'x');
  const std::vector<Row> rows = {
      {"no arguments", {}, true, "", "", ""},
      {"image and options", {"BIOS.fd", "-ALL", "/r"}, true, "BIOS.fd", " -ALL /r", ""},
      {"options only", {"-all", "-n"}, true, "", " -all -n", ""},
      {"image after an option", {"-all", "BIOS.fd"}, false, "", " -all BIOS.fd", "Error command: BIOS.fd (Invalid command)\r\n"},
      {"blank inside one argument", {"BIOS.fd", "-r -s"}, true, "BIOS.fd", " -r -s", ""},
      {"empty argument leaves no trace", {"BIOS.fd", "", "-s"}, true, "BIOS.fd", " -s", ""},
      {"31 characters fit", {"-e:" + std::string(28, '1')}, true, "", " -e:" + std::string(28, '1'), ""},
      {"32 characters do not", {longWord}, false, "", " " + longWord, "Error command: " + longWord + " (Invalid command)\r\n"},
      {"first refusal ends the line", {"-r", "-zz", "-q"}, false, "", " -r -zz -q", "Error command: -zz (Invalid command)\r\n"},
      {"text cut at 511 characters", {huge}, false, "", " " + huge.substr(0, 510), "Error command: " + huge.substr(0, 100)},
      // -OemCus takes its word off the line; a refused word stops before any option is read.
      {"-OemCus takes its word", {"BIOS.fd", "-OemCus", "cus1", "-n"}, true, "BIOS.fd", " -OemCus -n", ""},
      {"/oemcus in any case, twice", {"/OEMCUS", "CUSx", "-oemcus", "Cus2"}, true, "", " /OEMCUS -oemcus", ""},
      {"a word without the prefix", {"BIOS.fd", "-OemCus", "XCUS1", "-n"}, false, "BIOS.fd", "?",
       "\r\n\r\n\r\n\r\n    Error:\r\n    Invalid parameter \"XCUS1\".\r\n    The parameter have to with prefix \"CUS\".\r\n\r\n"},
      {"a word shorter than the prefix", {"-OemCus", "CU"}, false, "", "?", "Invalid parameter \"CU\"."},
      {"-OemCus at the end", {"-n", "-OemCus"}, false, "", "?", "    Invalid parameter \"\".\r\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Install({});
    std::vector<std::u16string> arguments = {u"ZAPROM.efi"};
    for (const auto& argument : row.arguments) arguments.push_back(Wide(argument));
    SetArguments(arguments);
    CHAR16 imageName[kImageNameCharacters] = {u'?'};
    CHAR16 commandText[kCommandTextCharacters] = {u'?'};
    EXPECT_EQ(ParseCommandLine(imageName, commandText), row.accepted);
    EXPECT_EQ(Narrow(imageName), row.imageName);
    EXPECT_EQ(Narrow(commandText), row.commandText);
    std::string console = Console();
    size_t banner = console.find("Version 1.3k.00");
    if (row.refusal.empty()) {
      EXPECT_EQ(console, "");
    } else {
      EXPECT_NE(banner, std::string::npos) << console;
      EXPECT_NE(console.find(row.refusal, banner), std::string::npos) << console;
    }
  }
}

// A count past both ends stops at the common terminator: what lies behind it is never compared.
TEST(TextHelpers, MatchTextComparesTheCountGivenUpToTheCommonEnd) {
  const char16_t text[] = u"aB\0X", same[] = u"Ab\0Y";
  EXPECT_TRUE(MatchText(false, text, same, 4));
  EXPECT_FALSE(MatchText(true, text, same, 2));
  EXPECT_TRUE(MatchText(false, u"all2", u"all", 3));
  EXPECT_FALSE(MatchText(false, u"all2", u"all", -1));
}

TEST(TextHelpers, ParseHexSkipsBlanksAndEitherPrefixAndKeepsTheLastEightDigits) {
  const std::pair<const char16_t*, uint32_t> rows[] = {{u"0XaB", 0xAB}, {u" \t ff,2", 0xFF}, {u"0x0x5", 0}, {u"123456789", 0x23456789}};
  for (const auto& [text, value] : rows) EXPECT_EQ(ParseHex(text), value) << Narrow(text);
}

TEST(TextHelpers, NextTokenCutsAtTheSeparatorWithinTheBuffer) {
  struct Row {
    const char16_t* text;
    uint16_t position;
    size_t capacity;
    bool found;
    std::string token;
    uint16_t next;
  };
  const std::vector<Row> rows = {
      {u" -a -b", 0, 32, true, "", 1},       {u" -a -b", 1, 32, true, "-a", 4},     {u" -a -b", 4, 32, true, "-b", 6},
      {u" -a -b", 6, 32, false, "", 6},     {u"-a  -b", 3, 32, true, "", 4},       {u"abcdef", 0, 4, true, "abc", 6},
      {u"", 0, 32, false, "", 0},           {u"x", 9, 32, false, "", 9},
  };
  for (const auto& row : rows) {
    CHAR16 token[40];
    std::fill(std::begin(token), std::end(token), u'#');
    uint16_t position = row.position;
    EXPECT_EQ(NextToken(row.text, u' ', &position, token, row.capacity), row.found) << Narrow(row.text);
    if (row.found) {
      EXPECT_EQ(Narrow(token), row.token);
      // Nothing beyond the capacity is touched.
      EXPECT_EQ(token[row.capacity], u'#');
    }
    EXPECT_EQ(position, row.next) << Narrow(row.text) << " at " << row.position;
  }
}

TEST_F(CommandLine, TenthExtraDataOptionIsRefusedWithoutWritingBesideTheList) {
  for (int i = 0; i < 9; i++) ASSERT_TRUE(Options({u"-edt4s:" + Wide(std::to_string(i))})) << i;
  EXPECT_EQ(Flags()->edtCount, 9u);
  EXPECT_FALSE(Options({u"-edt5s:x"}));
  EXPECT_EQ(Flags()->edtCount, 9u);
  EXPECT_EQ(Narrow(Flags()->edtList[8]), "edt4s:8");
}

}  // namespace
