// FindSignature, the one byte search that every reader of slots, packages, records and the
// settings text uses. What a match means is left to the callers.
#include "image/ImageInternal.h"

Bool FindSignature(const UINT8* buffer, UINT32 length, const UINT8* pattern, UINT32 patternLength, UINT32* offset) {
  if (offset != nullptr) {
    *offset = 0xFFFFFFFF;
  }
  // An empty pattern is refused: a search for nothing has no place it could honestly name.
  if (buffer == nullptr || pattern == nullptr || patternLength == 0 || length < patternLength) {
    return false;
  }
  // Every byte offset, ascending, without alignment: the first match wins.
  UINT32 last = length - patternLength;
  for (UINT32 at = 0; at <= last; at++) {
    // Only a place that starts with the pattern's first byte is compared: the platform's memchr
    // skips the rest of a large image fastest.
    const VOID* first = __builtin_memchr(buffer + at, pattern[0], last - at + 1);
    if (first == nullptr) {
      return false;
    }
    at = (UINT32)(static_cast<const UINT8*>(first) - buffer);
    // The last byte rules out most of the rest: every section header of a settings text starts
    // with '[' and ends with ']', but few have the length of the one looked for.
    if (buffer[at + patternLength - 1] == pattern[patternLength - 1] &&
        CompareMem(buffer + at, pattern, patternLength) == 0) {
      if (offset != nullptr) {
        *offset = at;
      }
      return true;
    }
  }
  return false;
}
