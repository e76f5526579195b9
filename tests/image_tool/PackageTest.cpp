// Packages as the packing tool writes them and the driver reads them back: the image the rules
// choose, the settings, the arguments a package permits, and packages cut short or pointing
// outside themselves.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "config/ConfigInternal.h"
#include "image/Image.h"
#include "support/DriverBed.h"
#include "zaprom-image/ZaPromImage.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Damage = std::function<void(Bytes&)>;

zimage::PackageSpec Spec(std::optional<std::string> ini = std::nullopt, std::string permitted = "-dbg /r") {
  zimage::PackageSpec spec{bed::Bytes("MZ shell host"), {}, ini, "-n", permitted, {{"me.bin", bed::Bytes("ME")}}};
  for (int i = 0; i < 3; ++i) spec.images.push_back({"img" + std::to_string(i) + ".fd", Bytes(40 + i, uint8_t('A' + i))});
  return spec;
}

// The listing reads back what the packing wrote; what does not fit is refused, naming the item.
TEST(PackageTool, ListsBackWhatItPackedAndRefusesWhatDoesNotFit) {
  const zimage::PackageSpec spec = Spec("[MULTI_FD]\r\nFlag=1\r\n");
  const Bytes package = zimage::BuildPackage(spec);
  const zimage::PackageInfo info = zimage::InspectPackage(package);
  EXPECT_EQ(info.defaultArguments + "|" + info.permittedOptions + "|" + info.ini.value_or("?"), "-n|-dbg /r|" + *spec.ini);
  EXPECT_EQ(info.biosCount, 3);
  std::vector<std::pair<std::string, Bytes>> packed, expected = {{"", spec.images[0].data}};
  for (const zimage::PackageRecord& r : info.records)
    if (r.marker != "#INI_PACK" && r.marker != "#EXT_PACK" && r.fault.empty())
      packed.push_back({r.name, Bytes(&package[r.offset + r.dataOffset], &package[r.offset + r.dataOffset] + r.dataSize)});
  for (size_t i = 1; i < 3; ++i) expected.push_back({spec.images[i].name, spec.images[i].data});
  expected.push_back({"me.bin", bed::Bytes("ME")});
  EXPECT_EQ(packed, expected);
  const std::pair<std::function<void(zimage::PackageSpec&)>, std::string> refusals[] = {
      {[](auto& s) { s.defaultArguments = std::string(49, 'a'); }, "\" has 49 characters; its field holds 48"},
      {[](auto& s) { s.permittedOptions = std::string(256, '-'); }, "the permitted options"},
      {[](auto& s) { s.images.resize(101, s.images[1]); }, "at most 100 images (the first and 99 further); 101 were given"},
      {[](auto& s) { s.images[1].name = std::string(64, 'n'); }, "image 2 name"},
      {[](auto& s) { s.resources[0].name = std::string(48, 'r'); }, "resource \"" + std::string(48, 'r') + "\" name"},
      {[](auto& s) { s.application = zimage::BuildPackage(Spec()); }, "the application holds a record marker at 0xD"},
      {[](auto& s) { s.images[0].data = bed::Bytes("x$EXT_PACK"); }, "image \"img0.fd\" holds a record marker at 0x"},
  };
  for (const auto& [change, message] : refusals) {
    zimage::PackageSpec bad = Spec();
    change(bad);
    try {
      zimage::BuildPackage(bad);
      ADD_FAILURE() << "packed: " << message;
    } catch (const zimage::ImageError& e) {
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
    }
  }
}

class Package : public bed::DriverBed {
 protected:
  // The package becomes the application the shell started, and the rule FD#01 names chosen.
  void Start(Bytes package, const std::string& chosen = "", const Damage& damage = nullptr,
             std::vector<std::u16string> arguments = {u"fs0:PKG"}) {
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[MULTI_FD]\nFlag=1\nFD#01=IO,,,," + chosen + "\n", true);
    if (!chosen.empty()) ASSERT_TRUE(IsCondi_match());
    if (damage) damage(package);
    PutFile("PKG.efi", package);
    SetArguments(arguments);
    SetApplication(arguments[0].c_str());
    ASSERT_TRUE(SetPackageStatus());
  }
  // A byte of a record, counted from its marker ("$" and the text given): 0 breaks the marker.
  static Damage Patch(const std::string& marker, size_t field, uint8_t value) {
    return [=](Bytes& p) { p[std::search(p.begin(), p.end(), marker.begin(), marker.end()) - p.begin() - 1 + field] = value; };
  }
  Bytes Load() {
    UINT8* image = nullptr;
    UINT32 size = 0;
    Bytes loaded = LoadPackageFD(&image, &size) ? Bytes(image, image + size) : bed::Bytes("(false)");
    FreePoolAndNull(image);
    return loaded;
  }
};

