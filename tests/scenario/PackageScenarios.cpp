// A package started with no image name, as a service technician starts it: the image the
// machine's [MULTI_FD] rules choose, the permitted list and the default arguments, -extrFD, and
// the ME tool unpacked and run before the BIOS write.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "SimRun.h"
#include "ZaPromImage.h"

namespace {

// Three images of the default machine, each with another DXE byte and a newer version.
zimage::PackageSpec ThreeImages(const std::string& ini) {
  zimage::PackageSpec spec{Bytes(64, 'M'), {}, ini, "-n", "-dbg -extrfd -dir\\", {}};
  for (uint8_t i = 0; i < 3; ++i) {
    Bytes image = DefaultFlash();
    image[kDxeByte] ^= uint8_t(i + 1);
    std::copy_n("V1.03", 5, image.begin() + kDefaultBvdt + 0x0E);
    spec.images.push_back({"board" + std::to_string(i) + ".fd", image});
  }
  return spec;
}

TEST(PackageScenarios, APackageFlashesTheImageItsRulesChooseWithItsOwnSettings) {
  const char* board = R"({"io_ports": {"0xC0": {"value": "0x5AABFE02", "width": 4}}})";
  const std::string rules = "[MULTI_FD]\r\nFlag=1\r\nFD#01=IO,C0,FF,07,board1.fd\r\nFD#02=IO,C0,FF,02,BOARD2.FD\r\n";
  const struct {
    const char* what;
    std::string ini;
    std::vector<std::string> arguments;
    std::function<void(zimage::PackageSpec&)> change;
    int flashed;  // the image whose DXE byte the flash holds afterwards; -1: the flash unchanged
    std::vector<std::string> console, log;
    std::string broken;  // a marker whose '$' is gone
    std::vector<std::pair<std::string, int>> files;  // on the volume afterwards: which image, -1 none
  } rows[] = {
      {"the second rule holds; -n comes from the package", rules, {"/DBG", ""}, nullptr, 2, {"Update Progress: Completed"},
       {"Command -n\r\n", "ref. configure | ext|\r\n", "MultiFD match filename [BOARD2.FD]\r\n", "NOT 1st\r\n"}},
      {"no rule holds", "[MULTI_FD]\r\nFlag=1\r\nFD#01=IO,C0,FF,07,board1.fd\r\n", {}, nullptr, -1,
       {"No match file in Multi-FD.\r\n"}, {}},
      {"an option the maker did not permit", rules, {"-n"}, nullptr, -1,
       {"Error command: -n (Not supports on current package)"}, {}},
      {"the ME tool is unpacked and run first", rules + "[UpdateOEMME]\r\nMEFileName=me.bin\r\n", {"-dbg"},
       [](auto& s) { s.resources = {{"FWUPDLCL.EFI", Bytes(8, 'X'), 0x1234}, {"me.bin", Bytes(4, 'E')}, {"FwUpdLcl.efi", Bytes(8, 'T')}}; },
       2, {}, {"Verify code fail. (0x1234)", "not matched. (2)(FwUpdLcl.efi/me.bin)", "resource file saved. (FwUpdLcl.efi)",
        "resource file saved. (me.bin)", " Update ME Script: (FwUpdLcl.efi -f me.bin )",
        "<=== UpdateOemME", "Oblis_15h(->)"}},
      {"-extrFD into a directory", "", {"/EXTRFD", "xdir\\"}, nullptr, -1,
       {"extracts to... xdir\\board0.fd\r\n", "extracts to... xdir\\board2.fd\r\n"}, {}, "",
       {{"xdir/board1.fd", 1}, {"xdir/board2.fd", 2}}},
      {"-extrFD with an option behind it; a gap ends it", "", {"-extrFD", "-dbg"}, nullptr, -1,
       {"extracts to... .\\\\PKG_FD\\board0.fd\r\n"}, {"no more (#ROM_P01_)\r\n"}, "$ROM_P01_",
       {{"PKG_FD/board0.fd", 0}, {"PKG_FD/board2.fd", -1}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    zimage::PackageSpec spec = ThreeImages(row.ini);
    if (row.change) row.change(spec);
    Bytes package = zimage::BuildPackage(spec);
    if (!row.broken.empty())
      package[std::search(package.begin(), package.end(), row.broken.begin(), row.broken.end()) - package.begin()] = '#';
    SimRequest request{board, row.arguments, "PKG", "", DefaultFlash(), {}, {{"PKG.efi", Text(package)}}, {"FwUpdLcl.efi"}};
    for (const auto& [name, image] : row.files) request.readBack.push_back(name);
    const SimResult result = RunSim(request);
    EXPECT_EQ(result.exitCode, row.flashed >= 0 || !row.files.empty() ? 0 : 1) << result.console << result.errors;
    EXPECT_EQ(result.flash[kDxeByte], row.flashed >= 0 ? spec.images[row.flashed].data[kDxeByte] : DefaultFlash()[kDxeByte]);
    ExpectInOrder(result.console, row.console, "console");
    ExpectInOrder(result.log, row.log, "ZAPROM.Log");
    EXPECT_EQ(result.files.count("FwUpdLcl.efi"), 0u) << "the unpacked tool stays behind";
    for (const auto& [name, i] : row.files)
      EXPECT_EQ(result.files.count(name) ? result.files.at(name) : "-", i >= 0 ? Text(spec.images[i].data) : "-") << name;
  }
}

}  // namespace
