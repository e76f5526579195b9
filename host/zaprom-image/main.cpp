// The zaprom-image command line: `build` turns a JSON description into a flash file, `info`
// prints what a flash file holds, `pack-driver` and `pack-launcher` put together what the
// firmware starts and `show` reads it back (or an RBU image's wrapper and flash data). The work itself is the image library's.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <algorithm>
#include <iterator>
#include <map>
#include <optional>

#include "ZaPromImage.h"

namespace {

constexpr const char* kUsage =
    "usage: zaprom-image build DESCRIPTION.json -o OUT.bin\n"
    "       zaprom-image info IMAGE.bin\n"
    "       zaprom-image pack-driver [DRIVER.efi] -o OUT [--bios FILE] [--ec FILE] [--ini FILE]\n"
    "                                [--cert FILE] [--cert2 FILE]\n"
    "       zaprom-image pack-launcher [LAUNCHER.efi] --driver DRIVER.efi -o OUT\n"
    "       zaprom-image show FILE\n"
    "       zaprom-image pack-rom APPLICATION.efi -o OUT.efi --image [NAME=]FILE [--image [NAME=]FILE ...]\n"
    "                             [--ini FILE] [--defaults TEXT] [--permit TEXT] [--resource [NAME=]FILE ...]\n"
    "       zaprom-image list-rom PACKAGE.efi\n";

// A wrong command line, as opposed to a fault in what it names.
struct UsageError {};

std::vector<uint8_t> ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw zimage::ImageError("cannot read " + path);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw zimage::ImageError("cannot write " + path);
}

// The options of a pack command: "-o OUT" and "--NAME FILE" pairs, and at most one plain file.
struct PackArguments {
  std::optional<std::string> input;
  std::string out;
  std::map<std::string, std::string> files;
};

PackArguments ParsePack(const std::vector<std::string>& args, const std::vector<std::string>& names) {
  PackArguments parsed;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const bool takesFile = arg == "-o" || std::find(names.begin(), names.end(), arg) != names.end();
    if (takesFile) {
      if (i + 1 == args.size() || (arg == "-o" ? !parsed.out.empty() : parsed.files.count(arg) != 0)) throw UsageError{};
      (arg == "-o" ? parsed.out : parsed.files[arg]) = args[++i];
    } else if (arg.rfind("-", 0) == 0 || parsed.input) {
      throw UsageError{};
    } else {
      parsed.input = arg;
    }
  }
  if (parsed.out.empty()) throw UsageError{};
  return parsed;
}

int PackDriver(const std::vector<std::string>& args) {
  static const std::vector<std::string> kSlotOptions = {"--ec", "--bios", "--ini", "--cert", "--cert2"};
  const PackArguments parsed = ParsePack(args, kSlotOptions);
  zimage::DriverPayloads payloads;
  for (int i = 0; i < zimage::kChainSlotCount; ++i) {
    const auto named = parsed.files.find(kSlotOptions[i]);
    if (named != parsed.files.end()) payloads.slots[i] = ReadAll(named->second);
  }
  const std::vector<uint8_t> driver = parsed.input ? ReadAll(*parsed.input) : zimage::BareDriverChain();
  const std::vector<uint8_t> packed = zimage::PackDriver(driver, payloads);
  WriteAll(parsed.out, packed);
  std::printf("%s: 0x%zX bytes\n", parsed.out.c_str(), packed.size());
  return 0;
}

int PackLauncher(const std::vector<std::string>& args) {
  const PackArguments parsed = ParsePack(args, {"--driver"});
  if (parsed.files.count("--driver") == 0) throw UsageError{};
  std::optional<std::vector<uint8_t>> launcher;
  if (parsed.input) launcher = ReadAll(*parsed.input);
  const std::vector<uint8_t> packed = zimage::PackLauncher(launcher, ReadAll(parsed.files.at("--driver")));
  WriteAll(parsed.out, packed);
  std::printf("%s: 0x%zX bytes\n", parsed.out.c_str(), packed.size());
  return 0;
}

