// The capsule run on a simulated 4 MB machine: the image, EC image and settings come from the
// driver's own slots (or the variable a shell run left), and what the user sees, the firmware
// hears and the flash holds afterwards is checked step by step.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "config/Config.h"
#include "frame/FrameInternal.h"
#include "image/Image.h"
#include "support/DriverBed.h"

namespace {

constexpr const char* kMachine = R"({
  "status": %STATUS%,
  "flash": {"size": "0x400000", "size_index": 6, "blocks": [{"size": "0x1000", "count": "0x400"}]},
  "maps": {"protection": [{"type": "0x06", "address": "0xFFE00000", "size": "0x10000"}], "private": [],
           "whole": [{"type": "0x06", "address": "0xFFE00000", "size": "0x10000", "attribute": 0},
                     {"type": "0x03", "address": "0xFFE90000", "size": "0x170000", "attribute": 0}]}
  %EXTRA%
})";
constexpr uint32_t kChanged = 0x300000;  // a byte of the BIOS region the new image changes
constexpr uint32_t kProtected = 0x200000;  // the protected 64 KB at 0xFFE00000
constexpr const char* kCompleted = "\n                           Update Progress: Completed\r\n";

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

// The driver's own slots, filled as the packing step fills them, and emptied again afterwards.
class CapsuleRun : public bed::DriverBed {
 protected:
  void SetUp() override {}
  void TearDown() override {
    for (OwnSlot slot : {OwnSlot::BiosImage, OwnSlot::Ini, OwnSlot::Ec}) Fill(slot, {});
    bed::DriverBed::TearDown();
  }
  static void Fill(OwnSlot slot, const std::vector<uint8_t>& data) {
    UINT8* tag = const_cast<UINT8*>(OwnSlotTag(slot));
    WriteU32(tag + 20, (UINT32)data.size());
    if (!data.empty()) std::memcpy(tag + 24, data.data(), data.size());
  }
  // Installs the machine and a new image (the machine's own content with kChanged and the
  // protected range altered) in the BIOSIMG slot.
  void Start(const std::string& status, const std::string& extra, const std::string& ini, const std::string& keys = "") {
    bed::BedSetup setup;
    setup.machineJson = Replace(Replace(kMachine, "%STATUS%", status), "%EXTRA%", extra);
    setup.keys = keys;
    Install(setup);
    image_ = Simulator().Flash();
    image_[kChanged] ^= 0x5A;
    image_[kProtected + 0x100] ^= 0x5A;
    Fill(OwnSlot::BiosImage, image_);
    Fill(OwnSlot::Ini, bed::Bytes("[Log_file]\r\nFlag=1\r\nLevel=4\r\n" + ini));
    StartDriver();
  }
  std::vector<uint8_t> image_;
};

