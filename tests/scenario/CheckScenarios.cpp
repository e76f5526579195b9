// Whole shell runs that the platform and version checks decide: every refusal with its exact
// console text and an untouched flash, what -mc, the same-version policy, an unknown current
// version and the [Platform_Check] list let through, an upgrade followed by a refused downgrade
// on the same flash, and the Dell box and dialogues with scripted keys.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "SimRun.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Identity {
  std::string version = "V1.03";
  std::string model = "DV-REF1000";
  bool versionMark = true;
  bool antiTheftMarker = false;
};

void PutField(Bytes& image, uint32_t at, size_t bytes, const std::string& text) {
  std::fill(image.begin() + at, image.begin() + at + bytes, 0);
  std::copy(text.begin(), text.begin() + std::min(bytes, text.size()), image.begin() + at);
}

// The default content with a changed DXE block and the given identity in its BVDT.
Bytes MakeImage(const Identity& id) {
  Bytes image = DefaultFlash();
  image[kDxeByte] ^= 0x5A;
  PutField(image, kDefaultBvdt + 0x0E, 24, id.version);
  PutField(image, kDefaultBvdt + 0x27, 25, id.model);
  if (!id.versionMark) image[kDefaultBvdt + 0x0D] = 0;
  if (id.antiTheftMarker) {
    const std::string marker = "pTA$";
    std::copy(marker.begin(), marker.end(), image.begin() + kDxeByte + 0x100);
  }
  return image;
}

Identity Id(std::string version, std::string model = "DV-REF1000") {
  Identity id;
  id.version = version;
  id.model = model;
  return id;
}

std::string FlashVersion(const Bytes& flash) {
  std::string text(flash.begin() + kDefaultBvdt + 0x0E, flash.begin() + kDefaultBvdt + 0x0E + 24);
  return text.substr(0, text.find('\0'));
}

SimResult RunTool(const std::string& machine, const Bytes& flash, const Bytes& image, std::vector<std::string> options,
                  const std::string& ini = "", const std::string& keys = "") {
  SimRequest request;
  request.machineJson = machine;
  request.arguments = {"new.bin"};
  request.arguments.insert(request.arguments.end(), options.begin(), options.end());
  request.keys = keys;
  request.flash = flash;
  request.volumeFiles = {{"new.bin", std::string(image.begin(), image.end())}};
  if (!ini.empty()) request.volumeFiles.push_back({"platform.ini", ini});
  return RunSim(request);
}

std::string Display(const std::string& currentModel, const std::string& newModel, const std::string& currentVersion,
                    const std::string& newVersion) {
  return "                           Current BIOS Model Name: " + currentModel +
         "\r\n                           New     BIOS Model Name: " + newModel +
         "\r\n                           Current BIOS Version: " + currentVersion +
         "\r\n                           New     BIOS Version: " + newVersion + "\r\n\r\n\r\n";
}

// The console from the identity display on.
std::string FromDisplay(const SimResult& result) {
  size_t at = result.console.find("                           Current BIOS Model Name:");
  return at == std::string::npos ? "(no display) " + result.console : result.console.substr(at);
}

size_t FirstDifference(const Bytes& a, const Bytes& b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++)
    if (a[i] != b[i]) return i;
  return a.size() == b.size() ? std::string::npos : n;
}

std::string Machine(const std::string& policy, const std::string& vendor = "0x1656", const std::string& extra = "") {
  return R"({"info": {"policy": ")" + policy + R"("}, "status": {"vendor_id": ")" + vendor + "\"}" + extra + "}";
}

const std::string kModelMismatch = "Model name not match.\r\n";
const std::string kNoListMatch = "No matched ID in [Platform_Check].\r\n";
const std::string kNotNewer = "The version of ROM file is not newer than current BIOS.\r\n";
const std::string kSameVersion = "The version of ROM file is the same as current BIOS.\r\n";
const std::string kFormatInvalid = "The version format in [BIOSVersionFormat] invalid.\r\n";
const std::string kCheckByBios =
    "[Bios_Version_Check]\r\nCheckByBios=1\r\nCheckByBiosErrorMessage=\"Not for this board\"\r\n";

