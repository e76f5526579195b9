// The two text comparisons that decide whether an image's version sorts after the running
// firmware's: dotted numbers with letters ignored, or position by position under a format from
// platform.ini. Which one runs, and what a result means for the update, is the platform check's.
#include "checks/ChecksInternal.h"

namespace {

// The dotted compare works on a private copy of each version; longer texts take part with their
// first 255 characters.
constexpr UINTN kCopyCharacters = 255;
constexpr UINTN kCopyBytes = kCopyCharacters + 1;
// A copy of 255 characters holds at most 128 fields, and each field becomes "." and at most ten
// digits (an overflowing number prints as 4294967295).
constexpr UINTN kFieldDigits = 10;
constexpr UINTN kNormalBytes = (kCopyCharacters / 2 + 1) * (1 + kFieldDigits) + 1;
constexpr UINT32 kOverflow = 0xFFFFFFFFu;

VOID CopyBounded(CHAR8* out, const CHAR8* text) {
  UINTN length = 0;
  if (text != nullptr) {
    while (length < kCopyCharacters && text[length] != 0) {
      out[length] = text[length];
      ++length;
    }
  }
  out[length] = 0;
}

Bool IsLetter(CHAR8 c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
Bool IsDigit(CHAR8 c) { return c >= '0' && c <= '9'; }

// Digits from the start of a field up to the first other character. A number beyond 32 bits
// stays at all bits set rather than wrapping round to a small one: a wrapped number could make
// an older image look newer.
UINT32 ReadFieldNumber(const CHAR8* field, UINTN length) {
  UINT32 value = 0;
  for (UINTN i = 0; i < length && IsDigit(field[i]); ++i) {
    UINT32 digit = (UINT32)(field[i] - '0');
    if (value > (kOverflow - digit) / 10) {
      return kOverflow;
    }
    value = value * 10 + digit;
  }
  return value;
}

// Appends "." and the number with at least four digits, zero-padded.
VOID AppendField(CHAR8* normal, UINTN* used, UINT32 value) {
  CHAR8 digits[kFieldDigits];
  UINTN count = 0;
  do {
    digits[count++] = (CHAR8)('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (count < 4) {
    digits[count++] = '0';
  }
  if (*used + 1 + count >= kNormalBytes) {
    return;  // cannot happen for a 255-character copy; the bound keeps the buffer safe anyway
  }
  normal[(*used)++] = '.';
  while (count > 0) {
    normal[(*used)++] = digits[--count];
  }
  normal[*used] = 0;
}

// ".0001.0021" for "1.21B": letters become blanks, the fields between dots are trimmed, empty
// ones dropped, and each of the others read as a decimal number.
VOID NormaliseVersion(const CHAR8* version, CHAR8* normal) {
  CHAR8 copy[kCopyBytes];
  CopyBounded(copy, version);
  for (UINTN i = 0; copy[i] != 0; ++i) {
    if (IsLetter(copy[i])) {
      copy[i] = ' ';
    }
  }
  UINTN used = 0;
  normal[0] = 0;
  UINTN start = 0;
  while (copy[start] != 0) {
    UINTN end = start;
    while (copy[end] != 0 && copy[end] != '.') {
      ++end;
    }
    UINTN first = start;
    UINTN last = end;
    while (first < last && copy[first] == ' ') {
      ++first;
    }
    while (last > first && copy[last - 1] == ' ') {
      --last;
    }
    if (last > first) {
      AppendField(normal, &used, ReadFieldNumber(copy + first, last - first));
    }
    start = copy[end] == '.' ? end + 1 : end;
  }
}

// The first differing byte decides; the terminator takes part, so a prefix sorts first.
INT32 CompareBytes(const CHAR8* newer, const CHAR8* current, UINTN count) {
  for (UINTN i = 0; i < count; ++i) {
    INT32 difference = (INT32)(UINT8)newer[i] - (INT32)(UINT8)current[i];
    if (difference != 0) {
      return difference < 0 ? kCheckOlder : difference;
    }
    if (newer[i] == 0) {
      break;
    }
  }
  return 0;
}

CHAR8 FoldCase(CHAR8 c) { return (c >= 'A' && c <= 'Z') ? (CHAR8)(c - 'A' + 'a') : c; }

// The length of text, counted no further than limit.
UINTN BoundedLength(const CHAR8* text, UINTN limit) {
  UINTN length = 0;
  while (length < limit && text[length] != 0) {
    ++length;
  }
  return length;
}

Bool IsComparedPosition(CHAR8 kind) { return kind == 'X' || kind == '.' || kind == 'N' || kind == 'T'; }

// A version character as its format position sees it: 'X' and '.' make any two equal, 'T' folds
// case, 'N' keeps the character as it is.
CHAR8 PrepareCharacter(CHAR8 kind, CHAR8 c) {
  if (kind == 'X' || kind == '.') {
    return '.';
  }
  return kind == 'T' ? FoldCase(c) : c;
}

}  // namespace

INT32 BiosVerCmp(const CHAR8* newVersion, const CHAR8* currentVersion) {
  CHAR8 newNormal[kNormalBytes];
  CHAR8 currentNormal[kNormalBytes];
  NormaliseVersion(newVersion, newNormal);
  NormaliseVersion(currentVersion, currentNormal);
  return CompareBytes(newNormal, currentNormal, kNormalBytes);
}

INT32 BiosVerFmtCmp(const CHAR8* format, const CHAR8* newVersion, const CHAR8* currentVersion) {
  // The texts are read where they stand, not through copies of a fixed size: the format's length
  // decides which versions fit, and a cut format would take versions that the whole one refuses.
  const CHAR8* pattern = format != nullptr ? format : "";
  const CHAR8* newer = newVersion != nullptr ? newVersion : "";
  const CHAR8* current = currentVersion != nullptr ? currentVersion : "";
  UINTN formatLength = StrLen8(pattern);
  // A version longer than the format never fits, so it is measured no further than one past it.
  UINTN newLength = BoundedLength(newer, formatLength + 1);
  UINTN currentLength = BoundedLength(current, formatLength + 1);

  // A format that opens with 'D's skips those leading characters of a right-aligned version;
  // otherwise every 'D' of the format is a trailing character that is not compared.
  UINTN lead = 0;
  while (lead < formatLength && pattern[lead] == 'D') {
    ++lead;
  }
  UINTN compared = 0;
  if (lead > 0) {
    compared = formatLength - lead;
  } else {
    UINTN dCount = 0;
    for (UINTN i = 0; i < formatLength; ++i) {
      dCount += pattern[i] == 'D' ? 1 : 0;
    }
    compared = formatLength - dCount;
  }
  if (newLength < compared || newLength > formatLength || currentLength < compared || currentLength > formatLength) {
    return kCheckFormatInvalid;
  }

  const CHAR8* positions = pattern + lead;
  for (UINTN i = 0; i < compared; ++i) {
    // 'D' inside the compared positions, or a character the format does not know.
    if (!IsComparedPosition(positions[i])) {
      return kCheckFormatInvalid;
    }
  }
  const CHAR8* newPart = lead > 0 ? newer + (newLength - compared) : newer;
  const CHAR8* currentPart = lead > 0 ? current + (currentLength - compared) : current;
  for (UINTN i = 0; i < compared; ++i) {
    INT32 difference = (INT32)(UINT8)PrepareCharacter(positions[i], newPart[i]) -
                       (INT32)(UINT8)PrepareCharacter(positions[i], currentPart[i]);
    if (difference != 0) {
      return difference < 0 ? kCheckOlder : difference;
    }
  }
  return 0;
}
