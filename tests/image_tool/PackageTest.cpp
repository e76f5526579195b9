// Packages as the packing tool writes them and the driver reads them back: the image the rules
// choose, the settings, and packages cut short or pointing outside themselves.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "config/Config.h"
#include "image/Image.h"
#include "support/DriverBed.h"
#include "zaprom-image/ZaPromImage.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Damage = std::function<void(Bytes&)>;

zimage::PackageSpec Spec(std::optional<std::string> ini = std::nullopt) {
  zimage::PackageSpec spec{bed::Bytes("MZ shell host"), {}, ini, "-n", "-dbg /r", {{"me.bin", bed::Bytes("ME")}}};
  for (int i = 0; i < 3; ++i) spec.images.push_back({"zimg" + std::to_string(i) + ".fd", Bytes(40 + i, uint8_t('A' + i))});
  return spec;
}

// What does not fit its field, or would be read as a record, is refused, naming the item.
TEST(PackageTool, RefusesWhatDoesNotFitNamingTheItem) {
  const std::pair<std::function<void(zimage::PackageSpec&)>, std::string> refusals[] = {
      {[](auto& s) { s.defaultArguments = std::string(49, 'a'); }, "\" has 49 characters; its field holds 48"},
      {[](auto& s) { s.images.resize(101, s.images[1]); }, "at most 100 images (the first and 99 further); 101 were given"},
      {[](auto& s) { s.images[1].name = std::string(64, 'n'); }, "image 2 name"},
      {[](auto& s) { s.resources[0].name = std::string(48, 'r'); }, "resource \"" + std::string(48, 'r') + "\" name"},
      {[](auto& s) { s.application = zimage::BuildPackage(Spec()); }, "the application holds a record marker at 0xD"},
      {[](auto& s) { s.images[0].data = bed::Bytes("x$EXT_PACK"); }, "image \"zimg0.fd\" holds a record marker at 0x"},
  };
  for (const auto& [change, message] : refusals) {
    zimage::PackageSpec bad = Spec();
    change(bad);
    std::string refusal = "(packed)";
    try {
      zimage::BuildPackage(bad);
    } catch (const zimage::ImageError& e) {
      refusal = e.what();
    }
    EXPECT_NE(refusal.find(message), std::string::npos) << refusal;
  }
}

class Package : public bed::DriverBed {
 protected:
  // The package becomes the application the shell started, and the rule FD#01 names chosen.
  void Start(Bytes package, const std::string& chosen = "", const Damage& damage = nullptr) {
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[MULTI_FD]\nFlag=1\nFD#01=IO,,,," + chosen + "\n", true);
    if (!chosen.empty()) ASSERT_TRUE(IsCondi_match());
    if (damage) damage(package);
    PutFile("PKG.efi", package);
    SetApplication(u"fs0:PKG");
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
      {"the first image's own name", "ZIMG0.fd", nullptr, 0, "1st\r\n"},
      {"a later image, letters in another case", "ZIMG2.FD", nullptr, 2, "#ROM_P02_ - zimg2.fd\r\nNOT 1st\r\n"},
      {"a gap in the numbers is passed over", "zimg2.fd", Patch("ROM_P01_", 0, 'X'), 2, "NOT 1st\r\n"},
      {"no record of that name", "none.fd", nullptr, -1, "#ROM_P02_ - zimg2.fd\r\nNO match\r\n"},
      {"no image list: the first image", "zimg2.fd", Patch("EXT_PACK", 0, 'X'), 0, "#EXT_PACK NOT found\r\n"},
      {"a data offset past the end", "zimg2.fd", Patch("ROM_P02_", 12, 0x7F), -1, "#ROM_P02_ record at 0x"},
      {"a size past the end", "", Patch("ROM_PACK", 16, 0x80), -1, "#ROM_PACK record at 0xD: data 0x142, 0x80000028"},
      {"no package, only settings", "", Patch("ROM_PACK", 0, 'X'), -1, "#ROM_PACK NOT found\r\n"},
  };
  SetApplication(u"");
  EXPECT_EQ(std::u16string(ApplicationName()), u"") << "an empty argument 0 names no application";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Install(Layout());
    Start(zimage::BuildPackage(Spec("\x81\xE1[x]")), row.chosen, row.damage);
    EXPECT_EQ(Load(), row.image >= 0 ? Spec().images[row.image].data : bed::Bytes("(false)"));
    EXPECT_NE(Log().find(row.trace), std::string::npos) << Log();
    EXPECT_TRUE(GetResourceFile("ME.BIN") && ReadVolumeFile("me.bin") == "ME" && !GetResourceFile("absent.bin"));
    // The settings are unscrambled (03h gives 81h, C3h gives E1h) whether or not it is a package.
    const UINT8* ini = nullptr;
    UINT32 size = 0;
    EXPECT_TRUE(GetPackedIni(&ini, &size) && std::string(ini, ini + size) == "\x81\xE1[x]");
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
    Start(Bytes(whole.begin(), whole.begin() + cut), "zimg2.fd");
    const Bytes loaded = Load();
    EXPECT_TRUE(loaded == bed::Bytes("(false)") || loaded == Spec().images[0].data || loaded == Spec().images[2].data);
    GetResourceFile("me.bin");
    EXPECT_EQ(Environment().PoolOverruns(), 0u);
  }
}

}  // namespace
