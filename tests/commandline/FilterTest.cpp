// The firmware's command filter against the option text, the settings it puts back, and the
// usage rows it hides; each row on a simulated machine whose 10h answer carries the filter.
#include <optional>
#include <string>
#include <vector>

#include "config/ConfigInternal.h"
#include "frame/Frame.h"
#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"

namespace {

using Filter = std::optional<std::vector<uint8_t>>;

const Filter kNoFilter = std::nullopt;
const Filter kEmpty = std::vector<uint8_t>{};
const Filter kOnlyAll = std::vector<uint8_t>{0x01};
const Filter kEverything = std::vector<uint8_t>(8, 0xFF);

// The driver after function 10h has handed over the filter, with the log on.
class CommandFilter : public bed::DriverBed {
 protected:
  void Start(const Filter& filter, const std::string& keys = "") {
    bed::BedSetup setup;
    setup.keys = keys;
    std::string bytes = "null";
    if (filter) {
      bytes = "[";
      for (uint8_t b : *filter) bytes += (bytes.size() > 1 ? "," : "") + std::to_string(b);
      bytes += "]";
    }
    setup.machineJson = "{\"status\": {\"filter\": " + bytes + "}}";
    Install(setup);
    EXPECT_TRUE(Initialize());
    consoleBefore_ = Console().size();
  }
  std::string NewConsole() { return Console().substr(consoleBefore_); }

