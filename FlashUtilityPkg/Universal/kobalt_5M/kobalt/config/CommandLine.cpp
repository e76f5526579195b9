// The command line of ShellFlashMain: arguments into one option text, the text into tokens, each
// token into CommandFlags by the option table, and the text helpers that serve it. What an option
// then does is the business of the step that reads its flag; the filters live in Filters.cpp.
#include "config/ConfigInternal.h"
#include "HostSettings.h"
#include "output/Output.h"

namespace {

// 31 characters and the terminator: a longer word is refused as a whole.
constexpr UINTN kTokenCharacters = 32;
constexpr CHAR16 kBlank = u' ';
constexpr UINT32 kFirstOptionWithImage = 2;
constexpr UINT32 kFirstOptionWithoutImage = 1;

constexpr CHAR16 kParseCommandLineName[] = u"ParseCommandLine";
constexpr CHAR16 kErrorInvalidCommand[] = u"Error command: %s (Invalid command)\n";
constexpr CHAR16 kReasonInvalidCommand[] = u"Invalid command";

constexpr CHAR16 kTraceType[] = u"Command -ft %02x %s\r\n";
constexpr CHAR16 kTraceEInvalid[] = u"Command -e invalid %s\r\n";
constexpr CHAR16 kTraceE[] = u" command -e\r\n--------+-----------\r\n Offset  %X\r\n   Size  %X\r\n   Addr  %X\r\n";
constexpr CHAR16 kTraceRt[] = u" Command -rt Count (%2X) Delay (%2X)\r\n";
constexpr CHAR16 kTraceVrt[] = u" Command -vrt count %2X\r\n";
constexpr CHAR16 kTraceEdtRaw[] = u"raw command (%s)\r\n";
constexpr CHAR16 kWarningEdtType[] = u"Warning - Type code error. (0x4-0xC)\r\n";
constexpr CHAR16 kWarningEdtFormat[] = u"Warning - Format code error.\r\n";

constexpr CHAR16 kOemCusOption[] = u"OemCus";
constexpr CHAR16 kOemCusPrefix[] = u"CUS";
constexpr INT32 kOemCusPrefixCharacters = 3;
constexpr CHAR16 kTraceOemCus[] = u"Command -oemcus (%s)\r\n";
constexpr CHAR16 kErrorOemCusPrefix[] =
    u"\r\n\r\n\r\n\r\n    Error:\r\n    Invalid parameter \"%s\".\r\n    The parameter have to with prefix \"CUS\".\r\n\r\n";

// How the compare of a row ends: the token must end with the literal, or anything may follow.
enum class Form : UINT8 { Exact, Prefix };

// A value option gets its whole token (writable, for the -edt test) and the text behind the
// literal; its answer is the answer of ParseOption.
using ValueHandler = Bool (*)(CHAR16* token, const CHAR16* value);

constexpr INT16 kNoType = -1;

struct OptionRow {
  const CHAR16* literal;  // without the leading '-' or '/'
  Form form;
  Bool CommandFlags::*flag;
  const CHAR16* trace;  // level 4; null for none
  INT16 type;           // a typeFlags index, traced by kTraceType
  ValueHandler value;
};

constexpr CHAR16 FoldLetter(CHAR16 c) { return (c >= u'A' && c <= u'Z') ? (CHAR16)(c - u'A' + u'a') : c; }

Bool IsHexDigit(CHAR16 c, UINT32* digit) {
  if (c >= u'0' && c <= u'9') {
    *digit = c - u'0';
  } else if (c >= u'a' && c <= u'f') {
    *digit = c - u'a' + 10;
  } else if (c >= u'A' && c <= u'F') {
    *digit = c - u'A' + 10;
  } else {
    return false;
  }
  return true;
}

// The first occurrence of c in text, or null.
const CHAR16* FindChar(const CHAR16* text, CHAR16 c) {
  for (; *text != 0; text++) {
    if (*text == c) {
      return text;
    }
  }
  return nullptr;
}

Bool ApplyE(CHAR16*, const CHAR16* value) {
  if (value[0] == 0) {
    return true;
  }
  const CHAR16* firstComma = FindChar(value, u',');
  const CHAR16* secondComma = firstComma != nullptr ? FindChar(firstComma + 1, u',') : nullptr;
  if (secondComma == nullptr) {
    // A malformed -e: is no failure: the run becomes an ordinary update.
    LogPrint(kLogDetail, kTraceEInvalid, value);
    return true;
  }
  // ParseHex stops at the comma, so each part is read in place.
  UINT32 offset = ParseHex(value);
  UINT32 size = Flags()->eSize;
  UINT32 address = Flags()->eAddress;
  if (firstComma[1] != u',') {
    size = ParseHex(firstComma + 1);
  }
  if (secondComma[1] != 0) {
    address = ParseHex(secondComma + 1);
  }
  SetCommand_e(offset, size, address);
  LogPrint(kLogDetail, kTraceE, offset, size, address);
  return true;
}

Bool ApplyRt(CHAR16*, const CHAR16* value) {
  UINT32 delay = Flags()->rtDelay;
  const CHAR16* comma = FindChar(value, u',');
  if (comma != nullptr) {
    delay = ParseHex(comma + 1);
  }
  // A count of 0 would mean no attempt at all; the whole number decides, before the byte is taken.
  UINT32 count = ParseHex(value);
  UINT8 countByte = count == 0 ? 1 : (UINT8)(count & 0xFF);
  SetCommand_rt(countByte, delay);
  LogPrint(kLogDetail, kTraceRt, countByte, delay);
  return true;
}

Bool ApplyVrt(CHAR16*, const CHAR16* value) {
  if (value[0] == 0) {
    return true;
  }
  UINT32 count = ParseHex(value);
  SetCommand_vrt(count);
  LogPrint(kLogDetail, kTraceVrt, count);
  return true;
}

Bool ApplyFt(CHAR16*, const CHAR16* value) {
  UINT8 type = (UINT8)(ParseHex(value) & 0xFF);
  SetTypeFlag(type);
  LogPrint(kLogDetail, kTraceType, type, RegionTypeName(type));
  return true;
}

Bool ApplyEdt(CHAR16* token, const CHAR16*) {
  // The test sees the token behind its dash or slash and lower-cases it there.
  if (!IsValidCommand_edt(token + 1)) {
    return false;
  }
  // A tenth item does not fit the list: refused like any invalid option.
  return AddEdtEntry(token + 1);
}

Bool TakeNothing(CHAR16*, const CHAR16*) { return true; }

// Within a group only the prefix rows care about order: "e:" before "ecbp", and "edt" takes
// everything behind it to its own format test.
constexpr OptionRow kOptions[] = {
    {u"h", Form::Exact, &CommandFlags::help, nullptr, kNoType, nullptr},
    {u"?", Form::Exact, &CommandFlags::help, nullptr, kNoType, nullptr},
    {u"ab", Form::Exact, &CommandFlags::ab, u"Command -ab\r\n", kNoType, nullptr},
    {u"ac", Form::Exact, &CommandFlags::ac, u"Command -ac\r\n", kNoType, nullptr},
    {u"acb", Form::Exact, &CommandFlags::acb, u"Command -acb\r\n", kNoType, nullptr},
    {u"all", Form::Exact, &CommandFlags::all, u"Command -all\r\n", kNoType, nullptr},
    {u"alp", Form::Exact, &CommandFlags::alp, u"Command -alp\r\n", kNoType, nullptr},
    {u"b", Form::Exact, nullptr, nullptr, 0x00, nullptr},
    {u"bios", Form::Exact, &CommandFlags::bios, u"Command -bios\r\n", kNoType, nullptr},
    {u"dc", Form::Exact, &CommandFlags::dc, u"Command -dc enable\r\n", kNoType, nullptr},
    {u"desc", Form::Exact, &CommandFlags::desc, u"Command -desc\r\n", kNoType, nullptr},
    {u"di", Form::Exact, &CommandFlags::di, u"Command -di\r\n", kNoType, nullptr},
    // The log's own scan of the arguments turns the trace on; here the token only counts as known.
    {u"dbg", Form::Prefix, nullptr, nullptr, kNoType, TakeNothing},
    {u"e:", Form::Prefix, nullptr, nullptr, kNoType, ApplyE},
    {u"ecbp", Form::Exact, &CommandFlags::ecbp, u"Command -ecbp\r\n", kNoType, nullptr},
    {u"ecp", Form::Exact, &CommandFlags::ecp, u"Command -ecp\r\n", kNoType, nullptr},
    {u"ecb", Form::Exact, &CommandFlags::ecb, u"Command -ecb\r\n", kNoType, nullptr},
    {u"ec", Form::Exact, &CommandFlags::ec, u"Command -ec\r\n", kNoType, nullptr},
    {u"ec_crisis", Form::Exact, &CommandFlags::ecCrisis, nullptr, kNoType, nullptr},
    {u"edt", Form::Prefix, nullptr, nullptr, kNoType, ApplyEdt},
    {u"eob", Form::Exact, &CommandFlags::eob, u"Command -eob\r\n", kNoType, nullptr},
    // The package's argument scan has set the flag and taken the parameter already.
    {u"extrFD", Form::Exact, nullptr, nullptr, kNoType, TakeNothing},
    {u"fd", Form::Exact, nullptr, nullptr, 0x03, nullptr},
    {u"fe", Form::Exact, nullptr, nullptr, 0x04, nullptr},
    {u"fl", Form::Exact, nullptr, nullptr, 0x05, nullptr},
    {u"fm", Form::Exact, nullptr, nullptr, 0x01, nullptr},
    {u"fn", Form::Exact, nullptr, nullptr, 0x10, nullptr},
    {u"fp", Form::Exact, nullptr, nullptr, 0x0F, nullptr},
    {u"ft:", Form::Prefix, nullptr, nullptr, kNoType, ApplyFt},
    {u"fv", Form::Exact, nullptr, nullptr, 0x02, nullptr},
    {u"forceit", Form::Exact, &CommandFlags::forceit, u"Dell -forceit enable\r\n", kNoType, nullptr},
    {u"g", Form::Exact, &CommandFlags::g, u"Command -g\r\n", kNoType, nullptr},
    {u"gbe", Form::Exact, &CommandFlags::gbe, u"Command -gbe\r\n", kNoType, nullptr},
    {u"mc", Form::Exact, &CommandFlags::mc, u"Command -mc\r\n", kNoType, nullptr},
    {u"me", Form::Exact, &CommandFlags::me, u"Command -me\r\n", kNoType, nullptr},
    {u"mfg", Form::Exact, &CommandFlags::mfg, u"set parameter |MFG|\r\n", kNoType, nullptr},
    {u"n", Form::Exact, &CommandFlags::nothing, u"Command -n\r\n", kNoType, nullptr},
    {u"nopause", Form::Exact, &CommandFlags::nopause, u"Command -nopause used\r\n", kNoType, nullptr},
    // Its word has been taken and blanked before the options are read.
    {u"OemCus", Form::Exact, nullptr, nullptr, kNoType, TakeNothing},
    {u"pbi:", Form::Prefix, nullptr, nullptr, kNoType, TakeNothing},
    {u"pdr", Form::Exact, &CommandFlags::pdr, u"Command -pdr\r\n", kNoType, nullptr},
    {u"pi", Form::Exact, &CommandFlags::pi, u"Command -pi\r\n", kNoType, nullptr},
    {u"pq", Form::Exact, &CommandFlags::pq, u"Command -pq\r\n", kNoType, nullptr},
    {u"pr", Form::Exact, &CommandFlags::pr, u"Command -pr\r\n", kNoType, nullptr},
    {u"ppriv", Form::Exact, &CommandFlags::priv, u"Command -priv\r\n", kNoType, nullptr},
    {u"priv", Form::Exact, &CommandFlags::priv, u"Command -priv\r\n", kNoType, nullptr},
    {u"r", Form::Exact, &CommandFlags::reboot, u"Command -r\r\n", kNoType, nullptr},
    {u"rt:", Form::Prefix, nullptr, nullptr, kNoType, ApplyRt},
    {u"s", Form::Exact, &CommandFlags::shutdown, u"Command -s\r\n", kNoType, nullptr},
    {u"skipsbp", Form::Exact, &CommandFlags::skipSbp, u"Command -skipsbp enable\r\n", kNoType, nullptr},
    {u"u", Form::Exact, &CommandFlags::u, u"Command -u\r\n", kNoType, nullptr},
    {u"ufc", Form::Exact, &CommandFlags::ufc, u"Command -ufc\r\n", kNoType, nullptr},
    {u"unvs", Form::Exact, &CommandFlags::unvs, u"Command -unvs\r\n", kNoType, nullptr},
    {u"v", Form::Exact, &CommandFlags::v, u"Command -v\r\n", kNoType, nullptr},
    {u"vrt:", Form::Prefix, nullptr, nullptr, kNoType, ApplyVrt},
};

// Whether an earlier row would take a token spelt as literal, so that the later row is never
// reached.
constexpr Bool RowTakes(const OptionRow& earlier, const CHAR16* literal) {
  UINT32 i = 0;
  while (earlier.literal[i] != 0 && FoldLetter(earlier.literal[i]) == FoldLetter(literal[i])) {
    i++;
  }
  return earlier.literal[i] == 0 && (earlier.form == Form::Prefix || literal[i] == 0);
}

// The table checks itself when it is compiled: every row can be reached, and every row does
// something (a flag, a region type or a handler; a trace only with a flag).
constexpr Bool OptionTableSound() {
  Bool sound = true;
  for (UINT32 j = 0; j < sizeof(kOptions) / sizeof(kOptions[0]); j++) {
    const OptionRow& row = kOptions[j];
    sound = sound && row.literal[0] != 0 && (row.flag != nullptr || row.type != kNoType || row.value != nullptr) &&
            (row.trace == nullptr || row.flag != nullptr);
    for (UINT32 i = 0; i < j; i++) {
      sound = sound && !RowTakes(kOptions[i], row.literal);
    }
  }
  return sound;
}
static_assert(OptionTableSound(), "an option row is shadowed by an earlier one or does nothing");

Bool ApplyRow(const OptionRow& row, CHAR16* token) {
  SetCommandFlag(row.flag);
  if (row.trace != nullptr) {
    LogPrint(kLogDetail, row.trace);
  }
  if (row.type != kNoType) {
    SetTypeFlag((UINT8)row.type);
    LogPrint(kLogDetail, kTraceType, (UINT32)row.type, RegionTypeName((UINT8)row.type));
  }
  if (row.value != nullptr) {
    // Behind the '-' and the literal.
    return row.value(token, token + 1 + StrLen16(row.literal));
  }
  return true;
}

// Characters from position up to the next separator or the end.
UINTN WordLength(const CHAR16* text, UINTN position, CHAR16 separator) {
  UINTN length = 0;
  while (text[position + length] != 0 && text[position + length] != separator) {
    length++;
  }
  return length;
}

VOID RefuseToken(const CHAR16* token) {
  PrintBanner(true);
  Print(kErrorInvalidCommand, token);
}

// -OemCus takes the next argument as a word for the firmware's parameter list; the word is
// blanked so that the option reader never sees it. Every -OemCus on the line counts.
Bool ParseOemCus(CHAR16** arguments, UINT32 count) {
  for (UINT32 i = 1; i < count; i++) {
    const CHAR16* argument = arguments[i];
    if (!IsOptionArgument(argument, kOemCusOption)) {
      continue;
    }
    CHAR16* parameter = i + 1 < count ? arguments[i + 1] : nullptr;
    if (parameter == nullptr || !MatchText(false, parameter, kOemCusPrefix, kOemCusPrefixCharacters)) {
      PrintBanner(true);
      Print(kErrorOemCusPrefix, parameter != nullptr ? parameter : u"");
      return false;
    }
    LogPrint(kLogDetail, kTraceOemCus, parameter);
    AddOemParameter(parameter);
    parameter[0] = 0;
    i++;
  }
  return true;
}

}  // namespace

