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

VOID CopyMem(VOID* destination, const VOID* source, UINTN length) {
  UINT8* to = static_cast<UINT8*>(destination);
  const UINT8* from = static_cast<const UINT8*>(source);
  if (to == from || length == 0) {
    return;
  }
  if (to < from || to >= from + length) {
    for (UINTN i = 0; i < length; i++) {
      to[i] = from[i];
    }
  } else {
    for (UINTN i = length; i > 0; i--) {
      to[i - 1] = from[i - 1];
    }
  }
}

VOID SetMem(VOID* destination, UINTN length, UINT8 value) {
  volatile UINT8* to = static_cast<volatile UINT8*>(destination);
  for (UINTN i = 0; i < length; i++) {
    to[i] = value;
  }
}

VOID ZeroMem(VOID* destination, UINTN length) { SetMem(destination, length, 0); }

INTN CompareMem(const VOID* left, const VOID* right, UINTN length) {
  const UINT8* a = static_cast<const UINT8*>(left);
  const UINT8* b = static_cast<const UINT8*>(right);
  for (UINTN i = 0; i < length; i++) {
    if (a[i] != b[i]) {
      return (INTN)a[i] - (INTN)b[i];
    }
  }
  return 0;
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
