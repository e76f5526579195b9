// Packages as the packing tool writes them and the driver reads them back: the image the rules
// choose, the settings, the packed files, the arguments a package permits, and packages cut
// short or pointing outside themselves.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>

#include "config/ConfigInternal.h"
#include "image/Image.h"
#include "support/DriverBed.h"
#include "zaprom-image/ZaPromImage.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Damage = std::function<void(Bytes&)>;

zimage::PackageSpec Spec(std::optional<std::string> ini = std::nullopt) {
  zimage::PackageSpec spec{bed::Bytes("MZ shell host"), {}, ini, "-n", "-dbg /r", {}};
  for (int i = 0; i < 3; ++i) spec.images.push_back({"img" + std::to_string(i) + ".fd", Bytes(40 + i, uint8_t('A' + i))});
  spec.resources = {{"FwUpdLcl.efi", bed::Bytes("stale"), 0x1234}, {"me.bin", bed::Bytes("ME")},
                    {"fwupdlcl.EFI", bed::Bytes("tool")}};
  return spec;
}

// The listing reads back what the packing wrote; what does not fit is refused, naming the item.
TEST(PackageTool, ListsBackWhatItPackedAndRefusesWhatDoesNotFit) {
  const zimage::PackageSpec spec = Spec("[MULTI_FD]\r\nFlag=1\r\n");
  const Bytes package = zimage::BuildPackage(spec);
  const zimage::PackageInfo info = zimage::InspectPackage(package);
  EXPECT_EQ(info.defaultArguments + "|" + info.permittedOptions + "|" + info.ini.value_or("?"), "-n|-dbg /r|" + *spec.ini);
  EXPECT_EQ(info.biosCount, 3);
  std::vector<std::pair<std::string, Bytes>> packed;
  for (const zimage::PackageRecord& r : info.records) {
    EXPECT_EQ(r.fault, "") << r.marker;
    if (r.marker != "#INI_PACK" && r.marker != "#EXT_PACK")
      packed.push_back({r.name, Bytes(package.begin() + r.offset + r.dataOffset, package.begin() + r.offset + r.dataOffset + r.dataSize)});
  }
  std::vector<std::pair<std::string, Bytes>> expected = {{"", spec.images[0].data}};
  for (size_t i = 1; i < spec.images.size(); ++i) expected.push_back({spec.images[i].name, spec.images[i].data});
  for (const zimage::PackageFile& f : spec.resources) expected.push_back({f.name, f.data});
  EXPECT_EQ(packed, expected);

  const struct {
    std::function<void(zimage::PackageSpec&)> change;
    std::string message;
  } refusals[] = {
      {[](auto& s) { s.defaultArguments = std::string(49, 'a'); }, "the default arguments \"" + std::string(49, 'a') + "\" has 49 characters; its field holds 48"},
      {[](auto& s) { s.permittedOptions = std::string(256, '-'); }, "the permitted options"},
      {[](auto& s) { s.images.resize(101, s.images[1]); }, "at most 100 images (the first and 99 further); 101 were given"},
      {[](auto& s) { s.images[1].name = std::string(64, 'n'); }, "image 2 name"},
      {[](auto& s) { s.resources[1].name = std::string(48, 'r'); }, "resource \"" + std::string(48, 'r') + "\" name"},
      {[](auto& s) { s.application = zimage::BuildPackage(Spec()); }, "the application is a package already"},
      {[](auto& s) { s.images[1].data = bed::Bytes("x$EXT_PACK"); }, "image \"img1.fd\" holds a record marker at 0x"},
  };
  for (const auto& refusal : refusals) {
    zimage::PackageSpec bad = Spec();
    refusal.change(bad);
    try {
      zimage::BuildPackage(bad);
      ADD_FAILURE() << "packed: " << refusal.message;
    } catch (const zimage::ImageError& e) {
      EXPECT_NE(std::string(e.what()).find(refusal.message), std::string::npos) << e.what();
    }
  }
}

