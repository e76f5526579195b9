// What `zaprom-image info` and `show` read: any file, each read bounded by its length; a broken
// slot chain or launcher slot is a refusal, never a read past the end.
#include <cstdint>
#include <vector>

#include "ZaPromImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> file(data, data + size);
  zimage::FormatImageInfo(zimage::InspectImage(file));
  try {
    zimage::FormatCarried(zimage::InspectCarried(file));
  } catch (const zimage::ImageError&) {
    // refused with its reason
  }
  return 0;
}