TEST_F(Package, TheRulesChooseTheImageByNameAndARecordOutsideTheFileEndsTheLoad) {
  const struct {
    const char* what;
    std::string chosen;
    Damage damage;
    int image;  // -1: none
    std::string trace;
  } rows[] = {
      {"no rule held", "", nullptr, 0, "BiosCount - 3\r\n1st\r\n"},
      {"the first image's own name", "IMG0.fd", nullptr, 0, "1st\r\n"},
      {"a later image, letters in another case", "IMG2.FD", nullptr, 2, "#ROM_P02_ - img2.fd\r\nNOT 1st\r\n"},
      {"a gap in the numbers is passed over", "img2.fd", Patch("ROM_P01_", 0, 'X'), 2, "NOT 1st\r\n"},
      {"no record of that name", "none.fd", nullptr, -1, "#ROM_P02_ - img2.fd\r\nNO match\r\n"},
      {"no image list: the first image", "img2.fd", Patch("EXT_PACK", 0, 'X'), 0, "#EXT_PACK NOT found\r\n"},
      {"a data offset past the end", "img2.fd", Patch("ROM_P02_", 12, 0x7F), -1, "#ROM_P02_ record at 0x"},
      {"a size past the end", "", Patch("ROM_PACK", 16, 0x80), -1, "#ROM_PACK record at 0xD: data 0x142, 0x80000028"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Install(Layout());
    Start(zimage::BuildPackage(Spec()), row.chosen, row.damage);
    EXPECT_EQ(Load(), row.image >= 0 ? Spec().images[row.image].data : bed::Bytes("(false)"));
    EXPECT_NE(Log().find(row.trace), std::string::npos) << Log();
  }
}

TEST_F(Package, SettingsAreUnscrambledEvenWithoutAPackage) {
  Start(zimage::BuildPackage(Spec("\x81\xE1[x]")), "", Patch("ROM_PACK", 0, 'X'));
  EXPECT_FALSE(IsPackageMode());
  const UINT8* ini = nullptr;
  UINT32 size = 0;
  ASSERT_TRUE(GetPackedIni(&ini, &size));
  EXPECT_EQ(std::string(ini, ini + size), "\x81\xE1[x]");
}

// Every user argument must stand in the permitted list; the package's defaults come behind them.
TEST_F(Package, ThePermittedListJudgesTheUsersArgumentsAndNotTheDefaults) {
  const struct {
    std::vector<std::u16string> arguments;
    std::string permitted;
    std::u16string outcome;  // the option text and -extrFD's directory
    std::string console;     // empty: accepted
  } rows[] = {
      {{u"PKG"}, "", u" -n|", ""},
      {{u"PKG", u"-R", u"/dbg"}, "-dbg /r", u" -R /dbg -n|", ""},
      {{u"PKG", u"-s"}, "-dbg /r", u"|", "Error command: -s (Not supports on current package)\r\n"},
      {{u"PKG", u"-g"}, "", u"|", "Error command: -g (Not supports on current package)\r\n"},
      {{u"PKG", u"/extrfd", u"xdir\\"}, "-extrFD -dir\\", u" /extrfd -n|xdir", ""},
  };
  for (const auto& row : rows) {
    Install(Layout());
    Start(zimage::BuildPackage(Spec(std::nullopt, row.permitted)), "", nullptr, row.arguments);
    CHAR16 imageName[kImageNameCharacters] = {}, commandText[kCommandTextCharacters] = {};
    EXPECT_EQ(ParseCommandLine(imageName, commandText), row.console.empty()) << row.permitted;
    EXPECT_EQ(std::u16string(commandText) + u"|" + ExtractDirectory(), row.outcome);
    EXPECT_EQ(imageName[0], 0);
    EXPECT_EQ(Console(), row.console);
  }
}

// A package cut at a record's first byte or inside its head or data never hands out bytes that
// are not one of its images, and never writes past a pool block.
TEST_F(Package, APackageCutShortIsRefusedWithoutReadingPastItsEnd) {
  const Bytes whole = zimage::BuildPackage(Spec("[x]"));
  std::vector<size_t> cuts;
  for (const zimage::PackageRecord& record : zimage::InspectPackage(whole).records)
    for (size_t at : {record.offset, record.offset + 9, record.offset + 15, record.offset + record.dataOffset + 1})
      if (at < whole.size()) cuts.push_back(at);
  ASSERT_GE(cuts.size(), 20u);
  for (size_t cut : cuts) {
    SCOPED_TRACE(cut);
    Install(Layout());
    Start(Bytes(whole.begin(), whole.begin() + cut), "img2.fd");
    const Bytes loaded = Load();
    EXPECT_TRUE(loaded == bed::Bytes("(false)") || loaded == Spec().images[0].data || loaded == Spec().images[2].data);
    GetResourceFile("me.bin");
    EXPECT_EQ(Environment().PoolOverruns(), 0u);
  }
}

}  // namespace