Bool IsOptionArgument(const CHAR16* argument, const CHAR16* name) {
  return argument != nullptr && (argument[0] == u'-' || argument[0] == u'/') &&
         MatchText(false, argument + 1, name, -1);
}

Bool MatchText(Bool caseSensitive, const CHAR16* text, const CHAR16* literal, INT32 count) {
  if (text == nullptr || literal == nullptr) {
    return false;
  }
  if (count < 0) {
    if (StrLen16(text) != StrLen16(literal)) {
      return false;
    }
    count = (INT32)StrLen16(text);
  }
  for (INT32 i = 0; i < count; i++) {
    CHAR16 left = caseSensitive ? text[i] : FoldLetter(text[i]);
    CHAR16 right = caseSensitive ? literal[i] : FoldLetter(literal[i]);
    if (left != right) {
      return false;
    }
    if (left == 0) {
      // Both ended together: nothing lies behind to compare.
      return true;
    }
  }
  return true;
}

Bool NextToken(const CHAR16* text, CHAR16 separator, UINT16* position, CHAR16* token, UINTN capacity) {
  if (text == nullptr || position == nullptr || token == nullptr || capacity == 0) {
    return false;
  }
  UINTN length = StrLen16(text);
  if (*position >= length) {
    return false;
  }
  UINTN word = WordLength(text, *position, separator);
  UINTN copied = word < capacity - 1 ? word : capacity - 1;
  CopyMem(token, text + *position, copied * sizeof(CHAR16));
  token[copied] = 0;
  UINTN next = *position + word;
  if (text[next] == separator) {
    next++;
  }
  *position = (UINT16)next;
  return true;
}

