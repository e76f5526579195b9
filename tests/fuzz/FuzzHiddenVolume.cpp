// The firmware volume walk over any bytes: every header it reads lies inside the data, and a
// volume it reports starts inside the data.
#include <cstdint>

#include "KobaltApp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  UINT32 offset = 0, length = 0;
  if (FindHiddenVolume(data, (UINT32)size, &offset, &length) && offset >= size) __builtin_trap();
  return 0;
}
