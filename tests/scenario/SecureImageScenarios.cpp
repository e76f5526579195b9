// Secure images (the tool's container with the flash image in its BIOSIMG slot) on secure and
// legacy platforms: which image may go where, the capsule that the firmware receives whole, the
// copy on the system partition, and the payload that a legacy platform gets through the block
// writer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "SimRun.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kRomSize = 0x1000000;
constexpr uint32_t kBvdtVersionAt = 0x890000 + 0x0E;

std::string Text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// The default content with a new version and a pattern through the upper BIOS area.
Bytes NewFlashImage() {
  Bytes image = DefaultFlash();
  for (uint32_t at = 0xC00000; at < kRomSize; at += 0x100) image[at] = static_cast<uint8_t>(at >> 12);
  const std::string version = "V7.77";
  std::copy(version.begin(), version.end(), image.begin() + kBvdtVersionAt);
  return image;
}

void Append(Bytes& out, const std::string& text) { out.insert(out.end(), text.begin(), text.end()); }
void AppendU32(Bytes& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}
void AppendSlot(Bytes& out, const std::string& tag, const Bytes& data, uint32_t capacity) {
  Append(out, tag);
  AppendU32(out, capacity);
  AppendU32(out, static_cast<uint32_t>(data.size()));
  const size_t start = out.size();
  out.resize(start + capacity, 0);
  std::copy_n(data.begin(), std::min<size_t>(data.size(), capacity), out.begin() + start);
}

// A signed container as the packing step leaves it: code in front, the secure-image record, the
// EC, BIOSIMG, INI and certificate slots, and the driver signature at the end when signed.
Bytes SecureImage(const Bytes& payload, bool signedByThisGeneration, const Bytes& ec = {}) {
  Bytes image(0xD80, 0x90);
  const uint8_t record[] = {'$',  'I',  'S',  'B',  0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3,
                            0xAE, 0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB, 0xB8};
  for (uint8_t b : record) image.push_back(b);
  AppendSlot(image, "$_KOBALT_EC_IMG_", ec, ec.empty() ? 4 : static_cast<uint32_t>(ec.size()));
  AppendSlot(image, "$_KOBALT_BIOSIMG", payload, static_cast<uint32_t>(payload.size()));
  AppendSlot(image, "$_KOBALT_INI_IMG", {}, 0x100);
  AppendSlot(image, "$_KOBALT_BIOSCER", Bytes(0x100, 0x5C), 0x400);
  if (signedByThisGeneration) {
    Append(image, "I#EFI#DRV_1.2d");
    image.push_back(0);
    image.push_back(0);
  }
  return image;
}