 private:
  size_t consoleBefore_ = 0;
};

TEST_F(CommandFilter, OptionTextPassesOnlyWhatTheFilterPermits) {
  struct Row {
    std::string name;
    Filter filter;
    std::u16string commandText;
    bool accepted;
    std::string refused;  // the token as quoted
  };
  std::vector<uint8_t> noBios(8, 0xFF);
  noBios[2] = 0xFE;
  const std::vector<Row> rows = {
      {"no filter checks nothing", kNoFilter, u" -nonsense", true, ""},
      {"empty line under an empty table", kEmpty, u"", true, ""},
      {"empty table permits nothing", kEmpty, u" -all", false, "-all"},
      {"one byte: byte 0 counts", kOnlyAll, u" -ALL", true, ""},
      {"one byte: byte 1 is clear", kOnlyAll, u" -all -fn", false, "-fn"},
      {"slash, case and values fold", kEverything, u" /BIOS -FT:0A -ft:FF /r  -s   -H -?", true, ""},
      {"unknown after the cut", kEverything, u" -a:b", false, "-a:b"},
      {"options the table does not list", kEverything, u" -rt:1,2", false, "-rt:1,2"},
      {"-di is not listed", kEverything, u" -r -di", false, "-di"},
      {"clear bit quotes the token as typed", noBios, u" -r /BIOS", false, "/BIOS"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Start(row.filter);
    EXPECT_EQ(ChkFilterArg(row.commandText.c_str()), row.accepted);
    std::string console = NewConsole();
    if (row.accepted) {
      EXPECT_EQ(console, "");
    } else {
      size_t banner = console.find("Version 1.3k.00");
      ASSERT_NE(banner, std::string::npos) << console;
      EXPECT_EQ(console.substr(console.find("Error command:")),
                "Error command: " + row.refused + " (Not supports on current platform)\r\n\r\n");
    }
    if (row.filter) {
      EXPECT_NE(Log().find("Argument filter enabled\r\n"), std::string::npos);
    }
  }
}

TEST_F(CommandFilter, ClearBitsPutSettingsBackToTheirStartValues) {
  struct Row {
    std::string name;
    Filter filter;
    bool reset;
  };
  const std::vector<Row> rows = {
      {"no filter", kNoFilter, false},
      {"empty table resets every listed setting", kEmpty, true},
      {"one byte leaves bytes 4 and 7 clear", kOnlyAll, true},
      {"everything permitted", kEverything, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Start(row.filter);
    InitialIniStructure();
    FlashSettings* settings = MutableSettings();
    settings->engineeringErrorDisable.skipSecureBootProtectionCheck = true;
    settings->flashComplete.action = 3;
    settings->flashSecureBiosOverride.enable = true;
    settings->flashSecureBiosOverride.action = 4;
    settings->forceFlash.all = true;
    settings->forceFlash.bbPei = true;
    settings->forceFlash.forceTypes[0x00] = true;
    settings->forceFlash.forceTypes[0x13] = true;
    settings->region.bios = true;
    settings->updateEc.progressBar = false;
    settings->platformCheck.flag = 1;
    settings->logFile.flag = 1;
    settings->logFile.level = 4;
    ChkFilterTblIni();
    const FlashSettings* after = Settings();
    // Byte 0 bit 0 is all that the one-byte table permits.
    bool allKept = !row.reset || row.filter == kOnlyAll;
    EXPECT_EQ(after->forceFlash.all, allKept ? 1 : 0);
    EXPECT_EQ(after->forceFlash.bbPei, row.reset ? 0 : 1);
    EXPECT_EQ(after->forceFlash.forceTypes[0x00], row.reset ? 0 : 1);
    EXPECT_EQ(after->forceFlash.forceTypes[0x13], row.reset ? 0 : 1);
    EXPECT_EQ(after->region.bios, row.reset ? 0 : 1);
    EXPECT_EQ(after->updateEc.progressBar, row.reset ? 1 : 0);
    EXPECT_EQ(after->platformCheck.flag, row.reset ? 3 : 1);
    EXPECT_EQ(after->engineeringErrorDisable.skipSecureBootProtectionCheck, row.reset ? 0 : 1);
    EXPECT_EQ(after->flashComplete.action, row.reset ? 2 : 3);
    EXPECT_EQ(after->flashSecureBiosOverride.enable, row.reset ? 0 : 1);
    EXPECT_EQ(after->flashSecureBiosOverride.action, row.reset ? 1 : 4);
    std::string log = Log();
    EXPECT_EQ(log.find("filter ini 4, 7\r\n") != std::string::npos, row.reset) << log;
    EXPECT_EQ(log.find("INI filter() |enable|\r\n") != std::string::npos, row.filter.has_value()) << log;
  }
}

TEST_F(CommandFilter, UsageShowsOnlyPermittedRowsAndPagesBeforeTheScreenIsFull) {
  struct Row {
    std::string name;
    Filter filter;
    std::vector<std::string> shown;
    std::vector<std::string> hidden;
    size_t pages;  // key prompts
  };
  const std::string kUsage = "Usage: ZAPROM-S.exe filename [Option]";
  const std::string kHelp = "-H                This flash utility help.";
  const std::string kAll = "-ALL              Flash all.";
  const std::string kEdt = "-EDT#@:\"VALUE\"    # : The type ID. Value 4 ~ C.";
  const std::string kDi = "-DI               Disable ID display.";
  const std::string kVrt = "-VRT:Times        When verify error, retry how many times.";
  const std::vector<Row> rows = {
      {"no filter shows everything", kNoFilter, {kUsage, kHelp, kAll, kDi, kEdt, kVrt}, {}, 2},
      {"one byte shows only -ALL", kOnlyAll, {kAll}, {kUsage, kHelp, kDi, kEdt, kVrt}, 0},
      {"rows without a bit never show", kEverything, {kHelp, kAll, kEdt}, {kUsage, kDi, kVrt}, 2},
      {"an empty table leaves only the closing line", kEmpty, {}, {kUsage, kHelp, kAll, kDi, kEdt, kVrt}, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Start(row.filter, "abcdef");
    DisplayUsage(DialogKey);
    std::string console = NewConsole();
    for (const auto& text : row.shown) EXPECT_NE(console.find("\r         " + text), std::string::npos) << text;
    for (const auto& text : row.hidden) EXPECT_EQ(console.find(text), std::string::npos) << text;
    EXPECT_EQ(bed::CountOf(console, "\r\n Press a key to continue"), row.pages) << console;
    if (row.shown.empty()) EXPECT_EQ(console, "\r\n");
  }
}

TEST_F(CommandFilter, PagerBreaksBeforeTheRowThatWouldFillTheScreen) {
  Start(kNoFilter, "xy");
  DisplayUsage(DialogKey);
  std::string console = NewConsole();
  size_t first = console.find("Press a key to continue");
  size_t second = console.find("Press a key to continue", first + 1);
  ASSERT_NE(second, std::string::npos) << console;
  // Rows up to -ECP fill 20 lines; the 14 lines of -EDT go to the next screen, and -G to a third.
  EXPECT_LT(console.find("-ECP "), first);
  EXPECT_GT(console.find("-EDT#@"), first);
  EXPECT_LT(console.find("-FV "), second);
  EXPECT_GT(console.find("-G "), second);
}

}  // namespace
