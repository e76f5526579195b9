// Console messages through a recording console: the print limits, the banners, the centred
// lines and the warning bar, with the exact text and order of calls.
#include <gtest/gtest.h>

#include <string>

#include "FakeFirmware.h"
#include "config/Config.h"
#include "output/Output.h"

namespace {

std::u16string Repeat(char16_t c, size_t n) { return std::u16string(n, c); }

std::u16string Digits(size_t n) {
  std::u16string text;
  for (size_t i = 0; i < n; i++) text.push_back(u'0' + (char16_t)(i % 10));
  return text;
}

TEST(Console, PrintShowsAtMost320CharactersAndCountsThem) {
  fake::Firmware f;
  fake::Install(f);
  const std::u16string long400 = Digits(400);
  EXPECT_EQ(Print(u"%s", long400.c_str()), 320u);
  EXPECT_EQ(Print(u"%s", Digits(320).c_str()), 320u);
  EXPECT_EQ(Print(u"x\n"), 3u);
  ASSERT_EQ(f.output.size(), 3u);
  EXPECT_EQ(f.output[0], long400.substr(0, 320));
  EXPECT_EQ(f.output[1], Digits(320));
  EXPECT_EQ(f.output[2], u"x\r\n");
  EXPECT_EQ(f.liveBlocks, 0) << "each Print frees its block";
}

TEST(Console, PrintReturnsZeroWhenTheConsoleRefuses) {
  fake::Firmware f;
  fake::Install(f);
  f.outputStatus = EFI_DEVICE_ERROR;
  EXPECT_EQ(Print(u"hello"), 0u);
}

TEST(Console, PrintLongSlicesIntoPiecesOf300WithoutFormattingThemAgain) {
  fake::Firmware f;
  fake::Install(f);
  // A '%' in the text must come out as it is: the slices are printed with "%s".
  std::u16string text = Digits(700);
  text[350] = u'%';
  text[351] = u'd';
  PrintLong(u"%s", text.c_str());
  ASSERT_EQ(f.output.size(), 3u);
  EXPECT_EQ(f.output[0], text.substr(0, 300));
  EXPECT_EQ(f.output[1], text.substr(300, 300));
  EXPECT_EQ(f.output[2], text.substr(600));
  EXPECT_EQ(f.liveBlocks, 0);
}

TEST(Console, PrintLongHolds4095Characters) {
  fake::Firmware f;
  fake::Install(f);
  PrintLong(u"%s", Digits(5000).c_str());
  EXPECT_EQ(f.output.size(), 14u);  // 13 slices of 300 and one of 195
  EXPECT_EQ(f.Transcript().size(), 4095u);
}

TEST(Console, BannersCarryTheirVersionTexts) {
  const std::string rights = "         Copyright (c) 2026 Dovrin Systems. All rights reserved.";
  struct Case {
    void (*show)();
    std::string version;
  } cases[] = {
      {[] { PrintBanner(false); }, "1.3k"},
      {[] { PrintBanner(true); }, "1.3k.00"},
      {[] { PrintSecureBanner(); }, "1.00.43.00"},
  };
  for (const Case& c : cases) {
    fake::Firmware f;
    fake::Install(f);
    c.show();
    EXPECT_EQ(f.Transcript(), "\r\n\r\n                Dovrin ZAPROM (Flash Firmware Tool) Version " + c.version + "\r\n" +
                                  rights + "\r\n\r\n\r\n");
  }
}

TEST(Console, CenterLinesGivesOneBlockPerLine) {
  fake::Firmware f;
  fake::Install(f);
  struct Row {
    UINT16 width;
    std::u16string text;
    std::u16string expected;
  } rows[] = {
      {10, u"ab\r\ncd", u"    ab   \n    cd   \n"},
      {10, u"abc", u"   abc   \n"},
      // Any run of line ends is one end; ends before the first line give no empty line.
      {10, u"\r\n\r\nab\n\n\ncd\r\n", u"    ab   \n    cd   \n"},
      {6, u"abcdef", u"abcde\n"},  // exactly the width: not centred, the last character gives way
      {6, u"abcdefghij\nxy", u"abcde\n  xy \n"},  // longer than the width: cut to the width
      {6, u"", u""},
      {6, u"\r\n", u""},
  };
  for (const Row& row : rows) {
    CHAR16* centred = CenterLines(row.width, row.text.c_str());
    ASSERT_NE(centred, nullptr);
    EXPECT_EQ(std::u16string(centred), row.expected) << "width " << row.width;
    FreePoolAndNull(centred);
  }
  EXPECT_EQ(CenterLines(80, nullptr), nullptr);
}

TEST(Console, CenterLinesFillsEightyColumnsPerLine) {
  fake::Firmware f;
  fake::Install(f);
  const std::u16string text = u"Please do not remove the AC power!\r\nSecond line\r\n";
  CHAR16* centred = CenterLines(80, text.c_str());
  std::u16string result(centred);
  FreePoolAndNull(centred);
  ASSERT_EQ(result.size(), 160u);
  EXPECT_EQ(result.substr(0, 80), Repeat(u' ', 23) + u"Please do not remove the AC power!" + Repeat(u' ', 22) + u"\n");
  EXPECT_EQ(result.substr(80), Repeat(u' ', 34) + u"Second line" + Repeat(u' ', 34) + u"\n");
}

TEST(Console, WarningBarStandsOnAClearedScreenInRedAndLeavesTheCursorAtRowSix) {
  fake::Firmware f;
  fake::Install(f);
  PrintWarningBar(u"  line one \n");
  const std::string edge = "Out:" + std::string(79, ' ') + "\r\n";
  std::vector<std::string> expected = {"Clear", "Attr:4F", edge, "Out:  line one \r\n", edge, "Cursor:0,6", "Attr:0F"};
  EXPECT_EQ(f.calls, expected);
}

TEST(Console, AcWarningWithoutMessageTableShowsTheToolsOwnText) {
  fake::Firmware f;
  fake::Install(f);
  ShowAcWarning("messagestringA02");
  ASSERT_EQ(f.output.size(), 3u);
  EXPECT_EQ(f.output[1], Repeat(u' ', 23) + u"Please do not remove the AC power!" + Repeat(u' ', 22) + u"\r\n");
  EXPECT_EQ(f.liveBlocks, 0) << "the centred text is freed";
}

TEST(Console, MessageTextFallsBackToTheDefaultItself) {
  fake::Firmware f;
  fake::Install(f);
  const CHAR16* fallback = u"default";
  const CHAR8* keys[] = {"messagestringA02", "", nullptr};
  for (const CHAR8* key : keys) {
    const CHAR16* text = GetMessageText(key, fallback);
    EXPECT_EQ(text, fallback) << "no text loaded: the very pointer given";
    FreeMessageText(text, fallback);
  }
  EXPECT_EQ(f.liveBlocks, 0);
}

TEST(Console, NoPauseWithoutTheSetting) {
  fake::Firmware f;
  fake::Install(f);
  FlashCompletePause();
  EXPECT_TRUE(f.calls.empty());
  EXPECT_EQ(f.readKeyCalls, 0);
}

}  // namespace