// The digest the simulator reports of what it received, computed here on its own.
std::string Fnv1a(const Bytes& bytes) {
  uint64_t hash = 0xCBF29CE484222325ull;
  for (uint8_t b : bytes) hash = (hash ^ b) * 0x100000001B3ull;
  char text[17];
  std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

size_t CountCalls(const SimResult& result, const std::string& fn) {
  size_t count = 0;
  for (const SmiCall& call : result.calls) count += call.fn == fn ? 1 : 0;
  return count;
}

// The 48h calls that carried an image, as the simulated firmware received them.
std::vector<nlohmann::json> Capsules(const SimResult& result) {
  std::vector<nlohmann::json> capsules;
  for (const SmiCall& call : result.calls)
    if (call.fn == "48h" && call.record.contains("capsule")) capsules.push_back(call.record["capsule"]);
  return capsules;
}

const char kSecureMachine[] = R"({"capsule": {"secure": true}})";

TEST(SecureImageScenarios, TheImageKindDecidesWhetherAnImageMayGoOnThePlatform) {
  const Bytes payload = NewFlashImage();
  struct Row {
    const char* what;
    std::string machine;
    Bytes image;
    std::string ini;
    std::string refusal;
  };
  const Row rows[] = {
      {"legacy image on a secure platform", kSecureMachine, payload, "",
       "It only supports to flash secure BIOS on current platform.\r\nThe image to be updated is not a secure "
       "BIOS.\r\n\r\n"},
      {"the settings' own words for it", kSecureMachine, payload,
       "[MessageStringTable]\r\nMessageStringA00=\"Signed images only.\"\r\n", "Signed images only.\r\n\r\n"},
      {"any probe answer but 0xEF means secure", R"({"capsule": {"secure": true, "probe_status": "0x21"}})",
       payload, "", "The image to be updated is not a secure BIOS.\r\n"},
      {"secure image of an older signing generation", kSecureMachine, SecureImage(payload, false), "",
       "The secure BIOS is signed by older version of security flash.\r\n\r\n"},
      {"secure image where the settings forbid it", "", SecureImage(payload, true),
       "[Others]\r\nDisableSecureCapsuleFlash=1\r\n", "Not allow to flash secure BIOS on current platform.\r\n\r\n"},
  };
  for (const Row& row : rows) {
    SimRequest request;
    request.machineJson = row.machine;
    request.arguments = {"new.bin"};
    request.volumeFiles = {{"new.bin", Text(row.image)}};
    if (!row.ini.empty()) request.volumeFiles.push_back({"platform.ini", row.ini});
    SimResult result = RunSim(request);
    EXPECT_EQ(result.exitCode, 1) << row.what << "\n" << result.console << result.errors;
    EXPECT_NE(result.console.find(row.refusal), std::string::npos) << row.what << "\n" << result.console;
    EXPECT_EQ(CountCalls(result, "15h"), 0u) << row.what;
    EXPECT_TRUE(Capsules(result).empty()) << row.what;
    EXPECT_EQ(result.flash, DefaultFlash()) << row.what;
  }
}

TEST(SecureImageScenarios, ASecurePlatformReceivesTheWholeImageAndTheToolWritesNoBlock) {
  const Bytes image = SecureImage(NewFlashImage(), true);
  SimRequest request;
  request.machineJson = R"({"capsule": {"secure": true, "action": 2}})";
  request.arguments = {"new.bin", "-dbg"};
  request.volumeFiles = {{"new.bin", Text(image)}};
  SimResult result = RunSim(request);
  ASSERT_EQ(result.exitCode, 0) << result.console << result.errors;
  EXPECT_EQ(CountCalls(result, "15h"), 0u);
  EXPECT_EQ(result.flash, DefaultFlash());

  std::vector<nlohmann::json> capsules = Capsules(result);
  ASSERT_EQ(capsules.size(), 1u);
  const nlohmann::json& capsule = capsules[0];
  EXPECT_EQ(capsule["size"].get<uint32_t>(), image.size());
  EXPECT_EQ(capsule["image_fnv1a"].get<std::string>(), Fnv1a(image));
  // 512 KB blocks, the last one shorter, each behind the one before.
  const auto lengths = capsule["lengths"].get<std::vector<uint64_t>>();
  const auto addresses = capsule["addresses"].get<std::vector<uint64_t>>();
  ASSERT_EQ(lengths.size(), (image.size() + 0x7FFFF) / 0x80000);
  for (size_t i = 0; i + 1 < lengths.size(); ++i) {
    EXPECT_EQ(lengths[i], 0x80000u);
    EXPECT_EQ(addresses[i + 1], addresses[i] + 0x80000u);
  }
  EXPECT_EQ(lengths.back(), image.size() % 0x80000);

  // The firmware's action 2 (shut down) becomes the finish report's action.
  ASSERT_FALSE(result.calls.empty());
  const SmiCall& finish = result.calls.back();
  ASSERT_EQ(finish.fn, "16h");
  EXPECT_EQ(finish.in["ecx"].get<uint32_t>() & 0xFF, 1u) << "shutdown";
  EXPECT_NE(result.log.find("BIOS return action (2)\r\n"), std::string::npos);
  EXPECT_NE(result.log.find(" platform [secure]\r\n"), std::string::npos);
}

TEST(SecureImageScenarios, ARefusedCapsuleSaysSoAndNothingIsWritten) {
  SimRequest request;
  request.machineJson = R"({"capsule": {"secure": true, "flash_status": "0x25"}})";
  request.arguments = {"new.bin"};
  request.volumeFiles = {{"new.bin", Text(SecureImage(NewFlashImage(), true))}};
  SimResult result = RunSim(request);
  EXPECT_EQ(result.exitCode, 1) << result.console;
  EXPECT_NE(result.console.find("The BIOS image to be updated is invalid or\r\nonboard BIOS does not support Secure "
                                "Flash.\r\n"),
            std::string::npos)
      << result.console;
  EXPECT_EQ(CountCalls(result, "15h"), 0u);
  EXPECT_EQ(result.flash, DefaultFlash());
}

TEST(SecureImageScenarios, ALegacyPlatformWritesOnlyThePayloadThroughTheBlockWriter) {
  const Bytes payload = NewFlashImage();
  SimRequest request;
  request.arguments = {"new.bin", "-dbg"};
  request.flash = DefaultFlash();
  request.volumeFiles = {{"new.bin", Text(SecureImage(payload, false))}};
  SimResult result = RunSim(request);
  ASSERT_EQ(result.exitCode, 0) << result.console << result.errors;
  EXPECT_TRUE(Capsules(result).empty());
  EXPECT_GT(CountCalls(result, "15h"), 0u);
  // The payload's changed blocks lie in the upper area and the BVDT, none of them kept.
  EXPECT_TRUE(std::equal(payload.begin() + 0xC00000, payload.end(), result.flash.begin() + 0xC00000));
  EXPECT_EQ(Text(Bytes(result.flash.begin() + kBvdtVersionAt, result.flash.begin() + kBvdtVersionAt + 5)), "V7.77");
  EXPECT_NE(result.log.find(" platform [legacy]\r\n"), std::string::npos);
  EXPECT_NE(result.log.find("<=== FuncUpdate_via48h (via 15h)\r\n"), std::string::npos);
}

TEST(SecureImageScenarios, ASecureImageWithAnEcPartIsRefusedBeforeAnyWrite) {
  SimRequest request;
  request.arguments = {"new.bin"};
  request.volumeFiles = {{"new.bin", Text(SecureImage(NewFlashImage(), true, Bytes(0x1000, 0xEC)))}};
  SimResult result = RunSim(request);
  EXPECT_EQ(result.exitCode, 1) << result.console;
  EXPECT_NE(result.console.find("cannot check or write an EC"), std::string::npos) << result.console;
  EXPECT_EQ(CountCalls(result, "15h"), 0u);
  EXPECT_EQ(result.flash, DefaultFlash());
}

}  // namespace

