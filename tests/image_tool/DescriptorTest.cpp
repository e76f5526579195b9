// The flash descriptor that the image tool writes: region registers in 4 KB units, unused
// regions, agreement with an independent descriptor reader (ifdtool) and with the simulator's
// default machine, which the demo image must match.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>

#include "simulator/MachineLayout.h"
#include "simulator/Simulator.h"
#include "zaprom-image/ZaPromImage.h"

namespace {

using zimage::SpiRegion;

uint32_t U32At(const std::vector<uint8_t>& bytes, size_t at) {
  return uint32_t(bytes[at]) | uint32_t(bytes[at + 1]) << 8 | uint32_t(bytes[at + 2]) << 16 | uint32_t(bytes[at + 3]) << 24;
}

zimage::ImageDescription Layout(uint32_t size, std::vector<zimage::RegionSpec> regions) {
  zimage::ImageDescription d;
  d.size = size;
  d.regions = std::move(regions);
  return d;
}

struct DescriptorCase {
  const char* name;
  zimage::ImageDescription description;
  uint32_t flreg[5];
  uint32_t flcomp;
};

std::vector<DescriptorCase> DescriptorCases() {
  return {
      {"Default16MB",
       Layout(16u << 20, {{SpiRegion::Descriptor, 0, 0x1000}, {SpiRegion::Me, 0x1000, 0x7FF000}, {SpiRegion::Bios, 0x800000, 0x800000}}),
       {0x00000000, 0x0FFF0800, 0x07FF0001, 0x00007FFF, 0x00007FFF},
       5},
      {"AllFiveRegions8MB",
       Layout(8u << 20, {{SpiRegion::Descriptor, 0, 0x3000},
                         {SpiRegion::Gbe, 0x3000, 0x2000},
                         {SpiRegion::PlatformData, 0x5000, 0x1000},
                         {SpiRegion::Me, 0x6000, 0x1FA000},
                         {SpiRegion::Bios, 0x200000, 0x600000}}),
       {0x00020000, 0x07FF0200, 0x01FF0006, 0x00040003, 0x00050005},
       4},
      {"BiosOnly1MB", Layout(1u << 20, {{SpiRegion::Descriptor, 0, 0x1000}, {SpiRegion::Bios, 0x1000, 0xFF000}}),
       {0x00000000, 0x00FF0001, 0x00007FFF, 0x00007FFF, 0x00007FFF},
       1},
  };
}

TEST(ImageDescriptor, RegionRegistersCountFourKilobyteUnits) {
  for (const DescriptorCase& c : DescriptorCases()) {
    SCOPED_TRACE(c.name);
    const std::vector<uint8_t> image = zimage::BuildImage(c.description);
    EXPECT_EQ(U32At(image, 0x10), 0x0FF0A55Au);
    // FLMAP0 names the component section at 0x30 and the region section at 0x40.
    EXPECT_EQ(U32At(image, 0x14) & 0xFF00FF, 0x040003u);
    EXPECT_EQ(U32At(image, 0x18) & 0xFF, 0x06u);  // masters at 0x60
    EXPECT_EQ(U32At(image, 0x30), c.flcomp);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(U32At(image, 0x40 + 4 * i), c.flreg[i]) << "FLREG" << i;
  }
}

TEST(ImageDescriptor, NoDescriptorRegionLeavesTheFirstBlockToTheFill) {
  zimage::ImageDescription d = Layout(1u << 20, {{SpiRegion::Bios, 0x80000, 0x80000}});
  d.fill.byte = 0x00;
  const std::vector<uint8_t> image = zimage::BuildImage(d);
  EXPECT_EQ(U32At(image, 0x10), 0u);
  EXPECT_EQ(image[0x80000], 0xFF);
}

std::string FindIfdtool() {
  for (const char* path : {"/usr/sbin/ifdtool", "/usr/bin/ifdtool", "/usr/local/bin/ifdtool"}) {
    if (std::filesystem::exists(path)) return path;
  }
  return {};
}

std::string RunAndCapture(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[4096];
    while (size_t n = fread(buffer, 1, sizeof(buffer), pipe)) out.append(buffer, n);
    pclose(pipe);
  }
  return out;
}

