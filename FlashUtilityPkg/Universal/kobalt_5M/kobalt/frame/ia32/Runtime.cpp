// The memory functions of a freestanding IA32 image: the compiler calls them on its own for
// struct copies and clears, the driver's CopyMem and SetMem are memmove and memset, and its
// searches and compares use memchr and memcmp.
#include <stddef.h>
#include <stdint.h>

extern "C" {

void* memcpy(void* destination, const void* source, size_t length) {
  unsigned char* to = static_cast<unsigned char*>(destination);
  const unsigned char* from = static_cast<const unsigned char*>(source);
  for (size_t i = 0; i < length; i++) {
    to[i] = from[i];
  }
  return destination;
}

void* memmove(void* destination, const void* source, size_t length) {
  unsigned char* to = static_cast<unsigned char*>(destination);
  const unsigned char* from = static_cast<const unsigned char*>(source);
  if (to < from || to >= from + length) {
    for (size_t i = 0; i < length; i++) {
      to[i] = from[i];
    }
  } else {
    for (size_t i = length; i > 0; i--) {
      to[i - 1] = from[i - 1];
    }
  }
  return destination;
}

void* memset(void* destination, int value, size_t length) {
  // Volatile so that the optimiser does not turn this loop back into a call of memset.
  volatile unsigned char* to = static_cast<volatile unsigned char*>(destination);
  for (size_t i = 0; i < length; i++) {
    to[i] = static_cast<unsigned char>(value);
  }
  return destination;
}

void* memchr(const void* source, int value, size_t length) {
  const unsigned char* from = static_cast<const unsigned char*>(source);
  for (size_t i = 0; i < length; i++) {
    if (from[i] == static_cast<unsigned char>(value)) {
      return const_cast<unsigned char*>(from + i);
    }
  }
  return nullptr;
}

int memcmp(const void* left, const void* right, size_t length) {
  const unsigned char* a = static_cast<const unsigned char*>(left);
  const unsigned char* b = static_cast<const unsigned char*>(right);
  for (size_t i = 0; i < length; i++) {
    if (a[i] != b[i]) {
      return a[i] < b[i] ? -1 : 1;
    }
  }
  return 0;
}

}  // extern "C"
