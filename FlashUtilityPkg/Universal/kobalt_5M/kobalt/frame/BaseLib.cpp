// The shared helpers of KobaltBase.h: the kept firmware tables, zeroed pool memory, byte and
// text helpers. Nothing here prints or traces; callers report failures themselves.
#include "KobaltBase.h"

constinit EFI_HANDLE gImageHandle = nullptr;
constinit EFI_SYSTEM_TABLE* gST = nullptr;
constinit EFI_BOOT_SERVICES* gBS = nullptr;
constinit EFI_RUNTIME_SERVICES* gRT = nullptr;

VOID SetFirmwareTables(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  gImageHandle = imageHandle;
  gST = systemTable;
  gBS = systemTable != nullptr ? systemTable->BootServices : nullptr;
  gRT = systemTable != nullptr ? systemTable->RuntimeServices : nullptr;
}

VOID* AllocateZeroPool(UINTN size) {
  if (gBS == nullptr) {
    return nullptr;
  }
  VOID* buffer = nullptr;
  if (EFI_ERROR(gBS->AllocatePool(EfiBootServicesData, size, &buffer)) || buffer == nullptr) {
    return nullptr;
  }
  ZeroMem(buffer, size);
  return buffer;
}

VOID FreePoolRaw(VOID* pointer) {
  if (pointer != nullptr && gBS != nullptr) {
    gBS->FreePool(pointer);
  }
}

// CopyMem and SetMem are the platform's memmove and memset: the C library's on the host, the
// firmware build's own in IA32. Overlapping ranges copy as if through a buffer.
VOID CopyMem(VOID* destination, const VOID* source, UINTN length) {
  if (destination != source && length != 0) {
    __builtin_memmove(destination, source, length);
  }
}

VOID SetMem(VOID* destination, UINTN length, UINT8 value) {
  if (length != 0) {
    __builtin_memset(destination, value, length);
  }
}

VOID ZeroMem(VOID* destination, UINTN length) { SetMem(destination, length, 0); }

INTN CompareMem(const VOID* left, const VOID* right, UINTN length) {
  // Equal ranges are the common case (an unchanged block): the platform's memcmp tells that
  // fastest, and only a difference is walked to its first byte.
  if (length == 0 || __builtin_memcmp(left, right, length) == 0) {
    return 0;
  }
  const UINT8* a = static_cast<const UINT8*>(left);
  const UINT8* b = static_cast<const UINT8*>(right);
  for (UINTN i = 0; i < length; i++) {
    if (a[i] != b[i]) {
      return (INTN)a[i] - (INTN)b[i];
    }
  }
  return 0;
}

UINT32 FindMem(const UINT8* buffer, UINT32 length, const UINT8* pattern, UINT32 patternLength) {
  if (buffer == nullptr || pattern == nullptr || patternLength == 0 || length < patternLength) {
    return length;
  }
  // The platform's memchr jumps from one first byte to the next, and the last byte rules out
  // most of those before a compare (every section header of a settings text starts with '['
  // and ends with ']', but few have the length of the one looked for).
  UINT32 last = length - patternLength;
  for (UINT32 at = 0; at <= last; at++) {
    const VOID* first = __builtin_memchr(buffer + at, pattern[0], last - at + 1);
    if (first == nullptr) {
      break;
    }
    at = (UINT32)(static_cast<const UINT8*>(first) - buffer);
    if (buffer[at + patternLength - 1] == pattern[patternLength - 1] &&
        CompareMem(buffer + at, pattern, patternLength) == 0) {
      return at;
    }
  }
  return length;
}

UINTN StrLen16(const CHAR16* text) {
  UINTN length = 0;
  while (text != nullptr && text[length] != 0) {
    length++;
  }
  return length;
}

UINTN StrLen8(const CHAR8* text) {
  UINTN length = 0;
  while (text != nullptr && text[length] != 0) {
    length++;
  }
  return length;
}

VOID StrCopy16(CHAR16* destination, UINTN capacity, const CHAR16* source) {
  if (destination == nullptr || capacity == 0) {
    return;
  }
  UINTN i = 0;
  for (; source != nullptr && source[i] != 0 && i + 1 < capacity; i++) {
    destination[i] = source[i];
  }
  destination[i] = 0;
}

VOID StrCat16(CHAR16* destination, UINTN capacity, const CHAR16* source) {
  UINTN length = StrLen16(destination);
  if (length < capacity) {
    StrCopy16(destination + length, capacity - length, source);
  }
}

INTN StrCompare16(const CHAR16* left, const CHAR16* right) {
  UINTN i = 0;
  while (left[i] != 0 && left[i] == right[i]) {
    i++;
  }
  return (INTN)left[i] - (INTN)right[i];
}

static CHAR16 FoldLetter(CHAR16 c) { return (c >= u'A' && c <= u'Z') ? (CHAR16)(c - u'A' + u'a') : c; }

Bool StrEqualNoCase16(const CHAR16* left, const CHAR16* right) {
  if (left == nullptr || right == nullptr) {
    return false;
  }
  UINTN i = 0;
  for (; left[i] != 0 && right[i] != 0; i++) {
    if (FoldLetter(left[i]) != FoldLetter(right[i])) {
      return false;
    }
  }
  return left[i] == right[i];
}

VOID AsciiToUnicode(CHAR16* destination, UINTN capacity, const CHAR8* source) {
  if (destination == nullptr || capacity == 0) {
    return;
  }
  UINTN i = 0;
  for (; source != nullptr && source[i] != 0 && i + 1 < capacity; i++) {
    destination[i] = (CHAR16)(UINT8)source[i];
  }
  destination[i] = 0;
}

VOID UnicodeToAscii(CHAR8* destination, UINTN capacity, const CHAR16* source) {
  if (destination == nullptr || capacity == 0) {
    return;
  }
  UINTN i = 0;
  for (; source != nullptr && source[i] != 0 && i + 1 < capacity; i++) {
    destination[i] = (CHAR8)(source[i] & 0xFF);
  }
  destination[i] = 0;
}