TEST_F(CapsuleRun, RunsToItsEndInItsOrder) {
  struct Row {
    const char* what;
    std::string status;
    std::string extra;
    std::string ini;
    std::string keys;
    bool result;
    bool flashed;                          // kChanged holds the new byte afterwards
    std::vector<std::string> console;      // in this order
    std::vector<std::string> log;          // in this order; the last closes the log
    std::vector<uint8_t> firstCalls;       // of the functions after 13h: 19h, 10h... in order
  } rows[] = {
      {"a capsule run writes the image, keeps the protected range, then pauses after the completion line",
       R"({"ac": 1})", "", "[FlashComplete]\r\nPause=1\r\n", "x", true, true,
       {"Loading New BIOS Image File: Done\r\n", "\r\n", kCompleted, "Press any key to continue..."},
       {"===> UefiFlashMain [", "===> InitialIniStructure [", "<=== GetCfg_Secure\r\n", "<=== EfiUpdate_extra (No EC)\r\n",
        "<=== UefiFlashMain\r\n"},
       {0x19, 0x1A}},
      {"no AC: the power check refuses", R"({"ac": 0, "dc": "0x10"})", "", "", "", false, false,
       {}, {"<=== UefiFlashMain (Power check failed)\r\n"}, {0x19}},
      {"this vendor's firmware checks the power itself", R"({"ac": 0, "dc": "0x10", "vendor_id": "0x1028"})", "",
       "", "", true, true, {kCompleted}, {"<=== EfiUpdate_extra (No EC)\r\n", "<=== UefiFlashMain\r\n"}, {0x19, 0x1A}},
      {"no 49h with Restore=1: the BIOS is new and the run still stops after the message and a key",
       R"({"ac": 1})", R"(, "unsupported": ["49h"])", "[FactoryCopy]\r\nRestore=1\r\n", "k", false, true,
       {"Flash process will be terminated!\r\nRestoring factory copy failed.\r\n",
        "Press any key to end flash process.\r\n"},
       {"===> FuncOblis_49h [", "<=== Oblis_49h (BIOS return not success)\r\n", "<=== UefiFlashMain\r\n"}, {0x19, 0x1A}},
      {"an image without the BVDT map, with UseBvdtRomMap=1", R"({"ac": 1})", "",
       "[ForceFlash]\r\nUseBvdtRomMap=1\r\n", "k", false, false,
       {"\r\n", "Error: Get BVDT ROM map failed\r\n"}, {"<=== UefiFlashMain (Get BVDT ROM map filed)\r\n"}, {0x19}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start(row.status, row.extra, row.ini, row.keys);
    EXPECT_EQ(UefiFlashMain(), row.result);
    const std::vector<uint8_t>& flash = Simulator().Flash();
    EXPECT_EQ(flash[kChanged] == image_[kChanged], row.flashed);
    EXPECT_NE(flash[kProtected + 0x100], image_[kProtected + 0x100]) << "the protected range is kept";
    size_t at = 0;
    for (const std::string& piece : row.console) {
      at = Console().find(piece, at);
      ASSERT_NE(at, std::string::npos) << piece << "\n--- console:\n" << Console();
    }
    at = 0;
    for (const std::string& piece : row.log) {
      at = Log().find(piece, at);
      ASSERT_NE(at, std::string::npos) << piece << "\n--- log:\n" << Log();
    }
    EXPECT_EQ(at + row.log.back().size(), Log().size()) << "the main's close is the last line";
    std::vector<uint8_t> calls = Simulator().CallLog();
    auto after13h = std::find(calls.begin(), calls.end(), 0x13);
    ASSERT_NE(after13h, calls.end());
    std::vector<uint8_t> next(after13h + 1, std::min(calls.end(), after13h + 1 + (long)row.firstCalls.size()));
    EXPECT_EQ(next, row.firstCalls);
  }
}

// The EC image of the driver's own slot: its size is put to the firmware before the BIOS is
// written, and the EC goes after the BIOS as [UpdateEC] Progress_Bar says.
TEST_F(CapsuleRun, CarriedEcGoesAfterTheBios) {
  struct Row {
    const char* what;
    std::string status;
    std::string ini;
    uint32_t ecSize;
    bool result;
    bool flashed;
    size_t calls20h;
    size_t calls16h;  // reports of the run's end before the launcher's own
    std::string log;
  } rows[] = {
      {"block by block", R"({"ac": 1})", "", 0x20000, true, true, 2, 0, " Update EC block by block\r\n"},
      {"in one block", R"({"ac": 1})", "[UpdateEC]\r\nProgress_Bar=0\r\n", 0x20000, true, true, 1, 0,
       " Update EC in single block\r\n"},
      {"an EC larger than the firmware's", R"({"ac": 1})", "", 0x30000, false, false, 0, 0,
       "size |NOT| match with current(192K/128K)\r\n"},
      {"this vendor hears of the end before the EC", R"({"ac": 1, "vendor_id": "0x1025"})", "", 0, true, true, 0, 1,
       "<=== EfiUpdate_extra (No EC)\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start(row.status, "", row.ini);
    std::vector<uint8_t> ec(row.ecSize);
    for (size_t i = 0; i < ec.size(); ++i) ec[i] = static_cast<uint8_t>(i * 7 + i / 4096);
    Fill(OwnSlot::Ec, ec);
    const std::vector<uint8_t> ecBefore = Simulator().Ec();
    EXPECT_EQ(UefiFlashMain(), row.result);
    EXPECT_EQ(Simulator().Flash()[kChanged] == image_[kChanged], row.flashed);
    const std::vector<uint8_t>& calls = Simulator().CallLog();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), 0x20), (long)row.calls20h);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), 0x16), (long)row.calls16h);
    if (row.calls20h != 0) {
      EXPECT_TRUE(Simulator().Ec() == ec) << "the EC holds the carried image";
      EXPECT_NE(Console().find("Loading EC Image File: Done\r\n"), std::string::npos);
    } else {
      EXPECT_TRUE(Simulator().Ec() == ecBefore);
    }
    EXPECT_NE(Log().find(row.log), std::string::npos) << Log();
  }
}

// A shell run leaves its settings in a variable; the capsule run takes them once and removes
// them, so the next run falls back to the driver's own INI slot.
TEST_F(CapsuleRun, SettingsFromTheVariableAreTakenOnce) {
  Start(R"({"ac": 1})", "", "[FlashComplete]\r\nPause=0\r\n", "k");
  const std::string shellSettings = "[FlashComplete]\r\nPause=1\r\n";
  SaveCfg_Variable(shellSettings.c_str(), (UINT32)shellSettings.size());
  EXPECT_TRUE(UefiFlashMain());
  EXPECT_NE(Console().find("Press any key to continue..."), std::string::npos) << "the variable's Pause=1";
  EXPECT_EQ(Log().find("Reference configure from capsule"), std::string::npos);
  EFI_GUID guid = {0x382AF2BB, 0xFFFF, 0xABCD, {0xAA, 0xEE, 0xCC, 0xE0, 0x99, 0x33, 0x88, 0x77}};
  UINTN size = 0;
  EXPECT_EQ(gRT->GetVariable(const_cast<CHAR16*>(u"FlashINISettings"), &guid, nullptr, &size, nullptr), EFI_NOT_FOUND);
}

// Slots the packing step left unusable stop the run before anything is written.
TEST_F(CapsuleRun, UnusableSlotsAreRefusedBeforeAnyWrite) {
  struct Row {
    const char* what;
    OwnSlot slot;
    uint32_t size;
    std::string message;
  } rows[] = {
      {"empty image slot", OwnSlot::BiosImage, 0, "Error: The BIOS image slot of this capsule holds 0x0 bytes (capacity 0x500000).\r\n"},
      {"EC size past its slot", OwnSlot::Ec, 0x200001, "Error: The EC image slot of this capsule holds 0x200001 bytes (capacity 0x200000).\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start(R"({"ac": 1})", "", "");
    WriteU32(const_cast<UINT8*>(OwnSlotTag(row.slot)) + 20, row.size);
    EXPECT_FALSE(UefiFlashMain());
    EXPECT_NE(Console().find(row.message), std::string::npos) << Console();
    EXPECT_EQ(Simulator().Counters().written, 0u);
  }
}

}  // namespace
