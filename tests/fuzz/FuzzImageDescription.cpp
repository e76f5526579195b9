// The image description: a fault is an ImageError with a message, never another exception; a
// description that parses is built and the result read back. Descriptions that name fill files
// or ask for more than 32 MB are parsed only, so the run touches no file and stays small.
#include <cstdint>
#include <string>

#include "ZaPromImage.h"

namespace {

bool Buildable(const zimage::ImageDescription& d) {
  bool files = d.fill.kind == zimage::Fill::Kind::File || (d.ec && d.ec->fill.kind == zimage::Fill::Kind::File);
  for (const zimage::RegionSpec& r : d.regions) files = files || r.fill.kind == zimage::Fill::Kind::File;
  return !files && d.size <= (32u << 20) && (!d.ec || d.ec->size <= (32u << 20));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const nlohmann::json document =
      nlohmann::json::parse(reinterpret_cast<const char*>(data), reinterpret_cast<const char*>(data) + size, nullptr, false);
  if (document.is_discarded()) return 0;
  try {
    const zimage::ImageDescription description = zimage::ParseImageDescription(document, "/nonexistent");
    if (Buildable(description)) zimage::FormatImageInfo(zimage::InspectImage(zimage::BuildImage(description)));
  } catch (const zimage::ImageError& fault) {
    if (std::string(fault.what()).empty()) __builtin_trap();
  }
  return 0;
}
