// Console messages through a recording console: the print limits, the centred lines and the
// key wait, with the exact text and order of calls.
#include <gtest/gtest.h>

#include <string>

#include "output/OutputInternal.h"
#include "support/DriverBed.h"

namespace {

// A recording console and no log.
class ConsoleCalls : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override {
    return {.firmware = bed::Firmware::Scripted, .recordConsole = true, .log = false};
  }
};

std::u16string Digits(size_t n) {
  std::u16string text;
  for (size_t i = 0; i < n; i++) text.push_back(u'0' + (char16_t)(i % 10));
  return text;
}

TEST_F(ConsoleCalls, PrintCutsAt320AndPrintLongSlicesAt300WithoutFormattingAgain) {
  std::u16string percent = Digits(700);
  percent[350] = u'%', percent[351] = u'd';  // a slice is printed with "%s", never as a format
  struct Row {
    std::u16string text;
    bool slices;
    std::vector<size_t> pieces;  // lengths of the OutputString calls
  } rows[] = {
      {Digits(400), false, {320}}, {Digits(320), false, {320}}, {u"x", false, {1}}, {percent, true, {300, 300, 100}},
      {Digits(600), true, {300, 300}},  // two whole slices and no empty third
      {Digits(5000), true, {300, 300, 300, 300, 300, 300, 300, 300, 300, 300, 300, 300, 300, 195}},  // 4095 kept
  };
  for (const Row& row : rows) {
    Install(Layout());
    size_t blocks = Environment().LiveBlocks().size();
    size_t shown = row.slices ? (PrintLong(u"%s", row.text.c_str()), 0) : Print(u"%s", row.text.c_str());
    ASSERT_EQ(consoleCalls.size(), row.pieces.size()) << row.text.size();
    size_t at = 0;
    for (size_t i = 0; i < row.pieces.size(); i++, at += row.pieces[i - 1])
      EXPECT_EQ(consoleCalls[i], "Out:" + std::string(row.text.begin() + at, row.text.begin() + at + row.pieces[i])) << row.text.size() << " piece " << i;
    if (!row.slices) EXPECT_EQ(shown, row.pieces[0]);
    EXPECT_EQ(Environment().LiveBlocks().size(), blocks) << "each print frees its block";
  }
  outputStatus = EFI_DEVICE_ERROR;
  EXPECT_EQ(Print(u"hello\n"), 0u);
}

TEST_F(ConsoleCalls, CenterLinesGivesOneBlockPerLine) {
  const std::u16string ac = u"Please do not remove the AC power!";
  struct Row {
    UINT16 width;
    std::u16string text;
    std::u16string expected;
  } rows[] = {
      {10, u"ab\r\ncd", u"    ab   \n    cd   \n"},
      {10, u"abc", u"   abc   \n"},
      {10, u"\r\n\r\nab\n\n\ncd\r\n", u"    ab   \n    cd   \n"},  // a run of line ends is one end
      {6, u"abcdef", u"abcde\n"},                  // exactly the width: the last character gives way
      {6, u"abcdefghij\nxy", u"abcde\n  xy \n"},   // longer than the width: cut to the width
      {6, u"", u""}, {6, u"\r\n", u""},
      {80, ac + u"\r\n", std::u16string(23, u' ') + ac + std::u16string(22, u' ') + u"\n"},
  };
  for (const Row& row : rows) {
    CHAR16* centred = CenterLines(row.width, row.text.c_str());
    ASSERT_NE(centred, nullptr);
    EXPECT_EQ(std::u16string(centred), row.expected) << "width " << row.width;
    FreePoolAndNull(centred);
  }
  EXPECT_EQ(CenterLines(80, nullptr), nullptr);
}

std::vector<std::pair<EFI_STATUS, EFI_INPUT_KEY>> script;
size_t reads = 0;

TEST_F(ConsoleCalls, WaitKeyPollsUntilAKeyOrAnErrorAndGivesItsCharacter) {
  struct Row {
    std::vector<std::pair<EFI_STATUS, EFI_INPUT_KEY>> script;
    CHAR16 expected;
  } rows[] = {
      {{{EFI_NOT_READY, {}}, {EFI_NOT_READY, {}}, {EFI_SUCCESS, {0, u'y'}}}, u'y'},
      {{{EFI_SUCCESS, {0x0B, 0}}}, 0},  // a function key: character 0
      {{{EFI_NOT_READY, {}}, {EFI_DEVICE_ERROR, {0, u'z'}}}, 0},
  };
  EFI_SIMPLE_TEXT_INPUT_PROTOCOL input{nullptr, [](EFI_SIMPLE_TEXT_INPUT_PROTOCOL*, EFI_INPUT_KEY* key) -> EFI_STATUS {
    auto [status, value] = script.at(reads++);
    return *key = EFI_ERROR(status) ? *key : value, status;
  }};
  Environment().SystemTable()->ConIn = &input;
  for (const Row& row : rows) {
    script = row.script, reads = 0;
    EXPECT_EQ(WaitKey(), row.expected);
    EXPECT_EQ(reads, row.script.size());
  }
}

}  // namespace
