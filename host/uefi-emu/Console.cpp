// The console of the emulated environment: simple text output rendered to a host stream (plain,
// or with terminal escapes for attributes, cursor and clear), a transcript and an 80x25 screen
// model for tests, and simple text input fed from a key script.
//
// A plain stream cannot move its cursor, so text that the tool writes at a set position (a
// progress line redrawn for every block) would pile up on one line. Such a row is held instead:
// it is drawn in memory and written out once, as it finally looks, when the tool leaves it (a
// line feed, a move to another row, a clear, a wait for a key, the end of the run).
#include <cstdio>
#include <cstdlib>

#include "EmuInternal.h"

namespace emu {

bool ParseKeys(const std::string& text, std::vector<EFI_INPUT_KEY>& keys, std::string& error) {
  struct Named {
    const char* name;
    UINT16 scan;
    CHAR16 character;
  };
  static const Named kNamed[] = {
      {"F1", kScanF1, 0}, {"F2", 0x0C, 0},    {"F3", 0x0D, 0},     {"F4", 0x0E, 0},   {"F5", 0x0F, 0},
      {"F6", 0x10, 0},    {"F7", 0x11, 0},    {"F8", 0x12, 0},     {"F9", 0x13, 0},   {"F10", 0x14, 0},
      {"ESC", kScanEsc, 0}, {"UP", 0x01, 0},  {"DOWN", 0x02, 0},   {"RIGHT", 0x03, 0}, {"LEFT", 0x04, 0},
      {"ENTER", kScanNull, u'\r'},
  };
  keys.clear();
  std::u16string wide = detail::FromUtf8(text);
  for (size_t i = 0; i < wide.size(); ++i) {
    if (wide[i] != u'{') {
      keys.push_back({kScanNull, wide[i]});
      continue;
    }
    if (i + 1 < wide.size() && wide[i + 1] == u'{') {
      keys.push_back({kScanNull, u'{'});
      ++i;
      continue;
    }
    size_t close = wide.find(u'}', i);
    if (close == std::u16string::npos) {
      error = "unclosed '{' in the keys at character " + std::to_string(i + 1);
      return false;
    }
    std::string name = detail::ToUtf8(wide.substr(i + 1, close - i - 1));
    bool found = false;
    for (const Named& named : kNamed) {
      if (name == named.name) {
        keys.push_back({named.scan, named.character});
        found = true;
      }
    }
    if (!found) {
      error = "unknown key {" + name + "} (known: {F1}..{F10}, {ESC}, {ENTER}, {UP}, {DOWN}, {LEFT}, {RIGHT}, {{)";
      return false;
    }
    i = close;
  }
  return true;
}

namespace detail {
namespace {

constexpr int kColumns = 80;
constexpr int kRows = 25;

void Emit(const std::string& text) {
  if (g->options.consoleOut != nullptr) {
    std::fwrite(text.data(), 1, text.size(), g->options.consoleOut);
    std::fflush(g->options.consoleOut);
  }
}

void EmitEscape(const std::string& text) {
  if (g->options.ansiConsole) Emit(text);
}

// Writes the held row as it stands now, trailing blanks left out, then `after`.
void FlushHeldRow(const char* after) {
  if (g->heldRow < 0) return;
  std::u16string line = g->heldLine;
  size_t end = line.find_last_not_of(u' ');
  line.resize(end == std::u16string::npos ? 0 : end + 1);
  Emit(ToUtf8(line) + after);
  g->heldRow = -1;
}

// Draws one character into the held row; false when it ends the hold (a line feed, or the
// row is full), so that the character goes out as flowing text.
bool HoldCharacter(char16_t c) {
  switch (c) {
    case u'\n':
      return false;
    case u'\r':
      g->heldColumn = 0;
      return true;
    case u'\b':
      if (g->heldColumn > 0) --g->heldColumn;
      return true;
    default:
      if (g->heldColumn >= kColumns) return false;
      g->heldLine[g->heldColumn++] = c;
      return true;
  }
}

void ClearModel() {
  g->screen.assign(kRows, std::u16string(kColumns, u' '));
  g->textMode.CursorColumn = 0;
  g->textMode.CursorRow = 0;
}

void PutOnScreen(char16_t c) {
  SIMPLE_TEXT_OUTPUT_MODE& m = g->textMode;
  switch (c) {
    case u'\r':
      m.CursorColumn = 0;
      return;
    case u'\n':
      ++m.CursorRow;
      break;
    case u'\b':
      if (m.CursorColumn > 0) --m.CursorColumn;
      return;
    default:
      g->screen[m.CursorRow][m.CursorColumn] = c;
      if (++m.CursorColumn == kColumns) {
        m.CursorColumn = 0;
        ++m.CursorRow;
      }
  }
  if (m.CursorRow == kRows) {
    g->screen.erase(g->screen.begin());
    g->screen.push_back(std::u16string(kColumns, u' '));
    m.CursorRow = kRows - 1;
  }
}

EFI_STATUS EFIAPI OutputString(TextOut*, const CHAR16* text) {
  if (text == nullptr) return EFI_INVALID_PARAMETER;
  std::u16string wide;
  std::u16string flowing;  // what goes to the host stream now
  for (const CHAR16* p = text; *p != 0; ++p) {
    wide += *p;
    PutOnScreen(*p);
    if (g->heldRow >= 0 && HoldCharacter(*p)) continue;
    if (g->heldRow >= 0) {
      Emit(ToUtf8(flowing));
      flowing.clear();
      FlushHeldRow("");
    }
    flowing += *p;
  }
  g->transcript += ToUtf8(wide);
  Emit(ToUtf8(flowing));
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI TestString(TextOut*, const CHAR16*) { return EFI_SUCCESS; }

EFI_STATUS EFIAPI QueryMode(TextOut*, UINTN mode, UINTN* columns, UINTN* rows) {
  if (columns == nullptr || rows == nullptr) return EFI_INVALID_PARAMETER;
  if (mode != 0) return EFI_UNSUPPORTED;
  *columns = kColumns;
  *rows = kRows;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ClearScreen(TextOut*) {
  FlushHeldRow("\r\n");
  ClearModel();
  EmitEscape("\x1b[2J\x1b[H");
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetMode(TextOut* self, UINTN mode) {
  if (mode != 0) return EFI_UNSUPPORTED;
  g->textMode.Mode = 0;
  return ClearScreen(self);
}

EFI_STATUS EFIAPI Reset(TextOut* self, BOOLEAN) { return ClearScreen(self); }

// UEFI numbers its colours blue-green-red from bit 0, terminals red-green-blue.
const int kAnsiColour[8] = {0, 4, 2, 6, 1, 5, 3, 7};

EFI_STATUS EFIAPI SetAttribute(TextOut*, UINTN attribute) {
  if (attribute > 0x7F) return EFI_UNSUPPORTED;
  g->textMode.Attribute = static_cast<INT32>(attribute);
  int foreground = static_cast<int>(attribute & 0x0F);
  int background = static_cast<int>((attribute >> 4) & 0x07);
  // As the firmware's terminal driver sends it: bold for the bright half, then both colours.
  EmitEscape(std::string(foreground & 0x08 ? "\x1b[1m" : "\x1b[0m") + "\x1b[" + std::to_string(30 + kAnsiColour[foreground & 0x07]) +
             "m\x1b[" + std::to_string(40 + kAnsiColour[background]) + "m");
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetCursorPosition(TextOut*, UINTN column, UINTN row) {
  if (column >= static_cast<UINTN>(kColumns) || row >= static_cast<UINTN>(kRows)) return EFI_UNSUPPORTED;
  g->textMode.CursorColumn = static_cast<INT32>(column);
  g->textMode.CursorRow = static_cast<INT32>(row);
  EmitEscape("\x1b[" + std::to_string(row + 1) + ";" + std::to_string(column + 1) + "H");
  if (!g->options.ansiConsole) {
    if (g->heldRow != static_cast<int>(row)) {
      FlushHeldRow("\r\n");
      g->heldRow = static_cast<int>(row);
      g->heldLine = g->screen[row];
    }
    g->heldColumn = static_cast<int>(column);
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI EnableCursor(TextOut*, BOOLEAN visible) {
  g->textMode.CursorVisible = visible;
  EmitEscape(visible ? "\x1b[?25h" : "\x1b[?25l");
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI InputReset(EFI_SIMPLE_TEXT_INPUT_PROTOCOL*, BOOLEAN) { return EFI_SUCCESS; }

EFI_STATUS EFIAPI ReadKeyStroke(EFI_SIMPLE_TEXT_INPUT_PROTOCOL*, EFI_INPUT_KEY* key) {
  if (key == nullptr) return EFI_INVALID_PARAMETER;
  FlushHeldRow("");  // whatever asks for the key is on the screen first
  if (g->nextKey < g->keys.size()) {
    *key = g->keys[g->nextKey++];
    g->idlePolls = 0;
    return EFI_SUCCESS;
  }
  // A tool waiting for a key polls; once the script is used up, no key will ever come.
  ++g->idlePolls;
  if (g->idlePolls >= kIdlePollsOfAWait && g->entersLeft > 0) {
    g->entersLeft--;
    g->idlePolls = 0;
    *key = {kScanNull, u'\r'};
    return EFI_SUCCESS;
  }
  if (g->idlePolls >= kIdlePollsBeforeNoKeysLeft) {
    g->idlePolls = 0;
    std::fprintf(stderr, "zaprom-sim: the tool waits for a key and none is left (use --keys)\n");
    if (g->keysExhausted) {
      g->keysExhausted();
    } else {
      std::exit(kExitNoKeysLeft);
    }
  }
  return EFI_NOT_READY;
}

}  // namespace

void InstallConsole(State& s) {
  s.textMode.MaxMode = 1;
  s.textMode.Mode = 0;
  s.textMode.Attribute = 0x07;
  s.textMode.CursorVisible = 1;
  s.textOut.Reset = Reset;
  s.textOut.OutputString = OutputString;
  s.textOut.TestString = TestString;
  s.textOut.QueryMode = QueryMode;
  s.textOut.SetMode = SetMode;
  s.textOut.SetAttribute = SetAttribute;
  s.textOut.ClearScreen = ClearScreen;
  s.textOut.SetCursorPosition = SetCursorPosition;
  s.textOut.EnableCursor = EnableCursor;
  s.textOut.Mode = &s.textMode;
  s.textIn.Reset = InputReset;
  s.textIn.ReadKeyStroke = ReadKeyStroke;
  ClearModel();

  std::string error;
  if (!ParseKeys(s.options.keys, s.keys, error)) {
    s.setupError = error;
    s.keys.clear();
  }
  s.entersLeft = s.options.enterWhenWaiting;

  // The console handle carries both text protocols, as the firmware's console splitter does.
  static constexpr EFI_GUID kTextInGuid = {0x387477C1, 0x69C7, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
  static constexpr EFI_GUID kTextOutGuid = {0x387477C2, 0x69C7, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
  s.consoleHandle = nullptr;
  InstallProtocol(&s.consoleHandle, kTextInGuid, &s.textIn);
  InstallProtocol(&s.consoleHandle, kTextOutGuid, &s.textOut);
  s.systemTable.ConsoleInHandle = s.consoleHandle;
  s.systemTable.ConsoleOutHandle = s.consoleHandle;
  s.systemTable.StandardErrorHandle = s.consoleHandle;
  s.systemTable.ConIn = &s.textIn;
  s.systemTable.ConOut = &s.textOut;
  s.systemTable.StdErr = &s.textOut;
}

}  // namespace detail

std::string Environment::ConsoleTranscript() const { return detail::g->transcript; }

void Environment::FlushConsole() { detail::FlushHeldRow(""); }

std::string Environment::ScreenText() const {
  std::string out;
  for (size_t row = 0; row < detail::g->screen.size(); ++row) {
    std::u16string line = detail::g->screen[row];
    size_t end = line.find_last_not_of(u' ');
    line.resize(end == std::u16string::npos ? 0 : end + 1);
    if (row > 0) out += '\n';
    out += detail::ToUtf8(line);
  }
  return out;
}

void Environment::SetKeysExhaustedHandler(std::function<void()> handler) { detail::g->keysExhausted = std::move(handler); }

}  // namespace emu
