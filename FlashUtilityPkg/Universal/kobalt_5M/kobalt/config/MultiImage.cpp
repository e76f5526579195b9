// Multi-image selection: walks the [MULTI_FD] rules FD#01 to FD#99, tests each against the
// machine at hand (I/O ports, PCI configuration registers, physical memory, the model name) and
// keeps the file names of the first rule that holds. Loading platform.ini and what is done with
// the chosen name are left to the configuration sources and the mains.
#include "PlatformSeams.h"
#include "config/ConfigInternal.h"
#include "output/Output.h"

namespace {

// ---- messages and trace lines ----
constexpr const CHAR16* kTraceWalkRule = u"IsCondi_match() # (%02d) %a\r\n";
constexpr const CHAR16* kMessageNoImageFile =
    u"configure type format error\r\nFD file setting NOT found\r\n\r\n\r\n[Multi_FD]\r\n%a\r\n";
constexpr const CHAR16* kTraceMatched =
    u" M-FD matched\r\n-------+-----------------\r\n   FD   %a\r\n   ME   %a\r\n  Cfg   %a\r\n";
// A file name beyond 39 characters has no room in the kept names: the rule does not hold.
constexpr const CHAR16* kTraceFileNameTooLong = u"IsCondi_match() file name too long | %a\r\n";

constexpr const CHAR16* kTraceIoFormatError = u"IsMatch_IO() configure format | error | %s\r\n";
constexpr const CHAR16* kTraceIoField = u" FD#XX=IO (%a)\r\n";
constexpr const CHAR16* kTraceIoOffsetInvalid = u"IsMatch_IO() [Offset] | invalid (%s)\r\n";
constexpr const CHAR16* kTraceIoMaskInvalid = u"IsMatch_IO() [mask] | invalid (%s)\r\n";
constexpr const CHAR16* kTraceIoValueInvalid = u"IsMatch_IO() [value] | invalid (%s)\r\n";
constexpr const CHAR16* kTraceCpuIoRead = u" CpuIoRead Address [%x] Size [%x]\r\n";
constexpr const CHAR16* kTraceIoData = u"IO Data |0x%x\r\n";

constexpr const CHAR16* kTracePciFormatError = u"IsMatch_PCI() configure format | error | %s\r\n";
constexpr const CHAR16* kTracePciBusInvalid = u"IsMatch_PCI() [Bus] | invalid (%s)\r\n";
constexpr const CHAR16* kTracePciDeviceInvalid = u"IsMatch_PCI() [Device] | invalid (%s)\r\n";
constexpr const CHAR16* kTracePciFunctionInvalid = u"IsMatch_PCI() [Function] | invalid (%s)\r\n";
constexpr const CHAR16* kTracePciOffsetInvalid = u"IsMatch_PCI() [Offset] | invalid (%s)\r\n";
constexpr const CHAR16* kTracePciMaskInvalid = u"IsMatch_PCI() [mask] | invalid (%s)\r\n";
constexpr const CHAR16* kTracePciValueInvalid = u"IsMatch_PCI() [value] | invalid (%s)\r\n";
constexpr const CHAR16* kTraceReadPciIo =
    u" ReadPciIo()\r\n-------+-----------------\r\n    Bus   %X\r\n Device   %X\r\n   Func   %X\r\n Offset   %X\r\n"
    u"   Addr   %X\r\n";
constexpr const CHAR16* kTracePciData = u"PCI Data |0x%x\r\n";

constexpr const CHAR16* kTraceMemoryFormatError = u"IsMatch_MEMORY() configure format | error\r\n";
constexpr const CHAR16* kTraceMemoryAddressInvalid = u"IsMatch_MEMORY() [Phy Addr] | invalid (%s)\r\n";
constexpr const CHAR16* kTraceMemoryMaskInvalid = u"IsMatch_MEMORY() [mask] | invalid (%s)\r\n";
constexpr const CHAR16* kTraceMemoryValueInvalid = u"IsMatch_MEMORY() [value] | invalid (%s)\r\n";
constexpr const CHAR16* kTraceMemoryData = u"MEMORY Data |0x%x\r\n";

constexpr const CHAR16* kTraceIdFormatError = u"IsMatch_ID() configure format | error\r\n";
constexpr const CHAR16* kTraceId = u" FD#XX=ID\r\n-------+-----------------\r\n    cfg   %s\r\n    11h   %s\r\n";

constexpr const CHAR16* kTraceConditionCountInvalid = u"IsMatch_MPCIIO() [Condition Number] | invalid (%a)\r\n";
constexpr const CHAR16* kTraceConditionCount = u"[Condition Number] | %d\r\n";
constexpr const CHAR16* kTraceMpciioFormatError = u"IsMatch_MPCIIO() configure format | error\r\n";


// ---- field limits: each buffer holds its limit and a terminator ----
constexpr UINTN kTypeBytes = 16;
constexpr UINTN kFileNameBytes = 40;  // also the capacity of GetMatchedImageName, in characters
constexpr UINTN kIoFieldBytes = 32;
constexpr UINTN kIoOffsetCharacters = 4;
constexpr UINTN kPciFieldBytes = 16;
constexpr UINTN kPciLocationCharacters = 2;
constexpr UINTN kMemoryFieldBytes = 16;
constexpr UINTN kNumberCharacters = 8;  // value, PCI mask, memory address
constexpr UINTN kRuleModelBytes = 64;
constexpr UINTN kConditionBytes = 80;
constexpr UINTN kMaxConditions = 10;
constexpr UINTN kCountFieldBytes = 16;
constexpr UINTN kFirstRule = 1;
constexpr UINTN kLastRule = 99;

// Where each rule test starts reading: behind its type and comma.
constexpr UINTN kIoStart = 3;
constexpr UINTN kPciStart = 4;
constexpr UINTN kMpciioStart = 7;
constexpr UINTN kIdStart = 3;
constexpr UINTN kMemoryStart = 7;

// ---- state of the walk ----
struct MultiImageState {
  CHAR8 matchedImageName[kFileNameBytes];
  CHAR8 matchedMeName[kFileNameBytes];
  CHAR8 matchedIniName[kFileNameBytes];
  CHAR8 ruleAsWritten[kIniTextBytes];
  CHAR8 rule[kIniTextBytes];
  CHAR8 conditions[kMaxConditions][kConditionBytes];
  CHAR16 wideText[kIniTextBytes];
  CHAR16 modelName[kModelNameCharacters];  // as function 11h told it; always terminated
};
constinit MultiImageState gMulti = {};

enum class Field : UINT8 { Missing, Read, TooLong };

// A rule text with its length (never beyond its buffer) and the reading position.
struct RuleCursor {
  const CHAR8* text;
  UINTN length;
  UINTN position;
};

UINTN BoundedLength(const CHAR8* text, UINTN capacity) {
  UINTN length = 0;
  while (length < capacity && text[length] != 0) length++;
  return length;
}

RuleCursor CursorAt(const CHAR8* rule, UINTN capacity, UINTN start) {
  return RuleCursor{rule, BoundedLength(rule, capacity), start};
}

// Takes the text up to the next ',' or the end of the rule. Standing at the end means there is
// no field any more, so a rule that ends in a comma has no empty last field. A field longer
// than its buffer is cut to fit, reported as too long, and still passed over whole.
Field ReadField(RuleCursor& cursor, CHAR8* out, UINTN capacity) {
  out[0] = 0;
  if (cursor.position >= cursor.length) return Field::Missing;
  UINTN taken = 0;
  Bool tooLong = false;
  while (cursor.position < cursor.length && cursor.text[cursor.position] != ',') {
    if (taken + 1 < capacity) {
      out[taken++] = cursor.text[cursor.position];
    } else {
      tooLong = true;
    }
    cursor.position++;
  }
  out[taken] = 0;
  if (cursor.position < cursor.length) cursor.position++;  // the comma
  return tooLong ? Field::TooLong : Field::Read;
}

VOID DashesToCommas(CHAR8* rule, UINTN capacity) {
  for (UINTN i = 0; i < capacity && rule[i] != 0; i++) {
    if (rule[i] == '-') rule[i] = ',';
  }
}

CHAR8 Upper(CHAR8 c) { return (c >= 'a' && c <= 'z') ? (CHAR8)(c - 'a' + 'A') : c; }

Bool EqualNoCase(const CHAR8* left, const CHAR8* right) {
  UINTN i = 0;
  for (; left[i] != 0 && right[i] != 0; i++) {
    if (Upper(left[i]) != Upper(right[i])) return false;
  }
  return left[i] == right[i];
}

// Hexadecimal without a prefix, in either case; an empty field is 0, the value wraps in 32 bits.
// A field that was cut or that holds more than maxCharacters is refused.
Bool ParseHexField(const CHAR8* field, Field read, UINTN maxCharacters, UINT32* value) {
  if (read != Field::Read || StrLen8(field) > maxCharacters) return false;
  UINT32 result = 0;
  for (UINTN i = 0; field[i] != 0; i++) {
    const CHAR8 c = field[i];
    UINT32 digit;
    if (c >= '0' && c <= '9') digit = (UINT32)(c - '0');
    else if (c >= 'a' && c <= 'f') digit = (UINT32)(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F') digit = (UINT32)(c - 'A' + 10);
    else return false;
    result = (result << 4) | digit;
  }
  *value = result;
  return true;
}

// The read width follows from how many characters the value was written with.
UINT8 WidthOfValue(const CHAR8* value) {
  const UINTN length = StrLen8(value);
  if (length <= 2) return 1;
  if (length <= 4) return 2;
  return 4;
}

// For the %s items of the trace, which take 16-bit text.
const CHAR16* Wide(const CHAR8* text) {
  AsciiToUnicode(gMulti.wideText, kIniTextBytes, text);
  return gMulti.wideText;
}

Bool ReadPhysicalValue(UINT32 address, UINT8 width, UINT32* data) {
  // A read that would run past 4 GB cannot be made.
  if ((UINT64)address + width > 0x100000000ULL) return false;
  UINT8 bytes[4] = {};
  if (!ReadPhysicalMemory(address, bytes, width)) return false;
  UINT32 value = 0;
  for (UINT8 i = 0; i < width; i++) value |= (UINT32)bytes[i] << (8 * i);
  *data = value;
  return true;
}

// The file fields behind a test that held: the image name is needed, ME and INI names may be
// left out.
Bool KeepFileNames(RuleCursor& cursor) {
  CHAR8 image[kFileNameBytes];
  CHAR8 me[kFileNameBytes];
  CHAR8 ini[kFileNameBytes];
  me[0] = 0;
  ini[0] = 0;
  const Field imageRead = ReadField(cursor, image, sizeof(image));
  if (imageRead == Field::Missing) {
    Print(kMessageNoImageFile, gMulti.ruleAsWritten);
    return false;
  }
  Field meRead = ReadField(cursor, me, sizeof(me));
  Field iniRead = meRead == Field::Missing ? Field::Missing : ReadField(cursor, ini, sizeof(ini));
  if (imageRead == Field::TooLong || meRead == Field::TooLong || iniRead == Field::TooLong) {
    LogPrint(kLogDetail, kTraceFileNameTooLong, gMulti.ruleAsWritten);
    return false;
  }
  CopyMem(gMulti.matchedImageName, image, sizeof(image));
  CopyMem(gMulti.matchedMeName, me, sizeof(me));
  CopyMem(gMulti.matchedIniName, ini, sizeof(ini));
  LogPrint(kLogDetail, kTraceMatched, gMulti.matchedImageName, gMulti.matchedMeName, gMulti.matchedIniName);
  return true;
}

typedef Bool (*RuleTest)(CHAR8* rule, UINTN* position);

struct RuleType {
  const CHAR8* name;
  RuleTest test;
};

// rule holds the working copy of the rule, ruleAsWritten the text as platform.ini wrote it.
Bool EvaluateRule() {
  static constexpr RuleType kTypes[] = {
      {"PCI", IsMatch_PCI}, {"IO", IsMatch_IO}, {"MPCIIO", IsMatch_MPCIIO}, {"ID", IsMatch_ID}, {"MEMORY", IsMatch_MEMORY},
  };
  RuleCursor cursor = CursorAt(gMulti.rule, kIniTextBytes, 0);
  CHAR8 type[kTypeBytes];
  if (ReadField(cursor, type, sizeof(type)) != Field::Read) return false;
  for (const RuleType& known : kTypes) {
    if (!EqualNoCase(type, known.name)) continue;
    UINTN position = 0;
    if (!known.test(gMulti.rule, &position)) return false;
    RuleCursor files = CursorAt(gMulti.rule, kIniTextBytes, position);
    return KeepFileNames(files);
  }
  return false;  // any other type, such as OS, never holds
}

// The rules as the last load of platform.ini left them in the settings.
Bool ReadSettingsRule(UINTN number, CHAR8* rule, UINTN capacity) {
  const FlashSettings* settings = Settings();
  if (settings == nullptr || number >= kMultiFdEntries || capacity == 0) return false;
  const CHAR8* held = settings->multiFd.fd[number];
  UINTN i = 0;
  for (; i + 1 < capacity && i < kIniTextBytes && held[i] != 0; i++) rule[i] = held[i];
  rule[i] = 0;
  return i > 0;
}

// One PCI or IO condition of an MPCIIO rule, written with dashes; its letters are already capitals.
Bool ConditionHolds(CHAR8* condition) {
  UINTN unused = 0;
  if (condition[0] == 'P' && condition[1] == 'C' && condition[2] == 'I') {
    DashesToCommas(condition, kConditionBytes);
    return IsMatch_PCI(condition, &unused);
  }
  if (condition[0] == 'I' && condition[1] == 'O') {
    DashesToCommas(condition, kConditionBytes);
    return IsMatch_IO(condition, &unused);
  }
  return false;  // another type is passed over
}

}  // namespace

Bool IsMultiFdMode() { return Settings()->multiFd.flag == 1; }

Bool IsCondi_match() { return WalkMultiFdRules(ReadSettingsRule); }

Bool WalkMultiFdRules(MultiFdRuleReader reader) {
  ZeroMem(gMulti.matchedImageName, sizeof(gMulti.matchedImageName));
  ZeroMem(gMulti.matchedMeName, sizeof(gMulti.matchedMeName));
  ZeroMem(gMulti.matchedIniName, sizeof(gMulti.matchedIniName));
  // No ranking: the lowest number that holds wins, wherever it stands in the file.
  for (UINTN number = kFirstRule; number <= kLastRule; number++) {
    ZeroMem(gMulti.ruleAsWritten, sizeof(gMulti.ruleAsWritten));
    if (!reader(number, gMulti.ruleAsWritten, sizeof(gMulti.ruleAsWritten))) continue;
    gMulti.ruleAsWritten[sizeof(gMulti.ruleAsWritten) - 1] = 0;
    if (gMulti.ruleAsWritten[0] == 0) continue;
    LogPrint(kLogDetail, kTraceWalkRule, (INT32)number, gMulti.ruleAsWritten);
    CopyMem(gMulti.rule, gMulti.ruleAsWritten, sizeof(gMulti.rule));
    if (EvaluateRule()) return true;
  }
  return false;
}

VOID GetMatchedImageName(CHAR16* name) {
  if (name == nullptr) return;
  AsciiToUnicode(name, kFileNameBytes, gMulti.matchedImageName);
}

Bool IsMatch_IO(CHAR8* rule, UINTN* position) {
  DashesToCommas(rule, kIniTextBytes);
  RuleCursor cursor = CursorAt(rule, kIniTextBytes, kIoStart);
  CHAR8 fields[3][kIoFieldBytes];
  Field reads[3];
  for (UINTN i = 0; i < 3; i++) {
    reads[i] = ReadField(cursor, fields[i], kIoFieldBytes);
    if (reads[i] == Field::Missing) {
      LogPrint(kLogDetail, kTraceIoFormatError, Wide(rule));
      return false;
    }
    LogPrint(kLogDetail, kTraceIoField, fields[i]);
  }
  *position = cursor.position;

  UINT32 offset = 0, mask = 0, value = 0;
  if (!ParseHexField(fields[0], reads[0], kIoOffsetCharacters, &offset)) {
    LogPrint(kLogDetail, kTraceIoOffsetInvalid, Wide(fields[0]));
    return false;
  }
  if (!ParseHexField(fields[1], reads[1], kIoFieldBytes - 1, &mask)) {
    LogPrint(kLogDetail, kTraceIoMaskInvalid, Wide(fields[1]));
    return false;
  }
  if (!ParseHexField(fields[2], reads[2], kNumberCharacters, &value)) {
    LogPrint(kLogDetail, kTraceIoValueInvalid, Wide(fields[2]));
    return false;
  }
  const UINT8 width = WidthOfValue(fields[2]);
  LogPrint(kLogDetail, kTraceCpuIoRead, offset, (UINT32)width);
  UINT32 data = 0;
  if (!CpuIoRead(width, (UINT16)offset, &data)) return false;
  LogPrint(kLogDetail, kTraceIoData, data);
  return value == (data & mask);
}

Bool IsMatch_PCI(CHAR8* rule, UINTN* position) {
  static constexpr const CHAR16* kInvalid[6] = {kTracePciBusInvalid,    kTracePciDeviceInvalid, kTracePciFunctionInvalid,
                                                kTracePciOffsetInvalid, kTracePciMaskInvalid,   kTracePciValueInvalid};
  static constexpr UINTN kLimits[6] = {kPciLocationCharacters, kPciLocationCharacters, kPciLocationCharacters,
                                       kPciLocationCharacters, kNumberCharacters,      kNumberCharacters};
  DashesToCommas(rule, kIniTextBytes);
  RuleCursor cursor = CursorAt(rule, kIniTextBytes, kPciStart);
  CHAR8 fields[6][kPciFieldBytes];
  Field reads[6];
  for (UINTN i = 0; i < 6; i++) {
    reads[i] = ReadField(cursor, fields[i], kPciFieldBytes);
    if (reads[i] == Field::Missing) {
      LogPrint(kLogDetail, kTracePciFormatError, Wide(rule));
      return false;
    }
  }
  *position = cursor.position;

  UINT32 numbers[6] = {};
  for (UINTN i = 0; i < 6; i++) {
    if (!ParseHexField(fields[i], reads[i], kLimits[i], &numbers[i])) {
      LogPrint(kLogDetail, kInvalid[i], Wide(fields[i]));
      return false;
    }
  }
  UINT32 data = 0;
  if (!ReadPciIo((UINT8)numbers[0], (UINT8)numbers[1], (UINT8)numbers[2], (UINT8)numbers[3], &data)) return false;
  LogPrint(kLogDetail, kTracePciData, data);
  return numbers[5] == (data & numbers[4]);
}

Bool IsMatch_MEMORY(CHAR8* rule, UINTN* position) {
  RuleCursor cursor = CursorAt(rule, kIniTextBytes, kMemoryStart);
  CHAR8 fields[3][kMemoryFieldBytes];
  Field reads[3];
  for (UINTN i = 0; i < 3; i++) {
    reads[i] = ReadField(cursor, fields[i], kMemoryFieldBytes);
    if (reads[i] == Field::Missing) {
      LogPrint(kLogDetail, kTraceMemoryFormatError);
      return false;
    }
  }
  *position = cursor.position;

  UINT32 address = 0, mask = 0, value = 0;
  if (!ParseHexField(fields[0], reads[0], kNumberCharacters, &address)) {
    LogPrint(kLogDetail, kTraceMemoryAddressInvalid, Wide(fields[0]));
    return false;
  }
  if (!ParseHexField(fields[1], reads[1], kMemoryFieldBytes - 1, &mask)) {
    LogPrint(kLogDetail, kTraceMemoryMaskInvalid, Wide(fields[1]));
    return false;
  }
  if (!ParseHexField(fields[2], reads[2], kNumberCharacters, &value)) {
    LogPrint(kLogDetail, kTraceMemoryValueInvalid, Wide(fields[2]));
    return false;
  }
  UINT32 data = 0;
  if (!ReadPhysicalValue(address, WidthOfValue(fields[2]), &data)) return false;
  LogPrint(kLogDetail, kTraceMemoryData, data);
  return value == (data & mask);
}

Bool IsMatch_ID(CHAR8* rule, UINTN* position) {
  RuleCursor cursor = CursorAt(rule, kIniTextBytes, kIdStart);
  CHAR8 model[kRuleModelBytes];
  // A name beyond 63 characters cannot be the platform's: refused like a missing one.
  if (ReadField(cursor, model, sizeof(model)) != Field::Read) {
    LogPrint(kLogDetail, kTraceIdFormatError);
    return false;
  }
  *position = cursor.position;

  LogPrint(kLogDetail, kTraceId, Wide(model), gMulti.modelName);
  UINTN i = 0;
  for (; model[i] != 0; i++) {
    const CHAR16 theirs = gMulti.modelName[i];
    if (theirs > 0x7F || Upper((CHAR8)theirs) != Upper(model[i])) return false;
  }
  return gMulti.modelName[i] == 0;
}

VOID KeepModelName(const CHAR16* name) {
  ZeroMem(gMulti.modelName, sizeof(gMulti.modelName));
  for (UINTN i = 0; name != nullptr && i + 1 < kModelNameCharacters && name[i] != 0; i++) {
    gMulti.modelName[i] = name[i];
  }
}

Bool IsMatch_MPCIIO(CHAR8* rule, UINTN* position) {
  RuleCursor cursor = CursorAt(rule, kIniTextBytes, kMpciioStart);
  CHAR8 countField[kCountFieldBytes];
  const Field countRead = ReadField(cursor, countField, sizeof(countField));
  UINT32 count = 0;
  if (countRead == Field::Missing) {
    LogPrint(kLogDetail, kTraceConditionCountInvalid, rule);
    return false;
  }
  // More conditions than there is room for: the rule is refused as if it did not hold.
  if (!ParseHexField(countField, countRead, kCountFieldBytes - 1, &count) || count > kMaxConditions) {
    LogPrint(kLogDetail, kTraceConditionCountInvalid, countField);
    return false;
  }
  LogPrint(kLogDetail, kTraceConditionCount, (INT32)count);

  // All conditions are read before any is tested, so the position lands behind the last one.
  for (UINT32 i = 0; i < count; i++) {
    if (ReadField(cursor, gMulti.conditions[i], kConditionBytes) != Field::Read) {
      LogPrint(kLogDetail, kTraceMpciioFormatError);
      return false;
    }
  }
  *position = cursor.position;

  // Conditions are alternatives: the first that holds decides.
  for (UINT32 i = 0; i < count; i++) {
    CHAR8* condition = gMulti.conditions[i];
    for (UINTN k = 0; k < kConditionBytes && condition[k] != 0; k++) condition[k] = Upper(condition[k]);
    if (ConditionHolds(condition)) return true;
  }
  return false;
}

Bool ReadPciIo(UINT8 bus, UINT8 device, UINT8 function, UINT8 offset, UINT32* data) {
  if (gBS == nullptr || data == nullptr) return false;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* rootBridge = nullptr;
  EFI_STATUS status = gBS->LocateProtocol(&kPciRootBridgeIoProtocolGuid, nullptr, (VOID**)&rootBridge);
  if (EFI_ERROR(status) || rootBridge == nullptr) return false;
  const UINT32 address = ((UINT32)bus << 24) | ((UINT32)device << 16) | ((UINT32)function << 8) | offset;
  LogPrint(kLogDetail, kTraceReadPciIo, (UINT32)bus, (UINT32)device, (UINT32)function, (UINT32)offset, address);
  UINT32 value = 0;
  status = rootBridge->Pci.Read(rootBridge, EfiPciWidthUint32, address, 1, &value);
  if (EFI_ERROR(status)) return false;
  *data = value;
  return true;
}

Bool CpuIoRead(UINT8 width, UINT16 port, UINT32* data) {
  if (data == nullptr) return false;
  switch (width) {
    case 1: *data = IoRead8(port); return true;
    case 2: *data = IoRead16(port); return true;
    case 4: *data = IoRead32(port); return true;
    default: return false;
  }
}

VOID ResetMultiImageState() {
  gMulti = {};
}