UINT32 ParseHex(const CHAR16* text) {
  if (text == nullptr) {
    return 0;
  }
  while (*text == u' ' || *text == u'\t') {
    text++;
  }
  if (text[0] == u'0' && (text[1] == u'x' || text[1] == u'X')) {
    text += 2;
  }
  UINT32 value = 0;
  UINT32 digit = 0;
  for (; IsHexDigit(*text, &digit); text++) {
    value = (value << 4) | digit;
  }
  return value;
}

Bool IsValidCommand_edt(CHAR16* text) {
  LogPrint(kLogDetail, kTraceEdtRaw, text);
  constexpr UINTN kShortest = 6;
  if (StrLen16(text) < kShortest) {
    return false;
  }
  for (UINTN i = 0; i < kShortest; i++) {
    text[i] = FoldLetter(text[i]);
  }
  CHAR16 type = text[3];
  if (!((type >= u'4' && type <= u'9') || (type >= u'a' && type <= u'c'))) {
    Print(kWarningEdtType);
    return false;
  }
  const CHAR16* format = text + 4;
  if (!MatchText(true, format, u"f:", 2) && !MatchText(true, format, u"s:", 2) && !MatchText(true, format, u"w:", 2) &&
      !MatchText(true, format, u"dw:", 3)) {
    Print(kWarningEdtFormat);
    return false;
  }
  return true;
}

