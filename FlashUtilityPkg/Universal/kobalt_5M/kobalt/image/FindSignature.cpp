// FindSignature, the one byte search over an image that every reader of slots, packages and
// records uses. What a match means is left to the callers.
#include "image/ImageInternal.h"

Bool FindSignature(const UINT8* buffer, UINT32 length, const UINT8* pattern, UINT32 patternLength, UINT32* offset) {
  if (offset != nullptr) {
    *offset = 0xFFFFFFFF;
  }
  // Every byte offset, ascending, without alignment: the first match wins. An empty pattern is
  // refused (FindMem answers length): a search for nothing has no place it could honestly name.
  UINT32 at = FindMem(buffer, length, pattern, patternLength);
  if (at == length) {
    return false;
  }
  if (offset != nullptr) {
    *offset = at;
  }
  return true;
}
