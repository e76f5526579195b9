// The zaprom-image command line: `build` turns a JSON description into a flash file, `info`
// prints what a flash file holds. The work itself is the image library's.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "ZaPromImage.h"

namespace {

constexpr const char* kUsage =
    "usage: zaprom-image build DESCRIPTION.json -o OUT.bin\n"
    "       zaprom-image info IMAGE.bin\n";

int Build(const std::string& descriptionPath, const std::string& outPath) {
  std::ifstream in(descriptionPath);
  if (!in) throw zimage::ImageError("cannot read " + descriptionPath);
  nlohmann::json document;
  try {
    document = nlohmann::json::parse(in, nullptr, true, true);  // comments allowed
  } catch (const nlohmann::json::exception& e) {  // a syntax fault, or a number too large for any type
    throw zimage::ImageError(descriptionPath + ": " + e.what());
  }
  const std::string folder = std::filesystem::path(descriptionPath).parent_path().string();
  const std::vector<uint8_t> image = zimage::BuildImage(zimage::ParseImageDescription(document, folder));
  std::ofstream out(outPath, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
  if (!out) throw zimage::ImageError("cannot write " + outPath);
  std::printf("%s: 0x%zX bytes\n", outPath.c_str(), image.size());
  return 0;
}

int Info(const std::string& imagePath) {
  std::ifstream in(imagePath, std::ios::binary);
  if (!in) throw zimage::ImageError("cannot read " + imagePath);
  const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::fputs(zimage::FormatImageInfo(zimage::InspectImage(file)).c_str(), stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  try {
    if (args.size() == 4 && args[0] == "build" && args[2] == "-o") return Build(args[1], args[3]);
    if (args.size() == 4 && args[0] == "build" && args[1] == "-o") return Build(args[3], args[2]);
    if (args.size() == 2 && args[0] == "info") return Info(args[1]);
  } catch (const zimage::ImageError& e) {
    std::fprintf(stderr, "zaprom-image: %s\n", e.what());
    return 1;
  }
  std::fputs(kUsage, stderr);
  return 2;
}
