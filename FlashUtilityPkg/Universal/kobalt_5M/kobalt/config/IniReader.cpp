// The platform.ini reader: LoadOption rewrites a text once into its normal form and keeps it as
// the working text; every getter answers by a plain byte search through it. Which keys exist and
// what they mean is the settings' part; where a text comes from is the configuration sources'.
#include "config/ConfigInternal.h"
#include "output/Output.h"

namespace {

// Limits of one lookup: "[section]" in 127 characters, "key=" in 63, a line from the key on in
// 1023. Each buffer holds its limit and a terminator.
constexpr UINTN kSectionHeaderLimit = 127;
constexpr UINTN kKeyLimit = 63;
constexpr UINTN kLineLimit = 1023;

constexpr CHAR16 kLoadOptionName[] = u"LoadOption";
constexpr CHAR16 kAllocateFailedReason[] = u"Allocate memory failed";
constexpr CHAR16 kIntChangedFormat[] = u" [%a] %a=%d\r\n";
constexpr CHAR16 kStringChangedFormat[] = u" [%a] %a=%a\r\n";

// The working text, and the value of the last lookup.
struct IniState {
  CHAR8* text;
  UINT32 size;
  // Bytes text can hold, its terminator included; a longer later text makes it grow.
  UINT32 capacity;
  CHAR8 value[kIniTextBytes];
};
constinit IniState gIni = {};

CHAR8 LowerCase(CHAR8 c) { return (c >= 'A' && c <= 'Z') ? (CHAR8)(c - 'A' + 'a') : c; }

// Position of the first pattern in text[from, end), or end when there is none.
UINT32 FindBytes(const CHAR8* text, UINT32 from, UINT32 end, const CHAR8* pattern, UINT32 patternLength) {
  if (from > end) {
    return end;
  }
  return from + FindMem(reinterpret_cast<const UINT8*>(text) + from, end - from,
                        reinterpret_cast<const UINT8*>(pattern), patternLength);
}

// Builds "[section]" in lower case; false if it does not fit its limit.
Bool BuildSectionHeader(const CHAR8* section, CHAR8* header, UINT32* length) {
  UINTN nameLength = StrLen8(section);
  if (nameLength + 2 > kSectionHeaderLimit) {
    return false;
  }
  header[0] = '[';
  for (UINTN i = 0; i < nameLength; i++) {
    header[i + 1] = LowerCase(section[i]);
  }
  header[nameLength + 1] = ']';
  header[nameLength + 2] = 0;
  *length = (UINT32)(nameLength + 2);
  return true;
}

// The key in lower case, as the normal form keeps keys, into pattern (kKeyLimit + 1 bytes); false
// if it leaves no room for the '=' a lookup puts behind it.
Bool LowerCaseKey(const CHAR8* key, CHAR8* pattern, UINT32* length) {
  UINTN keyLength = StrLen8(key);
  if (keyLength + 1 > kKeyLimit) {
    return false;
  }
  for (UINTN i = 0; i < keyLength; i++) {
    pattern[i] = LowerCase(key[i]);
  }
  *length = (UINT32)keyLength;
  return true;
}

// Finds "[section]" in the text; on a match gives the range of the section, from the header to
// the next line that starts with '[' or the end of the text.
Bool FindSection(const CHAR8* section, const CHAR8* text, UINT32 size, UINT32* start, UINT32* end) {
  if (section == nullptr || text == nullptr) {
    return false;
  }
  CHAR8 header[kSectionHeaderLimit + 1];
  UINT32 headerLength = 0;
  if (!BuildSectionHeader(section, header, &headerLength)) {
    return false;
  }
  UINT32 at = FindBytes(text, 0, size, header, headerLength);
  if (at == size) {
    return false;
  }
  UINT32 body = at + headerLength;
  UINT32 next = body;
  while (next < size && !(text[next] == '[' && next > 0 && text[next - 1] == '\n')) {
    next++;
  }
  *start = body;
  *end = next;
  return true;
}

// The normal form, first pass: drops every line whose very first byte is ';'. The text stays as
// it is when it holds no such line, or when no copy can be had.
VOID RemoveComments(CHAR8* text, UINT32* size) {
  Bool anyComment = false;
  for (UINT32 i = 0; i < *size; i++) {
    if (text[i] == ';' && (i == 0 || text[i - 1] == '\n')) {
      anyComment = true;
      break;
    }
  }
  if (!anyComment) {
    return;
  }
  UINT32 copySize = *size + 1;
  CHAR8* copy = static_cast<CHAR8*>(AllocateZeroPool(copySize));
  if (copy == nullptr) {
    return;
  }
  CopyMem(copy, text, *size);
  copy[*size] = '\n';
  // At least one comment line of two bytes or more goes, so the result fits the original size.
  UINT32 kept = 0;
  UINT32 lineStart = 0;
  for (UINT32 i = 0; i < copySize; i++) {
    if (copy[i] != '\n') {
      continue;
    }
    UINT32 lineLength = i + 1 - lineStart;
    if (copy[lineStart] != ';') {
      CopyMem(text + kept, copy + lineStart, lineLength);
      kept += lineLength;
    }
    lineStart = i + 1;
  }
  FreePoolAndNull(copy);
  *size = kept;
}

// Appends one line, without its LF, in normal form: keys lower-cased, blanks trimmed at both ends
// (a CR at the end is a character like any other), blanks on either side of every '=' removed.
UINT32 NormaliseLine(const CHAR8* line, UINT32 length, CHAR8* out) {
  UINT32 first = 0;
  UINT32 end = length;
  while (first < end && line[first] == ' ') {
    first++;
  }
  while (end > first && line[end - 1] == ' ') {
    end--;
  }
  Bool beforeEquals = true;
  UINT32 written = 0;
  for (UINT32 i = first; i < end; i++) {
    CHAR8 c = line[i];
    if (c == '=') {
      beforeEquals = false;
      // " =" becomes "=" until none is left: every blank in front of '=' goes.
      while (written > 0 && out[written - 1] == ' ') {
        written--;
      }
    } else if (c == ' ' && written > 0 && out[written - 1] == '=') {
      // "= " becomes "=" until none is left: every blank behind '=' goes.
      continue;
    }
    out[written++] = beforeEquals ? LowerCase(c) : c;
  }
  return written;
}

// The normal form, second pass. A last line without LF is dropped. False if no copy can be had; the
// text then stays as it is.
Bool NormaliseText(CHAR8* text, UINT32* size) {
  CHAR8* result = static_cast<CHAR8*>(AllocateZeroPool(*size + 1));
  if (result == nullptr) {
    return false;
  }
  UINT32 written = 0;
  UINT32 lineStart = 0;
  for (UINT32 i = 0; i < *size; i++) {
    if (text[i] != '\n') {
      continue;
    }
    written += NormaliseLine(text + lineStart, i - lineStart, result + written);
    result[written++] = '\n';
    lineStart = i + 1;
  }
  CopyMem(text, result, written);
  FreePoolAndNull(result);
  *size = written;
  return true;
}

// Keeps the normal form as the working text; the block grows when a later text is longer.
Bool StoreIniText(const CHAR8* text, UINT32 size) {
  if (gIni.text == nullptr || gIni.capacity < size + 1) {
    FreePoolAndNull(gIni.text);
    gIni.capacity = 0;
    gIni.text = static_cast<CHAR8*>(AllocateZeroPool(size + 1));
    if (gIni.text == nullptr) {
      gIni.size = 0;
      return false;
    }
    gIni.capacity = size + 1;
  }
  CopyMem(gIni.text, text, size);
  gIni.text[size] = 0;
  gIni.size = size;
  return true;
}

// Copies the next token of line[*at, length): '=' never starts a token, and a token ends at the
// next '=' or at the end. False when no token is left.
Bool NextValueToken(const CHAR8* line, UINT32 length, UINT32* at, UINT32* start, UINT32* tokenLength) {
  while (*at < length && line[*at] == '=') {
    (*at)++;
  }
  if (*at >= length) {
    return false;
  }
  *start = *at;
  while (*at < length && line[*at] != '=') {
    (*at)++;
  }
  *tokenLength = *at - *start;
  return true;
}

}  // namespace