Bool ParseOption(CHAR16* token) {
  if (token == nullptr || (token[0] != u'-' && token[0] != u'/') || token[1] == 0) {
    return false;
  }
  const CHAR16* behindDash = token + 1;
  for (const OptionRow& row : kOptions) {
    // The second character chooses the group.
    if (FoldLetter(row.literal[0]) != FoldLetter(behindDash[0])) {
      continue;
    }
    INT32 length = (INT32)StrLen16(row.literal);
    // The exact form compares the terminator as well.
    INT32 count = row.form == Form::Exact ? length + 1 : length;
    if (MatchText(false, behindDash, row.literal, count)) {
      return ApplyRow(row, token);
    }
  }
  return false;
}

Bool ParseCommandLine(CHAR16* imageName, CHAR16* commandText) {
  TraceScope trace(kParseCommandLineName);
  UINT32 count = GetArgumentCount();
  CHAR16** arguments = GetArgumentVector();
  if (arguments == nullptr) {
    count = 0;
  }

  // In package mode no argument is an image name: the image comes from the package, and every
  // argument the user wrote must be one the package permits.
  Bool packageMode = IsPackageMode();
  imageName[0] = 0;
  if (packageMode) {
    if (!ChkFilterArg_pkg(arguments, count)) {
      return false;
    }
  } else if (count >= 2 && arguments[1] != nullptr && arguments[1][0] != u'-' && arguments[1][0] != u'/') {
    StrCopy16(imageName, kImageNameCharacters, arguments[1]);
  }
  if (!ParseOemCus(arguments, count)) {
    return false;
  }
  ParseExtrFD(arguments, count);

  // The working text starts with a blank; what does not fit is cut off.
  CHAR16 working[kCommandTextCharacters];
  ZeroMem(working, sizeof(working));
  UINT32 first = imageName[0] != 0 ? kFirstOptionWithImage : kFirstOptionWithoutImage;
  for (UINT32 i = first; i < count; i++) {
    if (arguments[i] == nullptr || arguments[i][0] == 0) {
      continue;
    }
    StrCat16(working, kCommandTextCharacters, u" ");
    StrCat16(working, kCommandTextCharacters, arguments[i]);
  }
  // The package's default arguments come behind the user's, past the permitted list but
  // through the option reader like any typed option.
  if (packageMode) {
    const CHAR8* defaults = nullptr;
    GetPackageCommands(&defaults, nullptr);
    CHAR16 wide[kPackageDefaultArgumentBytes + 1];
    AsciiToUnicode(wide, kPackageDefaultArgumentBytes + 1, defaults);
    StrCat16(working, kCommandTextCharacters, u" ");
    StrCat16(working, kCommandTextCharacters, wide);
  }
  StrCopy16(commandText, kCommandTextCharacters, working);

  CHAR16 token[kTokenCharacters];
  UINT16 position = 0;
  for (;;) {
    ZeroMem(token, sizeof(token));
    UINT16 start = position;
    if (!NextToken(working, kBlank, &position, token, kTokenCharacters)) {
      break;
    }
    if (token[0] == 0) {
      continue;
    }
    UINTN length = WordLength(working, start, kBlank);
    if (length >= kTokenCharacters) {
      // Too long for any option: refused with the whole word, as the user wrote it.
      working[start + length] = 0;
      RefuseToken(working + start);
      return trace.Fail(kReasonInvalidCommand);
    }
    if (!ParseOption(token)) {
      RefuseToken(token);
      return trace.Fail(kReasonInvalidCommand);
    }
  }
  return true;
}