// "NAME=FILE", or a plain FILE named by its last path component.
std::pair<std::string, std::string> NamedFile(const std::string& word) {
  const size_t equals = word.find('=');
  if (equals == std::string::npos) return {std::filesystem::path(word).filename().string(), word};
  return {word.substr(0, equals), word.substr(equals + 1)};
}

int PackRom(const std::vector<std::string>& args) {
  zimage::PackageSpec spec;
  std::optional<std::string> application, out;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const bool valued = arg == "-o" || arg == "--image" || arg == "--ini" || arg == "--defaults" || arg == "--permit" ||
                        arg == "--resource";
    if (!valued) {
      if (arg.rfind("-", 0) == 0 || application) throw UsageError{};
      application = arg;
      continue;
    }
    if (i + 1 == args.size()) throw UsageError{};
    const std::string& value = args[++i];
    if (arg == "-o") {
      out = value;
    } else if (arg == "--image") {
      const auto [name, file] = NamedFile(value);
      spec.images.push_back({name, ReadAll(file)});
    } else if (arg == "--resource") {
      const auto [name, file] = NamedFile(value);
      spec.resources.push_back({name, ReadAll(file)});
    } else if (arg == "--ini") {
      const std::vector<uint8_t> text = ReadAll(value);
      spec.ini = std::string(text.begin(), text.end());
    } else {
      (arg == "--defaults" ? spec.defaultArguments : spec.permittedOptions) = value;
    }
  }
  if (!application || !out) throw UsageError{};
  spec.application = ReadAll(*application);
  const std::vector<uint8_t> package = zimage::BuildPackage(spec);
  WriteAll(*out, package);
  std::printf("%s: 0x%zX bytes, %zu image%s\n", out->c_str(), package.size(), spec.images.size(),
              spec.images.size() == 1 ? "" : "s");
  return 0;
}

int ListRom(const std::string& path) {
  std::fputs(zimage::FormatPackage(zimage::InspectPackage(ReadAll(path))).c_str(), stdout);
  return 0;
}

// An RBU image: the wrapper with its checksums, then what the flash data it carries holds.
bool ShowRbu(const std::vector<uint8_t>& file) {
  const auto rbu = zimage::InspectRbu(file);
  if (!rbu) return false;
  std::fputs(zimage::FormatRbuInfo(*rbu).c_str(), stdout);
  const rbu_image::Layout& l = rbu->layout;
  if (l.ok) {
    const std::vector<uint8_t> raw(file.begin() + l.rawStart, file.begin() + l.rawStart + l.rawSize);
    std::fputs(zimage::FormatImageInfo(zimage::InspectImage(raw)).c_str(), stdout);
  }
  return true;
}

int Show(const std::string& path) {
  const std::vector<uint8_t> file = ReadAll(path);
  if (!ShowRbu(file)) std::fputs(zimage::FormatCarried(zimage::InspectCarried(file)).c_str(), stdout);
  return 0;
}

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
  const std::vector<uint8_t> image = ReadAll(imagePath);
  if (ShowRbu(image)) return 0;
  std::fputs(zimage::FormatImageInfo(zimage::InspectImage(image)).c_str(), stdout);
  if (const auto pfat = zimage::InspectPfat(image)) std::fputs(zimage::FormatPfatInfo(*pfat).c_str(), stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  try {
    if (args.size() == 4 && args[0] == "build" && args[2] == "-o") return Build(args[1], args[3]);
    if (args.size() == 4 && args[0] == "build" && args[1] == "-o") return Build(args[3], args[2]);
    if (args.size() == 2 && args[0] == "info") return Info(args[1]);
    if (args.size() == 2 && args[0] == "show") return Show(args[1]);
    if (!args.empty() && args[0] == "pack-driver") return PackDriver(args);
    if (!args.empty() && args[0] == "pack-launcher") return PackLauncher(args);
    if (!args.empty() && args[0] == "pack-rom") return PackRom(args);
    if (args.size() == 2 && args[0] == "list-rom") return ListRom(args[1]);
  } catch (const UsageError&) {
    // the usage below
  } catch (const zimage::ImageError& e) {
    std::fprintf(stderr, "zaprom-image: %s\n", e.what());
    return 1;
  }
  std::fputs(kUsage, stderr);
  return 2;
}
