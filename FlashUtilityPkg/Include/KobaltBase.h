// Types and helpers shared by every folder of the driver and by the launcher: the Bool result,
// ImageView, the firmware table pointers kept by the entry point, pool memory, byte and text
// helpers. Freestanding: nothing here reaches the C or C++ runtime.
#pragma once

#include <stdarg.h>

#include "Uefi/Uefi.h"

// A one-byte result: true (1) or false (0).
typedef bool Bool;

// A byte buffer with its length: the form in which an image travels.
struct ImageView {
  UINT8* data;
  UINT32 length;
};

// Kept by the driver's entry point; null until then.
extern EFI_HANDLE gImageHandle;
extern EFI_SYSTEM_TABLE* gST;
extern EFI_BOOT_SERVICES* gBS;
extern EFI_RUNTIME_SERVICES* gRT;
VOID SetFirmwareTables(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable);

// Pool memory, always zeroed. FreePoolAndNull frees and nulls the caller's pointer.
VOID* AllocateZeroPool(UINTN size);
template <typename T>
inline VOID FreePoolAndNull(T*& pointer) {
  extern VOID FreePoolRaw(VOID * pointer);
  if (pointer != nullptr) {
    FreePoolRaw(reinterpret_cast<VOID*>(const_cast<void*>(static_cast<const void*>(pointer))));
    pointer = nullptr;
  }
}

// The owner of one pool block: freed with FreePoolAndNull when the owner goes out of scope, so
// every return of a function frees it in one place. Release() hands the block on to a new owner.
// Stack-only: no copies, no heap.
class PoolBuffer {
 public:
  PoolBuffer() : data_(nullptr), length_(0) {}
  // A zeroed block of length bytes; empty (false) when the pool has none.
  explicit PoolBuffer(UINT32 length)
      : data_(static_cast<UINT8*>(AllocateZeroPool(length))), length_(data_ != nullptr ? length : 0) {}
  ~PoolBuffer() { FreePoolAndNull(data_); }
  PoolBuffer(const PoolBuffer&) = delete;
  PoolBuffer& operator=(const PoolBuffer&) = delete;
  static void* operator new(decltype(sizeof(0))) = delete;

  explicit operator bool() const { return data_ != nullptr; }
  UINT8* Data() const { return data_; }
  UINT32 Length() const { return length_; }
  ImageView View() const { return {data_, length_}; }
  // Takes over a block that another function allocated (a file read, a copied answer); the block
  // held before is freed.
  VOID Adopt(UINT8* data, UINT32 length) {
    FreePoolAndNull(data_);
    data_ = data;
    length_ = data != nullptr ? length : 0;
  }
  // Hands the block on: the caller owns it from now on and this owner is empty.
  UINT8* Release() {
    UINT8* data = data_;
    data_ = nullptr;
    length_ = 0;
    return data;
  }

 private:
  UINT8* data_;
  UINT32 length_;
};

// Bytes.
VOID CopyMem(VOID* destination, const VOID* source, UINTN length);
VOID SetMem(VOID* destination, UINTN length, UINT8 value);
VOID ZeroMem(VOID* destination, UINTN length);
INTN CompareMem(const VOID* left, const VOID* right, UINTN length);
// Offset of the first place in buffer[0, length) that holds the pattern, or length when none
// does or the pattern is empty.
UINT32 FindMem(const UINT8* buffer, UINT32 length, const UINT8* pattern, UINT32 patternLength);

// Little-endian readers and writers; records are never read through a cast of an offset.
inline UINT16 ReadU16(const UINT8* p) { return (UINT16)(p[0] | (p[1] << 8)); }
inline UINT32 ReadU32(const UINT8* p) {
  return (UINT32)p[0] | ((UINT32)p[1] << 8) | ((UINT32)p[2] << 16) | ((UINT32)p[3] << 24);
}
inline VOID WriteU16(UINT8* p, UINT16 v) {
  p[0] = (UINT8)v;
  p[1] = (UINT8)(v >> 8);
}
inline VOID WriteU32(UINT8* p, UINT32 v) {
  p[0] = (UINT8)v;
  p[1] = (UINT8)(v >> 8);
  p[2] = (UINT8)(v >> 16);
  p[3] = (UINT8)(v >> 24);
}

// 16-bit and 8-bit text. Copies always terminate and never write past capacity (in characters,
// terminator included).
UINTN StrLen16(const CHAR16* text);
UINTN StrLen8(const CHAR8* text);
VOID StrCopy16(CHAR16* destination, UINTN capacity, const CHAR16* source);
VOID StrCat16(CHAR16* destination, UINTN capacity, const CHAR16* source);
INTN StrCompare16(const CHAR16* left, const CHAR16* right);
// Compares whole texts with 'A'..'Z' folded to 'a'..'z' on both sides.
Bool StrEqualNoCase16(const CHAR16* left, const CHAR16* right);
// The one pair of conversions: 8-bit to 16-bit widens each byte; 16-bit to 8-bit keeps the low byte.
VOID AsciiToUnicode(CHAR16* destination, UINTN capacity, const CHAR8* source);
VOID UnicodeToAscii(CHAR8* destination, UINTN capacity, const CHAR16* source);