const CHAR8* GetIniText() { return gIni.text; }
UINT32 GetIniTextSize() { return gIni.size; }

INT32 ParseDecimal(const CHAR8* text) {
  if (text == nullptr) {
    return 0;
  }
  UINTN i = 0;
  while (text[i] == ' ') {
    i++;
  }
  UINT64 value = 0;
  for (; text[i] >= '0' && text[i] <= '9'; i++) {
    value = value * 10 + (UINT64)(text[i] - '0');
    if (value > 0xFFFFFFFFull) {
      return (INT32)0xFFFFFFFF;
    }
  }
  return (INT32)(UINT32)value;
}

INT32 ParseHex8(const CHAR8* text) {
  if (text == nullptr) {
    return 0;
  }
  UINTN i = 0;
  while (text[i] == ' ' || text[i] == '\t') {
    i++;
  }
  if (text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
    i += 2;
  }
  UINT64 value = 0;
  for (;; i++) {
    CHAR8 c = LowerCase(text[i]);
    UINT32 digit;
    if (c >= '0' && c <= '9') {
      digit = (UINT32)(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = (UINT32)(c - 'a' + 10);
    } else {
      break;
    }
    value = value * 16 + digit;
    if (value > 0xFFFFFFFFull) {
      return (INT32)0xFFFFFFFF;
    }
  }
  return (INT32)(UINT32)value;
}

VOID LoadOption(CHAR8* text, UINT32* size, Bool withMultiFd) {
  TraceScope trace(kLoadOptionName);
  if (text == nullptr || size == nullptr) {
    return;
  }
  RemoveComments(text, size);
  NormaliseText(text, size);
  if (!StoreIniText(text, *size)) {
    trace.SetReason(kAllocateFailedReason);
    return;
  }
  LoadAllSections(withMultiFd);
  ChkFilterTblIni();
}

Bool IniSectionExists(const CHAR8* section, const CHAR8* text, UINT32 size) {
  UINT32 start = 0;
  UINT32 end = 0;
  return FindSection(section, text, size, &start, &end);
}

Bool GetIniRaw(const CHAR8* section, const CHAR8* key, const CHAR8* text, UINT32 size, CHAR8* value,
               UINTN capacity) {
  if (value == nullptr || capacity == 0) {
    return false;
  }
  value[0] = 0;
  if (key == nullptr) {
    return false;
  }
  UINT32 start = 0;
  UINT32 end = 0;
  if (!FindSection(section, text, size, &start, &end)) {
    return false;
  }

  CHAR8 pattern[kKeyLimit + 1];
  UINT32 keyLength = 0;
  if (!LowerCaseKey(key, pattern, &keyLength)) {
    return false;
  }
  pattern[keyLength] = '=';
  // Not anchored at a line start: "flag=" is also found at the end of "cmos_flag=".
  UINT32 at = FindBytes(text, start, end, pattern, keyLength + 1);
  if (at == end) {
    return false;
  }

  // The line from the key on, up to the LF, cut at the first CR; a line longer than the limit is
  // cut at the limit, so a value never holds more than what fits the value buffer.
  UINT32 lineLength = 0;
  while (at + lineLength < size && text[at + lineLength] != '\n' && text[at + lineLength] != '\r') {
    lineLength++;
  }
  if (lineLength > kLineLimit) {
    lineLength = kLineLimit;
  }
  const CHAR8* line = text + at;
  UINT32 cursor = 0;
  UINT32 tokenStart = 0;
  UINT32 tokenLength = 0;
  if (!NextValueToken(line, lineLength, &cursor, &tokenStart, &tokenLength) ||
      !NextValueToken(line, lineLength, &cursor, &tokenStart, &tokenLength)) {
    return false;
  }
  if (tokenLength + 1 > capacity) {
    tokenLength = (UINT32)(capacity - 1);
  }
  CopyMem(value, line + tokenStart, tokenLength);
  value[tokenLength] = 0;
  return true;
}

Bool IniSectionMentions(const CHAR8* section, const CHAR8* piece) {
  UINT32 start = 0;
  UINT32 end = 0;
  CHAR8 pattern[kKeyLimit + 1];
  UINT32 length = 0;
  Bool found = false;
  if (LowerCaseKey(piece, pattern, &length) && FindSection(section, gIni.text, gIni.size, &start, &end)) {
    found = FindBytes(gIni.text, start, end, pattern, length) != end;
  }
  return found;
}

INT32 GetIniInt(const CHAR8* section, const CHAR8* key, INT32 defaultValue) {
  ZeroMem(gIni.value, sizeof(gIni.value));
  INT32 result = defaultValue;
  if (GetIniRaw(section, key, gIni.text, gIni.size, gIni.value, sizeof(gIni.value))) {
    result = ParseDecimal(gIni.value);
  }
  if (result != defaultValue) {
    LogPrint(kLogSettings, kIntChangedFormat, section, key, result);
  }
  return result;
}

INT32 GetIniHex(const CHAR8* section, const CHAR8* key, INT32 defaultValue) {
  ZeroMem(gIni.value, sizeof(gIni.value));
  INT32 result = defaultValue;
  if (GetIniRaw(section, key, gIni.text, gIni.size, gIni.value, sizeof(gIni.value))) {
    result = ParseHex8(gIni.value);
  }
  if (result != defaultValue) {
    LogPrint(kLogSettings, kIntChangedFormat, section, key, result);
  }
  return result;
}

Bool GetIniString(const CHAR8* section, const CHAR8* key, CHAR8* out, UINTN capacity) {
  ZeroMem(gIni.value, sizeof(gIni.value));
  Bool found = GetIniRaw(section, key, gIni.text, gIni.size, gIni.value, sizeof(gIni.value));
  if (out == nullptr || capacity == 0) {
    return found;
  }
  // The field's old value is compared within its capacity only; it need not be terminated.
  Bool differs = false;
  for (UINTN i = 0; i < capacity && i < sizeof(gIni.value); i++) {
    if (LowerCase(out[i]) != LowerCase(gIni.value[i])) {
      differs = true;
      break;
    }
    if (out[i] == 0) {
      break;
    }
  }
  if (differs) {
    LogPrint(kLogSettings, kStringChangedFormat, section, key, gIni.value);
  }
  UINTN i = 0;
  for (; i + 1 < capacity && i < sizeof(gIni.value) && gIni.value[i] != 0; i++) {
    out[i] = gIni.value[i];
  }
  out[i] = 0;
  return found;
}

VOID ResetIniReaderState() {
  gIni = {};
}

VOID ReleaseConfigMemory() {
  FreePoolAndNull(gIni.text);
  ReleaseFilterMemory();
}