// ifdtool reads the descriptor by the public layout, with no code in common with ours: if a
// field stood one unit or one register off, its region lines would disagree.
TEST(ImageDescriptor, IfdtoolReadsTheRegionsAsDescribed) {
  const std::string ifdtool = FindIfdtool();
  ASSERT_FALSE(ifdtool.empty()) << "ifdtool is missing: install coreboot-utils (scripts/install-deps.sh does)";
  const std::regex line(R"(Flash Region (\d) \([^)]*\): ([0-9a-f]{8}) - ([0-9a-f]{8})( \(unused\))?)");
  for (const DescriptorCase& c : DescriptorCases()) {
    SCOPED_TRACE(c.name);
    const std::string path = testing::TempDir() + "ifd-" + c.name + ".bin";
    const std::vector<uint8_t> image = zimage::BuildImage(c.description);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(image.data()), image.size());
    const std::string out = RunAndCapture(ifdtool + " -d " + path + " 2>&1");
    EXPECT_EQ(out.find("Peculiar"), std::string::npos) << "ifdtool did not recognise the descriptor:\n" << out;
    int seen = 0;
    for (std::sregex_iterator m(out.begin(), out.end(), line), end; m != end; ++m, ++seen) {
      const auto region = static_cast<SpiRegion>(std::stoi((*m)[1]));
      const uint32_t base = std::stoul((*m)[2], nullptr, 16), limit = std::stoul((*m)[3], nullptr, 16);
      const zimage::RegionSpec* spec = nullptr;
      for (const auto& r : c.description.regions) {
        if (r.region == region) spec = &r;
      }
      SCOPED_TRACE(zimage::SpiRegionName(region));
      EXPECT_EQ((*m)[4].matched, spec == nullptr);
      if (spec) {
        EXPECT_EQ(base, spec->offset);
        EXPECT_EQ(limit, spec->offset + spec->size - 1);
      }
    }
    EXPECT_EQ(seen, 5) << out;
  }
}

// The demo image is flashed onto the simulator's default machine: its regions must be the ones
// that machine's descriptor gives, and its BVDT must stand where the machine keeps its own.
TEST(ImageDescriptor, DemoImageMatchesTheDefaultMachine) {
  std::ifstream in(std::string(ZAPROM_SOURCE_DIR) + "/examples/images/demo-newer.json");
  ASSERT_TRUE(in);
  const zimage::ImageDescription d = zimage::ParseImageDescription(nlohmann::json::parse(in));
  const std::vector<uint8_t> demo = zimage::BuildImage(d);
  const std::vector<uint8_t> current = sim::DefaultFlashContent(sim::Machine{});
  ASSERT_EQ(demo.size(), current.size());
  for (int i = 0; i < 5; ++i) EXPECT_EQ(U32At(demo, 0x40 + 4 * i), U32At(current, 0x40 + 4 * i)) << "FLREG" << i;

  const zimage::ImageInfo info = zimage::InspectImage(demo);
  ASSERT_TRUE(info.bvdtOffset);
  EXPECT_EQ(*info.bvdtOffset, sim::layout::kBvdtOffset);
  std::string model, version;
  ASSERT_TRUE(sim::ReadBvdtIdentity(demo, model, version));
  EXPECT_EQ(model, sim::layout::kDefaultModelName);
  // Newer by the dotted numbers, which is how the tool compares versions by default.
  auto numbers = [](const std::string& text) {
    std::vector<int> fields;
    std::regex number(R"(\d+)");
    for (std::sregex_iterator m(text.begin(), text.end(), number), end; m != end; ++m) fields.push_back(std::stoi(m->str()));
    return fields;
  };
  EXPECT_GT(numbers(version), numbers(sim::layout::kDefaultModelVersion)) << version;
}

}  // namespace