namespace {

TEST(SecureImageScenarios, TheSystemPartitionCopyAndTheBlockListFollowTheSettingAndTheFirmware) {
  const Bytes image = SecureImage(NewFlashImage(), true);
  struct Row {
    const char* what;
    std::string machine;
    bool viaEsp;
    bool listFromZero;
    std::string copyAt;  // empty: no copy anywhere
  };
  const std::string sataAndEmmc =
      R"("volumes": [{"path": "volume/sata", "kind": "sata"}, {"path": "volume/emmc", "kind": "emmc"}])";
  const Row rows[] = {
      {"partition road, firmware reads memory", R"({"capsule": {"secure": true}, )" + sataAndEmmc + "}", true, false,
       "emmc/EFI/Dovrin/kobalts.bin"},
      {"partition road, firmware reads the file",
       R"({"capsule": {"secure": true, "extra": 1}, )" + sataAndEmmc + "}", true, true, "emmc/EFI/Dovrin/kobalts.bin"},
      {"memory road even when the firmware could read the file",
       R"({"capsule": {"secure": true, "extra": 1}, )" + sataAndEmmc + "}", false, false, ""},
      {"SATA when there is no eMMC",
       R"({"capsule": {"secure": true}, "volumes": [{"path": "volume/sata", "kind": "sata"}]})", true, false,
       "sata/EFI/Dovrin/kobalts.bin"},
  };
  for (const Row& row : rows) {
    SimRequest request;
    request.machineJson = row.machine;
    request.arguments = {"new.bin"};
    request.volumeFiles = {{"new.bin", Text(image)},
                           {"sata/EFI/readme.txt", "x"},
                           {"emmc/EFI/readme.txt", "x"},
                           // An older, longer capsule is replaced, not written over.
                           {"emmc/EFI/Dovrin/kobalts.bin", std::string(image.size() + 0x1000, 'O')}};
    if (row.viaEsp) request.volumeFiles.push_back({"platform.ini", "[SecureUpdate]\r\nviaESP=1\r\n"});
    request.readBack = {"sata/EFI/Dovrin/kobalts.bin", "emmc/EFI/Dovrin/kobalts.bin"};
    SimResult result = RunSim(request);
    ASSERT_EQ(result.exitCode, 0) << row.what << "\n" << result.console << result.errors;
    std::vector<nlohmann::json> capsules = Capsules(result);
    ASSERT_EQ(capsules.size(), 1u) << row.what;
    EXPECT_EQ(capsules[0]["via_esp"].get<int>(), row.viaEsp ? 1 : 0) << row.what;
    EXPECT_EQ(capsules[0]["addresses"][0].get<uint64_t>() == 0, row.listFromZero) << row.what;
    if (!row.listFromZero) EXPECT_EQ(capsules[0]["image_fnv1a"].get<std::string>(), Fnv1a(image)) << row.what;
    if (!row.copyAt.empty()) {
      ASSERT_EQ(result.files.count(row.copyAt), 1u) << row.what;
      EXPECT_TRUE(result.files[row.copyAt] == Text(image)) << row.what;
    }
    if (row.copyAt != "sata/EFI/Dovrin/kobalts.bin") EXPECT_EQ(result.files.count("sata/EFI/Dovrin/kobalts.bin"), 0u);
    EXPECT_EQ(CountCalls(result, "15h"), 0u) << row.what;
  }
}

TEST(SecureImageScenarios, APartitionWithoutAnEfiFolderStopsTheCapsuleBeforeTheFirmwareSeesIt) {
  SimRequest request;
  request.machineJson = R"({"capsule": {"secure": true}, "volumes": [{"path": "volume/sata", "kind": "sata"}]})";
  request.arguments = {"new.bin", "-dbg"};
  request.volumeFiles = {{"new.bin", Text(SecureImage(NewFlashImage(), true))},
                         {"sata/readme.txt", "no EFI folder here"},
                         {"platform.ini", "[SecureUpdate]\r\nviaESP=1\r\n"}};
  SimResult result = RunSim(request);
  EXPECT_EQ(result.exitCode, 1) << result.console;
  EXPECT_TRUE(Capsules(result).empty());
  EXPECT_NE(result.log.find("Device Path |SATA| (0x1)\r\n"), std::string::npos) << result.log;
  EXPECT_NE(result.log.find("Create Dir |fail| (\\EFI\\Dovrin)\r\n"), std::string::npos) << result.log;
  EXPECT_EQ(result.flash, DefaultFlash());
}

}  // namespace
