// What `zaprom-image info` reads: any file, each read bounded by its length.
#include <cstdint>
#include <vector>

#include "ZaPromImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zimage::FormatImageInfo(zimage::InspectImage(std::vector<uint8_t>(data, data + size)));
  return 0;
}
