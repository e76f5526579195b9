// The emulated console: what reaches the terminal (plain or with escapes), the transcript, the
// screen model, and the key script with its end.
#include <cstdio>
#include <cstdlib>

#include "EmuHarness.h"
#include "support/Isolated.h"

namespace {

struct Captured {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&buffer, &size);
  ~Captured() {
    if (stream != nullptr) std::fclose(stream);
    std::free(buffer);
  }
  std::string Text() {
    std::fflush(stream);
    return std::string(buffer, size);
  }
};

TEST(EmuConsole, RendersAttributesCursorAndClearAsTerminalEscapesOnlyWhenAsked) {
  struct Row {
    bool ansi;
    std::string expected;
  };
  const Row rows[] = {
      {true, "\x1b[97;41m\x1b[3;6HHi\r\n\x1b[37;40m\x1b[2J\x1b[Hok"},
      {false, "     Hi\nok"},
  };
  for (const Row& row : rows) {
    Captured out;
    emu::Options options = OptionsWithVolumes({});
    options.ansiConsole = row.ansi;
    options.consoleOut = out.stream;
    emu::Environment environment(options);
    EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* con = environment.SystemTable()->ConOut;
    con->SetAttribute(con, kAttributeWhiteOnRed);
    con->SetCursorPosition(con, 5, 2);
    con->OutputString(con, u"Hi\r\n");
    con->SetAttribute(con, 0x07);
    con->ClearScreen(con);
    con->OutputString(con, u"ok");
    EXPECT_EQ(out.Text(), row.expected);
    EXPECT_EQ(environment.ConsoleTranscript(), "Hi\r\nok");
  }
}

