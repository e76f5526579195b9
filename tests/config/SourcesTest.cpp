// Where settings come from: the variable FlashINISettings (stored less some sections), the
// driver's own INI slot, and platform.ini beside the tool with the image.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "config/ConfigInternal.h"
#include "image/ImageInternal.h"
#include "support/DriverBed.h"

namespace {

using Sources = bed::QuietBed;

constexpr EFI_GUID kSettingsGuid = {0x382AF2BB, 0xFFFF, 0xABCD, {0xAA, 0xEE, 0xCC, 0xE0, 0x99, 0x33, 0x88, 0x77}};

std::string StoredVariable(emu::Environment& environment, bool* exists = nullptr) {
  std::vector<uint8_t> data;
  bool found = environment.ReadVariable(u"FlashINISettings", kSettingsGuid, data);
  if (exists != nullptr) *exists = found;
  return std::string(data.begin(), data.end());
}

TEST_F(Sources, SaveCfgVariableStoresAllButTheListedSections) {
  struct Row {
    const char* what;
    std::string text;
    bool stored;
    std::string content;
  };
  const std::string longSection = "[ui]\nelapse=1\nnote=" + std::string(900, 'n') + "\n";
  const std::vector<Row> rows = {
      {"listed prefixes go, in any case, a '[' in a value stays",
       "top=1\n[log_file]\nflag=1\n[option]\nx=1\n[commonflash]\nswitchstring=a[b]c\n[multi_fd_more]\nflag=1\n"
       "[returnerrorcode]\nfilenotfound=9\n[flashsecurebiosoverride]\naction=3\n[versionx]\n",
       true, "[log_file]\nflag=1\n[commonflash]\nswitchstring=a[b]c\n"},
      {"a text that opens with a header keeps all", "[a]\nk=1\n[b]\n", true, "[a]\nk=1\n[b]\n"},
      {"a section longer than 767 bytes is stored whole", longSection, true, longSection},
      {"only listed sections: nothing is stored", "[fdfile]\nname=x\n[PasswordCheck]\n", false, ""},
  };
  for (const Row& row : rows) {
    Install(Layout());
    SaveCfg_Variable(row.text.data(), static_cast<UINT32>(row.text.size()));
    bool exists = false;
    EXPECT_EQ(StoredVariable(Environment(), &exists), row.content) << row.what;
    EXPECT_EQ(exists, row.stored) << row.what;
  }
}

TEST_F(Sources, GetCfgSecureTakesTheDriversOwnIniSlot) {
  struct Row {
    const char* what;
    std::string ini;
    uint32_t sizeField;
    bool loaded;
    const char* console;
    INT32 action;
  };
  const std::vector<Row> rows = {
      {"empty slot", "", 0, false, "Error:\r\nSettings buffer is empty!\r\n", 2},
      {"a size beyond the slot is refused", "", 0x10001, false, "Error:\r\nSettings size 0x10001 exceeds its slot (0x10000)!\r\n", 2},
      {"settings read", "[FlashComplete]\nAction=1\n", 25, true, "", 1},
  };
  for (const Row& row : rows) {
    Install(Layout());
    InitialIniStructure();
    // The packing step's work: size field and data of the INI slot, put back afterwards since
    // the slot is part of the driver's image.
    UINT8* chain = const_cast<UINT8*>(DriverSlotChain());
    std::vector<UINT8> kept(chain + 0x700044, chain + 0x70005C + 32);
    WriteU32(chain + 0x700044 + 20, row.sizeField);
    std::memcpy(chain + 0x70005C, row.ini.data(), row.ini.size());
    EXPECT_EQ(GetCfg_Secure(), row.loaded) << row.what;
    EXPECT_EQ(Console(), row.console) << row.what;
    EXPECT_EQ(Settings()->flashComplete.action, row.action) << row.what;
    std::memcpy(chain + 0x700044, kept.data(), kept.size());
  }
}

TEST_F(Sources, LoadConfigurationReadsPlatformIniBesideTheTool) {
  struct Row {
    const char* what;
    std::string platformIni;  // empty: none
    std::string image;        // empty: none
    bool result;
    std::string variable;
    INT32 action;
    const char* console;
  };
  std::string secureImage(
      "\x24ISB\x33\x38\xA1\xDD\x42\xC3\xAE\x4E\xB5\xC9\xC2\xD7\xD6\x13\xDB\xB8", 20);
  const std::string ini = "[FlashComplete]\nAction=1\n";
  secureImage += "$_KOBALT_INI_IMG" + std::string("\x19\0\0\0\x19\0\0\0", 8) + ini;
  const std::vector<Row> rows = {
      {"platform.ini stored, image not looked at", "[FlashComplete]\nAction=0\n[Option]\nx=1\n", "", true,
       "[flashcomplete]\naction=0\n", 0, ""},
      {"legacy image, no platform.ini: start values", "", std::string(64, '\xFF'), true, "", 2, ""},
      {"secure image brings its settings", "", secureImage, true, "", 1, ""},
      {"no image file", "", "", false, "", 2, "the FD file not found. (image.fd)"},
  };
  for (const Row& row : rows) {
    Install(Layout());
    StartDriver();
    InitialIniStructure();
    if (!row.platformIni.empty()) PutFile("platform.ini", bed::Bytes(row.platformIni));
    if (!row.image.empty()) PutFile("image.fd", bed::Bytes(row.image));
    CHAR16 imageName[kImageNameCharacters] = u"image.fd";
    EXPECT_EQ(LoadConfiguration(imageName), row.result) << row.what;
    EXPECT_EQ(StoredVariable(Environment()), row.variable) << row.what;
    EXPECT_EQ(Settings()->flashComplete.action, row.action) << row.what;
    EXPECT_NE(Console().find(row.console), std::string::npos) << row.what << Console();
  }
}

}  // namespace
