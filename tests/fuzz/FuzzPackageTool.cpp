// The packing tool's inputs: the listing of any file stays inside it, and a package built from
// any texts and names is either refused with an ImageError or listed back as it was packed.
// Input: the listing's file; its bytes, cut at zero bytes, are also the pieces of a package.
#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "ZaPromImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> file(data, data + size);
  zimage::FormatPackage(zimage::InspectPackage(file));
  std::vector<std::string> pieces;
  std::stringstream text(std::string(file.begin(), file.end()));
  for (std::string piece; std::getline(text, piece, '\0');) pieces.push_back(piece);
  pieces.resize(std::max<size_t>(pieces.size(), 6));
  zimage::PackageSpec spec{{'M', 'Z'}, {}, pieces[0], pieces[1], pieces[2], {}};
  for (size_t i = 3; i + 1 < pieces.size(); i += 2)
    spec.images.push_back({pieces[i], std::vector<uint8_t>(pieces[i + 1].begin(), pieces[i + 1].end())});
  spec.resources.push_back({pieces[3], std::vector<uint8_t>(pieces.back().begin(), pieces.back().end())});
  std::vector<uint8_t> package;
  try {
    package = zimage::BuildPackage(spec);
  } catch (const zimage::ImageError&) {
    return 0;  // refused, naming what does not fit
  }
  const zimage::PackageInfo info = zimage::InspectPackage(package);
  if (info.defaultArguments != spec.defaultArguments || info.permittedOptions != spec.permittedOptions ||
      info.ini != spec.ini || info.biosCount != int(spec.images.size()))
    __builtin_trap();
  for (size_t i = 0; i < spec.images.size(); ++i)
    if (info.records.size() < 3 + i || info.records[2 + i].name != spec.images[i].name) __builtin_trap();
  return 0;
}