TEST(CheckScenarios, EveryRefusalLeavesTheFlashAlone) {
  struct Row {
    const char* what;
    std::string machine;
    std::vector<std::string> options;
    std::string ini;
    Identity image;
    std::string display;  // what the identity display shows
    std::string message;
  };
  Identity noVersion = Id("V1.01");
  noVersion.versionMark = false;
  const std::vector<Row> rows = {
      {"model mismatch",
       Machine("0x01"),
       {},
       "",
       Id("V1.03", "DV-OTHER"),
       Display("DV-REF1000", "DV-OTHER", "V1.02", "V1.03"),
       kModelMismatch},
      {"[Platform_Check] Flag 1 overrides the firmware",
       Machine("0x00"),
       {},
       "[Platform_Check]\r\nFlag=1\r\n",
       Id("V1.03", "DV-OTHER"),
       Display("DV-REF1000", "DV-OTHER", "V1.02", "V1.03"),
       kModelMismatch},
      {"Flag 2 with every name empty",
       Machine("0x00"),
       {},
       "[Platform_Check]\r\nFlag=2\r\n",
       Id("V1.03"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.03"),
       kNoListMatch},
      {"Flag 2 list without this platform",
       Machine("0x00"),
       {},
       "[Platform_Check]\r\nFlag=2\r\nPlatformName1=NB-7\r\nPlatformName2=NB-9\r\n"
       "[PlatformVersion]\r\nFlag=1\r\nVersion1=A1.00\r\nVersion2=A2.00\r\n",
       Id("V1.03"),
       Display("DV-REF1000", "NB-9", "V1.02", "A2.00"),
       kNoListMatch},
      {"older image",
       Machine("0x02"),
       {},
       "",
       Id("V1.01"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.01"),
       kNotNewer},
      {"[Bios_Version_Check] Flag 1 overrides the firmware",
       Machine("0x00"),
       {},
       "[Bios_Version_Check]\r\nFlag=1\r\n",
       Id("V1.01"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.01"),
       kNotNewer},
      {"same version without Allow same version",
       Machine("0x02"),
       {},
       "",
       Id("1.2"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "1.2"),
       kSameVersion},
      {"version format that does not fit",
       Machine("0x02"),
       {},
       "[BIOSVersionFormat]\r\nBIOSVFEnable=1\r\nVersionFormat=N.NN\r\n",
       Id("V1.03"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.03"),
       kFormatInvalid},
      {"version format that compares older",
       Machine("0x02"),
       {},
       "[BIOSVersionFormat]\r\nBIOSVFEnable=1\r\nVersionFormat=DN.NN\r\n",
       Id("X1.01"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "X1.01"),
       kNotNewer},
      {"a platform refusal hides the version result",
       Machine("0x03"),
       {},
       "",
       Id("V1.01", "DV-OTHER"),
       Display("DV-REF1000", "DV-OTHER", "V1.02", "V1.01"),
       kModelMismatch},
      // The firmware judges the version through 45h before the compare, even an absent one.
      {"CheckByBios: the firmware refuses",
       Machine("0x02", "0x1656", R"(, "conditional": {"result": 0})"),
       {},
       kCheckByBios,
       Id("V1.03"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.03"),
       "Not for this board\r\n"},
      {"CheckByBios: refused without a version field",
       Machine("0x02", "0x1656", R"(, "conditional": {"result": 0})"),
       {},
       kCheckByBios,
       noVersion,
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.01"),
       "Not for this board\r\n"},
      {"CheckByBios: a firmware without 45h",
       Machine("0x02"),
       {},
       kCheckByBios,
       Id("V1.03"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.03"),
       "Not for this board\r\n"},
      {"CheckByBios: an answer without its signature",
       Machine("0x02", "0x1656", R"(, "conditional": {"signature": "$CHKCNDX"})"),
       {},
       kCheckByBios,
       Id("V1.03"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.03"),
       "OBLIS 45h fail.\r\n"},
      // Not enrolled: the image must carry the anti-theft marker; its absence is only traced.
      {"anti-theft marker missing",
       Machine("0x00", "0x1656", R"(, "anti_theft": "0x80")"),
       {"-dbg"},
       "",
       Id("V1.03"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.03"),
       ""},
  };
  const Bytes before = DefaultFlash();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimResult result = RunTool(row.machine, before, MakeImage(row.image), row.options, row.ini);
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    EXPECT_EQ(FromDisplay(result), row.display + row.message + "\n" + kNothingWritten);
    EXPECT_EQ(FirstDifference(result.flash, before), std::string::npos);
    for (const SmiCall& call : result.calls) EXPECT_NE(call.fn, "15h");
    if (!row.options.empty()) EXPECT_NE(result.log.find("<=== Func_PlatformCheck (ATP not found)"), std::string::npos);
  }
}

TEST(CheckScenarios, WhatTheChecksLetThrough) {
  struct Row {
    const char* what;
    std::string machine;
    std::vector<std::string> options;
    std::string ini;
    Identity image;
    std::string display;
  };
  Identity noVersion = Id("V1.01");
  noVersion.versionMark = false;
  Identity marked = Id("V1.03");
  marked.antiTheftMarker = true;
  const std::vector<Row> rows = {
      {"-mc skips both checks and shows N/A",
       Machine("0x03"),
       {"-mc"},
       "[Platform_Check]\r\nFlag=1\r\n",
       Id("V1.01", "DV-OTHER"),
       Display("N/A", "N/A", "N/A", "N/A")},
      {"same version with Allow same version",
       Machine("0x06"),
       {},
       "",
       Id("1.2"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "1.2")},
      {"current version N/A",
       R"({"info": {"policy": "0x03", "model_version": "N/A"}})",
       {},
       "",
       Id("V1.01"),
       Display("DV-REF1000", "DV-REF1000", "N/A", "V1.01")},
      {"version field without '$'",
       Machine("0x02"),
       {},
       "",
       noVersion,
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.01")},
      {"[Platform_Check] Flag 0 overrides the firmware",
       Machine("0x01"),
       {},
       "[Platform_Check]\r\nFlag=0\r\n",
       Id("V1.03", "DV-OTHER"),
       Display("DV-REF1000", "DV-OTHER", "V1.02", "V1.03")},
      {"Flag 2 list names the platform, with its [PlatformVersion]",
       Machine("0x03"),
       {},
       "[Platform_Check]\r\nFlag=2\r\nPlatformName1=NB-7\r\nPlatformName3=DV-REF1000\r\nPlatformName4=NB-9\r\n"
       "[PlatformVersion]\r\nFlag=1\r\nVersion1=A1.00\r\nVersion3=V7.77\r\nVersion4=A4.00\r\n",
       Id("V1.03", "DV-OTHER"),
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V7.77")},
      {"anti-theft marker present",
       Machine("0x03", "0x1656", R"(, "anti_theft": "0x80")"),
       {},
       "",
       marked,
       Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.03")},
  };
  const Bytes before = DefaultFlash();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const Bytes image = MakeImage(row.image);
    SimResult result = RunTool(row.machine, before, image, row.options, row.ini);
    EXPECT_EQ(result.exitCode, 0) << result.console << result.errors;
    EXPECT_EQ(FromDisplay(result).substr(0, row.display.size()), row.display);
    EXPECT_NE(result.console.find("Update Progress: Completed"), std::string::npos);
    EXPECT_EQ(result.flash[kDxeByte], image[kDxeByte]);
    EXPECT_EQ(FlashVersion(result.flash), FlashVersion(image));
  }
}

TEST(CheckScenarios, CheckByBiosAllowedStillComparesTheVersions) {
  const std::string machine = Machine("0x02", "0x1656", R"(, "conditional": {"result": 1})");
  SimResult newer = RunTool(machine, DefaultFlash(), MakeImage(Id("V1.03")), {}, kCheckByBios);
  EXPECT_EQ(newer.exitCode, 0) << newer.console << newer.errors;
  std::vector<std::string> records;
  for (const SmiCall& call : newer.calls)
    if (call.fn == "45h") records.push_back(call.record["received"]["record"].get<std::string>());
  // "$CHKCNDI", size 0x15, type 4 (version), format 1 (text), length 5, the text without its zero.
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0], "24 43 48 4B 43 4E 44 49 15 00 00 00 04 01 05 00 56 31 2E 30 33");

  SimResult older = RunTool(machine, DefaultFlash(), MakeImage(Id("V1.01")), {}, kCheckByBios);
  EXPECT_EQ(older.exitCode, 1);
  EXPECT_EQ(FromDisplay(older),
            Display("DV-REF1000", "DV-REF1000", "V1.02", "V1.01") + kNotNewer + "\n" + kNothingWritten);
}

TEST(CheckScenarios, UpgradeThenDowngradeOnTheSameFlash) {
  // The machine reports the version that its flash holds, so the second run sees the first's.
  const std::string machine = Machine("0x03");
  SimResult upgrade = RunTool(machine, DefaultFlash(), MakeImage(Id("V1.05")), {});
  ASSERT_EQ(upgrade.exitCode, 0) << upgrade.console << upgrade.errors;
  ASSERT_EQ(FlashVersion(upgrade.flash), "V1.05");

  SimResult downgrade = RunTool(machine, upgrade.flash, MakeImage(Id("V1.04")), {});
  EXPECT_EQ(downgrade.exitCode, 1);
  EXPECT_EQ(FromDisplay(downgrade),
            Display("DV-REF1000", "DV-REF1000", "V1.05", "V1.04") + kNotNewer + "\n" + kNothingWritten);
  EXPECT_EQ(FirstDifference(downgrade.flash, upgrade.flash), std::string::npos);

  // The same image again is the same version.
  SimResult again = RunTool(machine, upgrade.flash, MakeImage(Id("V1.05")), {});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_EQ(FromDisplay(again),
            Display("DV-REF1000", "DV-REF1000", "V1.05", "V1.05") + kSameVersion + "\n" + kNothingWritten);
}

const std::string kDellOlder =
    "You are about to flash your BIOS to an older version.\r\nDell does not recommend flashing your BIOS to an "
    "older version.\r\nPress 'Y' to continue the flash process.\r\n\r\n";
const std::string kDellSame =
    "Flash contents already the same\r\nUpgrade will have no effect\r\nPress 'C' to continue anyway\r\n\r\n";
const std::string kDellCancel =
    "ERROR: BIOS update cancelled by user\r\nPress any key to exit\r\n\r\nROM update not performed\r\n\r\n";

std::string DellReplace(const std::string& current, const std::string& shown) {
  return "About to replace Dell System\r\nPress 'Y' to replace \"" + current + "\" BIOS with \"" + shown +
         "\" BIOS\r\n\r\n";
}

TEST(CheckScenarios, DellDialoguesWithScriptedKeys) {
  struct Row {
    const char* what;
    std::string policy;
    std::string keys;
    Identity image;
    bool written;
    std::string prompts;  // between the display and the end of the check
  };
  const std::vector<Row> rows = {
      {"older, 'Y' goes", "0x02", "Y", Id("V1.01"), true, kDellOlder},
      {"older, 'n' cancels", "0x02", "nx", Id("V1.01"), false, kDellOlder + kDellCancel},
      {"newer, 'y' goes", "0x02", "y", Id("V1.03"), true, DellReplace("V1.02", "V1.03")},
      {"newer, ESC cancels", "0x02", "{ESC}x", Id("V1.03"), false, DellReplace("V1.02", "V1.03") + kDellCancel},
      {"same and allowed, 'Y' then 'C'", "0x06", "YC", Id("1.2"), true, DellReplace("V1.02", "1.2") + kDellSame},
      {"same and allowed, 'Y' then 'Y' cancels", "0x06", "YYx", Id("1.2"), false,
       DellReplace("V1.02", "1.2") + kDellSame + kDellCancel},
      {"same and not allowed: 'Y' goes", "0x02", "Y", Id("1.2"), true, DellReplace("V1.02", "1.2")},
  };
  const Bytes before = DefaultFlash();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const Bytes image = MakeImage(row.image);
    SimResult result = RunTool(Machine(row.policy, "0x1028"), before, image, {}, "", row.keys);
    const std::string display = Display("DV-REF1000", "DV-REF1000", "V1.02", row.image.version);
    EXPECT_EQ(result.exitCode, row.written ? 0 : 1) << result.console << result.errors;
    EXPECT_EQ(FromDisplay(result).substr(0, display.size() + row.prompts.size()), display + row.prompts);
    if (row.written) {
      EXPECT_EQ(result.flash[kDxeByte], image[kDxeByte]);
      EXPECT_EQ(FlashVersion(result.flash), row.image.version);
    } else {
      EXPECT_EQ(FromDisplay(result), display + row.prompts + "\n" + kNothingWritten);
      EXPECT_EQ(FirstDifference(result.flash, before), std::string::npos);
    }
  }
}

TEST(CheckScenarios, DellNopauseTakesEveryVersionWithoutAPrompt) {
  const Bytes image = MakeImage(Id("V1.01"));
  SimResult result = RunTool(Machine("0x02", "0x1028"), DefaultFlash(), image, {"-nopause"});
  EXPECT_EQ(result.exitCode, 0) << result.console << result.errors;
  EXPECT_EQ(result.console.find("Press 'Y'"), std::string::npos);
  EXPECT_EQ(FlashVersion(result.flash), "V1.01");
}

TEST(CheckScenarios, DellPlatformRefusalIsABoxAndAKey) {
  const Bytes before = DefaultFlash();
  SimResult result = RunTool(Machine("0x03", "0x1028"), before, MakeImage(Id("V1.03", "DV-OTHER")), {}, "", "q");
  EXPECT_EQ(result.exitCode, 1) << result.errors;
  auto line = [](const std::string& text) { return "# " + std::string(76 - text.size(), ' ') + text + " #"; };
  const std::string box = "#===================================== ERROR ==================================#" +
                          line("Cannot use a \"DV-OTHER\" BIOS") + line("In a \"DV-REF1000\" ") +
                          "#                                                                              #"
                          "# Rom update not performed.                                                    #"
                          "# press any key to exit.                                                       #"
                          "#==============================================================================#";
  EXPECT_EQ(FromDisplay(result),
            Display("DV-REF1000", "DV-OTHER", "V1.02", "V1.03") + box + "\r\n" + "\n" + kNothingWritten);
  EXPECT_EQ(FirstDifference(result.flash, before), std::string::npos);
}

}  // namespace