// A plain stream shows a row written at a set position once, as it looks when the tool leaves it.
TEST(EmuConsole, PlainStreamWritesARedrawnRowOnceWhenItIsDone) {
  struct Step {
    int column = -1;  // -1: no cursor move before the text
    int row = 0;
    const char16_t* text = u"";
    bool key = false;    // poll for a key after the text
    bool clear = false;  // clear the screen after the text
  };
  struct Row {
    const char* what;
    std::vector<Step> steps;
    std::string expected;
  };
  const Row rows[] = {
      {"a percentage redrawn in place, then a line feed",
       {{-1, 0, u"go\r\n"}, {4, 1, u" 1%"}, {4, 1, u" 2%"}, {0, 1, u"\r##"}, {4, 1, u"100%"}, {-1, 0, u"\r\ndone"}},
       "go\r\n##  100%\ndone"},
      {"a move to another row ends the held one", {{2, 3, u"ab"}, {0, 5, u"cd"}, {-1, 0, u"\n"}}, "  ab\r\ncd\n"},
      {"a clear shows the held row first", {{1, 0, u"x", false, true}, {-1, 0, u"y"}}, " x\r\ny"},
      {"a wait for a key shows the prompt", {{0, 2, u"Y/N?", true}, {-1, 0, u" later"}}, "Y/N? later"},
      {"a held row that is full goes on as flowing text",
       {{78, 0, u"abcd"}}, std::string(78, ' ') + "abcd"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Captured out;
    emu::Options options = OptionsWithVolumes({});
    options.consoleOut = out.stream;
    options.keys = "y";
    {
      emu::Environment environment(options);
      EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* con = environment.SystemTable()->ConOut;
      for (const Step& step : row.steps) {
        if (step.column >= 0) con->SetCursorPosition(con, step.column, step.row);
        con->OutputString(con, step.text);
        if (step.clear) con->ClearScreen(con);
        if (step.key) {
          EFI_INPUT_KEY key{};
          environment.SystemTable()->ConIn->ReadKeyStroke(environment.SystemTable()->ConIn, &key);
        }
      }
    }  // the end of the environment writes out what is still held
    EXPECT_EQ(out.Text(), row.expected);
  }
}

TEST(EmuConsole, ScreenModelFollowsTextCursorAndScrolling) {
  emu::Environment environment(OptionsWithVolumes({}));
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* con = environment.SystemTable()->ConOut;
  con->OutputString(con, u"first\r\nsecond line\rS");
  EXPECT_EQ(environment.ScreenText().substr(0, 18), "first\nSecond line\n");
  EXPECT_EQ(con->Mode->CursorRow, 1);
  EXPECT_EQ(con->Mode->CursorColumn, 1);
  con->SetAttribute(con, 0x1E);
  EXPECT_EQ(con->Mode->Attribute, 0x1E);
  EXPECT_EQ(con->SetCursorPosition(con, 80, 0), EFI_UNSUPPORTED);
  con->SetCursorPosition(con, 78, 24);
  con->OutputString(con, u"\u2550\u2550x");  // wraps past the last column and scrolls
  std::string screen = environment.ScreenText();
  EXPECT_EQ(screen.substr(0, 12), "Second line\n");
  EXPECT_NE(screen.find("\u2550\u2550\nx"), std::string::npos);
  UINTN columns = 0, rows = 0;
  EXPECT_EQ(con->QueryMode(con, 0, &columns, &rows), EFI_SUCCESS);
  EXPECT_EQ(columns * 1000 + rows, 80u * 1000 + 25u);
  EXPECT_EQ(con->QueryMode(con, 1, &columns, &rows), EFI_UNSUPPORTED);
}

TEST(EmuConsole, ScriptedKeysArriveInOrderThenNotReady) {
  emu::Options options = OptionsWithVolumes({});
  options.keys = "y{F1}{ENTER}{{{ESC}\xC3\xA9";
  emu::Environment environment(options);
  EFI_SIMPLE_TEXT_INPUT_PROTOCOL* in = environment.SystemTable()->ConIn;
  const EFI_INPUT_KEY expected[] = {{0, u'y'}, {0x0B, 0}, {0, u'\r'}, {0, u'{'}, {0x17, 0}, {0, u'\u00E9'}};
  for (const EFI_INPUT_KEY& key : expected) {
    EFI_INPUT_KEY got{0xFFFF, 0xFFFF};
    ASSERT_EQ(in->ReadKeyStroke(in, &got), EFI_SUCCESS);
    EXPECT_EQ(got.ScanCode, key.ScanCode);
    EXPECT_EQ(got.UnicodeChar, key.UnicodeChar);
  }
  EFI_INPUT_KEY none{};
  EXPECT_EQ(in->ReadKeyStroke(in, &none), EFI_NOT_READY);
}

TEST(EmuConsole, KeyScriptErrorsNameTheProblem) {
  struct Row {
    std::string text;
    std::string error;
  };
  const Row rows[] = {
      {"{F11}", "unknown key {F11} (known: {F1}..{F10}, {ESC}, {ENTER}, {UP}, {DOWN}, {LEFT}, {RIGHT}, {{)"},
      {"ab{F1", "unclosed '{' in the keys at character 3"},
      {"{enter}", "unknown key {enter} (known: {F1}..{F10}, {ESC}, {ENTER}, {UP}, {DOWN}, {LEFT}, {RIGHT}, {{)"},
  };
  for (const Row& row : rows) {
    std::vector<EFI_INPUT_KEY> keys;
    std::string error;
    EXPECT_FALSE(emu::ParseKeys(row.text, keys, error));
    EXPECT_EQ(error, row.error);
  }
}

TEST(EmuConsole, WaitingForAKeyWithNoneLeftCallsTheHandlerOnce) {
  emu::Options options = OptionsWithVolumes({});
  options.keys = "x";
  emu::Environment environment(options);
  int calls = 0;
  environment.SetKeysExhaustedHandler([&] { ++calls; });
  EFI_SIMPLE_TEXT_INPUT_PROTOCOL* in = environment.SystemTable()->ConIn;
  EFI_INPUT_KEY key{};
  ASSERT_EQ(in->ReadKeyStroke(in, &key), EFI_SUCCESS);
  for (uint64_t i = 1; i < emu::kIdlePollsBeforeNoKeysLeft; ++i) in->ReadKeyStroke(in, &key);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(in->ReadKeyStroke(in, &key), EFI_NOT_READY);
  EXPECT_EQ(calls, 1);
}

TEST(EmuConsole, WaitingForAKeyWithNoneLeftEndsTheProgramByDefault) {
  int exit = RunIsolated([] {
    emu::Environment environment(OptionsWithVolumes({}));
    EFI_SIMPLE_TEXT_INPUT_PROTOCOL* in = environment.SystemTable()->ConIn;
    EFI_INPUT_KEY key{};
    for (;;) in->ReadKeyStroke(in, &key);
  });
  EXPECT_EQ(exit, emu::kExitNoKeysLeft);
}

}  // namespace
