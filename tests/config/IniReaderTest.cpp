// The platform.ini reader: the normal form LoadOption leaves, lookups on awkward texts, the
// number readers, the level-0 trace of changed values, the limits of a lookup, and messages
// taken from [MessageStringTable].
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "config/ConfigInternal.h"
#include "output/Output.h"
#include "support/DriverBed.h"

namespace {

using IniReader = bed::QuietBed;

std::string WorkingText() { return std::string(GetIniText(), GetIniTextSize()); }

// Loads text as a run would: start values first, then the text.
std::string Load(const std::string& text) {
  std::vector<CHAR8> buffer(text.begin(), text.end());
  buffer.push_back(0);
  UINT32 size = static_cast<UINT32>(text.size());
  LoadOption(buffer.data(), &size, true);
  return std::string(buffer.data(), size);
}

TEST_F(IniReader, LoadOptionLeavesTheNormalForm) {
  struct Row {
    const char* what;
    std::string in;
    std::string out;
  };
  const std::vector<Row> rows = {
      {"keys lower, values keep case, blanks around '=' go", "[Log_File]\nFlag = 1\nName=AbC\n",
       "[log_file]\nflag=1\nname=AbC\n"},
      {"blanks in front of a CR stay", "[A]\r\n  Key = Two  \r\n", "[a]\r\nkey=Two  \r\n"},
      {"last line without LF is dropped when no comment is seen", "[a]\nk=1\nk2=2", "[a]\nk=1\n"},
      {"a comment line gives the last line its LF", "[a]\n;c\nk=1", "[a]\nk=1\n"},
      {"a comment only at the very first byte", "[a]\n  ;Flag=1\nk=v ;Note\n", "[a]\n;flag=1\nk=v ;Note\n"},
      {"an empty line follows a text that ended in LF", "[a]\n;c\n", "[a]\n\n"},
      {"a tab in front of '=' stays", "[A]\nKey\t=V\n", "[a]\nkey\t=V\n"},
      {"blanks go on both sides of every '='", "K = a = b\n", "k=a=b\n"},
      {"a line of blanks becomes empty", "   \n", "\n"},
      {"a line without '=' is lower-cased whole", "[MULTI_FD]\n", "[multi_fd]\n"},
      {"an empty text stays empty", "", ""},
      {"a line that starts with '=' keeps it", "[a]\n =v\n", "[a]\n=v\n"},
  };
  for (const Row& row : rows) {
    Install(Layout());
    EXPECT_EQ(Load(row.in), row.out) << row.what;
    EXPECT_EQ(WorkingText(), row.out) << row.what;
    EXPECT_EQ(GetIniText()[GetIniTextSize()], 0) << row.what;
  }
}

TEST_F(IniReader, LookupsOnAnAwkwardText) {
  Load(
      "; platform settings\n"
      "[Log_file]\n"
      "Flag = 1\n"
      "Level=9\n"
      "[CommonFlash]\n"
      "SwitchString=[on]=x\n"
      "Cmos_Flag=7\n"
      "[Tabbed]\n"
      "Key\t=v\n"
      "[CRLF]\r\n"
      "Name=Two  \r\n"
      "Plain=abc\r\n"
      "[Dup]\n"
      "Only=first\n"
      "[Dup]\n"
      "Second=2\n"
      "[Next]\n"
      "Missing=here\n"
      "[Values]\n"
      "EqEq==x\n"
      "Multi=a=b\n"
      "Empty=\n"
      "Spaced=a = b\n"
      "Quoted=\"Hello, World\"\n");
  struct Row {
    const char* section;
    const char* key;
    bool found;
    const char* value;
  };
  const Row rows[] = {
      {"Log_file", "Flag", true, "1"},
      {"LOG_FILE", "FLAG", true, "1"},
      {"Log_file", "level", true, "9"},
      {"CommonFlash", "SwitchString", true, "[on]"},
      {"CommonFlash", "Cmos_Flag", true, "7"},
      {"CommonFlash", "Flag", true, "7"},  // found at the end of the longer key
      {"Tabbed", "Key", false, ""},
      {"CRLF", "Name", true, "Two  "},
      {"CRLF", "Plain", true, "abc"},
      {"Dup", "Only", true, "first"},
      {"Dup", "Second", false, ""},  // only the first [Dup] counts
      {"Dup", "Missing", false, ""},  // not looked for in the next section
      {"Values", "EqEq", true, "x"},
      {"Values", "Multi", true, "a"},
      {"Values", "Empty", false, ""},
      {"Values", "Spaced", true, "a"},
      {"Values", "Quoted", true, "\"Hello, World\""},
      {"NoSuch", "Flag", false, ""},
  };
  for (const Row& row : rows) {
    CHAR8 value[kIniTextBytes];
    std::memset(value, 'x', sizeof(value));
    EXPECT_EQ(GetIniRaw(row.section, row.key, GetIniText(), GetIniTextSize(), value, sizeof(value)), row.found)
        << row.section << "/" << row.key;
    EXPECT_STREQ(value, row.value) << row.section << "/" << row.key;
  }
  EXPECT_TRUE(IniSectionExists("commonflash", GetIniText(), GetIniTextSize()));
  EXPECT_TRUE(IniSectionExists("CRLF", GetIniText(), GetIniTextSize()));
  EXPECT_FALSE(IniSectionExists("Common", GetIniText(), GetIniTextSize()));
  EXPECT_TRUE(IniSectionExists("Whole", "[whole]", 7));  // a text that is the header and nothing more
}

TEST_F(IniReader, NumbersAreReadUpToTheFirstOtherCharacter) {
  struct Row {
    const char* text;
    INT32 decimal;
    INT32 hex;
  };
  const Row rows[] = {
      {"  42", 42, 0x42},     {"2,0", 2, 2},       {"4,259", 4, 4},           {"abc", 0, 0xABC},
      {"\t5", 0, 5},          {"0x1F", 0, 0x1F},   {" \t0X1fz", 0, 0x1F},     {"4294967295", -1, -1},
      {"4294967296", -1, -1}, {"", 0, 0},          {"FFFFFFFFF", 0, -1},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(ParseDecimal(row.text), row.decimal) << row.text;
    EXPECT_EQ(ParseHex8(row.text), row.hex) << row.text;
  }
  EXPECT_EQ(ParseDecimal(nullptr), 0);
  EXPECT_EQ(ParseHex8(nullptr), 0);
}

TEST_F(IniReader, GettersFallBackToTheirDefaultsAndBeforeAnyText) {
  EXPECT_EQ(GetIniInt("Others", "SMIErrorRetry", 5), 5);  // no text loaded yet
  EXPECT_EQ(GetIniHex("UpdateEC", "MaskByte0", 3), 3);
  CHAR8 before[8] = "xxxxxxx";
  EXPECT_FALSE(GetIniString("MessageStringTable", "messagestringA02", before, sizeof(before)));
  EXPECT_EQ(before[0], 0);
  Load("[Others]\nSMIErrorRetry=\nVerifyErrorRetry=x1\n[UpdateEC]\nMaskByte0=A0\nMaskByte1=\n");
  EXPECT_EQ(GetIniInt("Others", "SMIErrorRetry", 5), 5);
  EXPECT_EQ(GetIniInt("Others", "VerifyErrorRetry", 3), 0);
  EXPECT_EQ(GetIniInt("Others", "Missing", -7), -7);
  EXPECT_EQ(GetIniHex("UpdateEC", "MaskByte0", 0), 0xA0);
  EXPECT_EQ(GetIniHex("UpdateEC", "MaskByte1", 9), 9);

  // A string falls back to empty, not to what the field held.
  CHAR8 field[16] = "kept";
  EXPECT_FALSE(GetIniString("Others", "Missing", field, sizeof(field)));
  EXPECT_STREQ(field, "");
}

TEST_F(IniReader, LimitsCutOrRefuseInsideTheBuffers) {
  const std::string longValue(2000, 'v');
  const std::string longKey(62, 'k');   // with '=' 63: fits
  const std::string tooLongKey(63, 'k');  // with '=' 64: refused
  const std::string longSection(125, 's');  // with brackets 127: fits
  const std::string tooLongSection(126, 's');
  Load("[a]\nl=" + longValue + "\ne=eeeeeeee\n" + longKey + "=1\n[" + longSection + "]\nx=2\n[" + tooLongSection +
       "]\ny=3\n");

  // A line from the key on holds 1023 characters: "l=" and 1021 of the value.
  CHAR8 value[kIniTextBytes + 16];
  std::memset(value, 'x', sizeof(value));
  ASSERT_TRUE(GetIniRaw("a", "l", GetIniText(), GetIniTextSize(), value, sizeof(value)));
  EXPECT_EQ(std::strlen(value), 1021u);
  EXPECT_EQ(value[1022], 'x');  // nothing written behind the terminator

  // A small field gets what fits and its terminator.
  CHAR8 small[8];
  std::memset(small, 'x', sizeof(small));
  EXPECT_TRUE(GetIniString("a", "l", small, sizeof(small)));
  EXPECT_STREQ(small, "vvvvvvv");
  EXPECT_TRUE(GetIniRaw("a", "e", GetIniText(), GetIniTextSize(), small, sizeof(small)));  // 8 into 8
  EXPECT_STREQ(small, "eeeeeee");

  EXPECT_EQ(GetIniInt("a", longKey.c_str(), 0), 1);
  EXPECT_EQ(GetIniInt("a", tooLongKey.c_str(), 0), 0);
  EXPECT_EQ(GetIniInt(longSection.c_str(), "x", 0), 2);
  EXPECT_EQ(GetIniInt(tooLongSection.c_str(), "y", 0), 0);
}

TEST_F(IniReader, ChangedValuesGoToTheLogAtLevelZero) {
  InitialIniStructure();
  // [Log_file] is read first, so every value after it is already logged by its rules.
  Load("[Log_file]\nFlag=1\n[FlashComplete]\nAction=1\n[Others]\nSMIErrorRetry=5\n[AC_Adapter]\n"
       "LauncherAcWarning=messagestringA02\n[CommonFlash]\nErrorMsg03=Low\n");
  // A present [CommonFlash] empties every message slot its text leaves out, start texts included.
  EXPECT_EQ(Log(),
            " [Log_file] FileName=\r\n"
            " [CommonFlash] ErrorMsg00=\r\n [CommonFlash] ErrorMsg01=\r\n [CommonFlash] ErrorMsg02=\r\n"
            " [CommonFlash] ErrorMsg03=Low\r\n [CommonFlash] ErrorMsg04=\r\n [CommonFlash] ErrorMsg05=\r\n"
            " [CommonFlash] ErrorMsg10=\r\n [CommonFlash] ErrorMsg11=\r\n [CommonFlash] ErrorMsg12=\r\n"
            " [AC_Adapter] SecurityAcWarning=\r\n"
            " [FlashComplete] Action=1\r\n"
            " [UpdateEC] EC_DockWarning=\r\n");
}

TEST_F(IniReader, MessagesComeFromTheMessageStringTable) {
  Load("[MessageStringTable]\nMessageStringA02=\"Plug in\\nthe AC adapter\"\nmessagestringA03=\n");
  const CHAR16* fallback = u"own text\r\n";
  const CHAR16* text = GetMessageText("messagestringA02", fallback);
  EXPECT_EQ(std::u16string(text), u"Plug in\nthe AC adapter\r\n");
  FreeMessageText(text, fallback);
  EXPECT_EQ(GetMessageText("messagestringA03", fallback), fallback);  // empty: the program's own
  EXPECT_EQ(GetMessageText("messagestringA09", fallback), fallback);  // missing
  // A warning bar shows the table's text and gives its copy back.
  const size_t blocks = Environment().LiveBlocks().size();
  ShowAcWarning("messagestringA02");
  EXPECT_NE(Environment().ScreenText().find("Plug in"), std::string::npos);
  EXPECT_EQ(Environment().LiveBlocks().size(), blocks);
}

}  // namespace