class Package : public bed::DriverBed {
 protected:
  // The package becomes the application the shell started; the driver looks at it.
  void Start(Bytes package, const Damage& damage = nullptr, std::vector<std::u16string> arguments = {u"fs0:PKG"}) {
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
  static Damage Break(const std::string& marker) { return Patch(marker, 0, 'X'); }
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
      {"a gap in the numbers is passed over", "img2.fd", Break("ROM_P01_"), 2, "NOT 1st\r\n"},
      {"no record of that name", "none.fd", nullptr, -1, "#ROM_P02_ - img2.fd\r\nNO match\r\n"},
      {"no image list: the first image", "img2.fd", Break("EXT_PACK"), 0, "#EXT_PACK NOT found\r\n"},
      {"a data offset past the end", "img2.fd", Patch("ROM_P02_", 12, 0x7F), -1, "#ROM_P02_ record at 0x"},
      {"a size past the end", "", Patch("ROM_PACK", 16, 0x80), -1, "#ROM_PACK record at 0xD: data 0x142, 0x80000028"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Install(Layout());
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[MULTI_FD]\nFlag=1\nFD#01=IO,,,," + row.chosen + "\n", true);
    if (!row.chosen.empty()) ASSERT_TRUE(IsCondi_match());
    Start(zimage::BuildPackage(Spec()), row.damage);
    UINT8* image = nullptr;
    UINT32 size = 0;
    EXPECT_EQ(LoadPackageFD(&image, &size), row.image >= 0);
    const Bytes expected = row.image >= 0 ? Spec().images[row.image].data : Bytes();
    EXPECT_EQ(Bytes(image, image + size), expected);
    FreePoolAndNull(image);
    EXPECT_NE(Log().find(row.trace), std::string::npos) << Log();
  }
}

TEST_F(Package, SettingsAreUnscrambledEvenWithoutAPackage) {
  Start(zimage::BuildPackage(Spec("\x81\xE1[x]")), Break("ROM_PACK"));
  EXPECT_FALSE(IsPackageMode());
  const UINT8* ini = nullptr;
  UINT32 size = 0;
  ASSERT_TRUE(GetPackedIni(&ini, &size));
  EXPECT_EQ(std::string(ini, ini + size), "\x81\xE1[x]");
  EXPECT_NE(Log().find("===== INI PACK Info =====\r\n0000:  24 49 4E 49 5F 50 41 43-4B 11 00 00 00 05 00 00"),
            std::string::npos) << Log();
}

TEST_F(Package, AResourceWithABadVerifyCodeGivesWayToALaterOneOfTheSameName) {
  Start(zimage::BuildPackage(Spec()));
  EXPECT_TRUE(GetResourceFile("FwUpdLcl.efi"));
  EXPECT_EQ(ReadVolumeFile("fwupdlcl.EFI"), "tool");
  const std::string log = Log();
  const size_t verify = log.find("Verify code fail. (0x1234)\r\n");
  const size_t other = log.find("not matched. (2)(FwUpdLcl.efi/me.bin)\r\n", verify);
  EXPECT_NE(log.find("resource file saved. (fwupdlcl.EFI)\r\n", other), std::string::npos) << log;
  EXPECT_FALSE(GetResourceFile("absent.bin"));
  EXPECT_NE(Log().find("resource not found. (absent.bin)\r\n"), std::string::npos);
}

// Every user argument must stand in the permitted list; the package's defaults come behind them.
TEST_F(Package, ThePermittedListJudgesTheUsersArgumentsAndNotTheDefaults) {
  const struct {
    std::vector<std::u16string> arguments;
    std::string permitted;
    bool result;
    std::u16string commandText;
    std::string console;
    std::u16string extractDirectory;
  } rows[] = {
      {{u"PKG"}, "", true, u" -n", "", u""},
      {{u"PKG", u"-R", u"/dbg"}, "-dbg /r", true, u" -R /dbg -n", "", u""},
      {{u"PKG", u"-s"}, "-dbg /r", false, u"", "Error command: -s (Not supports on current package)\r\n", u""},
      {{u"PKG", u"-g"}, "", false, u"", "Error command: -g (Not supports on current package)\r\n", u""},
      {{u"PKG", u"/extrfd", u"xdir\\"}, "-extrFD -dir\\", true, u" /extrfd -n", "", u"xdir"},
      {{u"fs0:PKG", u"-extrFD", u"-r"}, "-extrfd -r", true, u" -extrFD -r -n", "", u"\\PKG_FD"},
  };
  for (const auto& row : rows) {
    Install(Layout());
    zimage::PackageSpec spec = Spec();
    spec.permittedOptions = row.permitted;
    Start(zimage::BuildPackage(spec), nullptr, row.arguments);
    CHAR16 imageName[kImageNameCharacters] = {};
    CHAR16 commandText[kCommandTextCharacters] = {};
    EXPECT_EQ(ParseCommandLine(imageName, commandText), row.result) << row.permitted;
    EXPECT_EQ(std::u16string(commandText), row.commandText);
    EXPECT_EQ(imageName[0], 0);
    EXPECT_EQ(Console(), row.console);
    EXPECT_EQ(std::u16string(ExtractDirectory()), row.extractDirectory);
    EXPECT_EQ(Flags()->extrFD, !row.extractDirectory.empty());
  }
}

// A package cut anywhere, at a record's first byte or inside its head or data, never hands out
// bytes that are not an image of the package, and never reads or writes past a pool block.
TEST_F(Package, APackageCutShortIsRefusedWithoutReadingPastItsEnd) {
  const Bytes whole = zimage::BuildPackage(Spec("[x]"));
  std::vector<size_t> cuts;
  for (const zimage::PackageRecord& record : zimage::InspectPackage(whole).records)
    for (size_t at : {record.offset, record.offset + 9, record.offset + 15, record.offset + record.dataOffset + 1})
      if (at < whole.size()) cuts.push_back(at);
  ASSERT_GE(cuts.size(), 28u);
  for (size_t cut : cuts) {
    SCOPED_TRACE(cut);
    Install(Layout());
    LoadSettings("[MULTI_FD]\nFlag=1\nFD#01=IO,,,,img2.fd\n", true);
    IsCondi_match();
    Start(Bytes(whole.begin(), whole.begin() + cut));
    UINT8* image = nullptr;
    UINT32 size = 0;
    if (LoadPackageFD(&image, &size)) EXPECT_TRUE(Bytes(image, image + size) == Spec().images[0].data ||
                                                  Bytes(image, image + size) == Spec().images[2].data);
    FreePoolAndNull(image);
    GetResourceFile("me.bin");
    EXPECT_EQ(Environment().PoolOverruns(), 0u);
  }
}

}  // namespace
