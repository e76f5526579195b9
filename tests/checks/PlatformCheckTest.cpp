// Whether an image may go onto this machine: who decides that a check runs, the model against
// the platform's or the [Platform_Check] list, the version rules, every refusal text, the
// anti-theft marker, the firmware's say through 45h, the Dell box and dialogues, and the displays.
#include <string>
#include <vector>

#include "checks/ChecksBed.h"
#include "image/ImageInternal.h"

namespace {

using checks::Answer;
using checks::At;
using checks::Bytes;
using checks::Platform;

enum Marks { kAll = 0, kNoVersionMark = 1, kNoModelMark = 2, kNoBvdt = 4, kAntiTheft = 8, kSecure = 16 };

// An image with a BVDT block at 0x1000.
Bytes Img(const std::string& version, const std::string& model = "DV-REF1000", int marks = kAll) {
  Bytes image(0x2000, 0xFF);
  uint8_t* b = &image[0x1000];
  if (!(marks & kNoBvdt)) {
    std::fill(b, b + 0x66, 0);
    std::memcpy(b, "$BVDT$", 6);
    b[0x09] = b[0x40] = '$';
    b[0x0D] = marks & kNoVersionMark ? 0 : '$';
    std::memcpy(b + 0x0E, version.data(), std::min<size_t>(24, version.size()));
    b[0x26] = marks & kNoModelMark ? 0 : '$';
    std::memcpy(b + 0x27, model.data(), std::min<size_t>(25, model.size()));
  }
  if (marks & kAntiTheft) std::memcpy(&image[0x333], "pTA$", 4);
  if (marks & kSecure) std::memcpy(&image[0x200], "$ISB\x33\x38\xA1\xDD\x42\xC3\xAE\x4E\xB5\xC9\xC2\xD7\xD6\x13\xDB\xB8", 20);
  return image;
}

Platform Machine(uint8_t policy, std::u16string version = u"V1.02", uint16_t vendor = kVendorNone) {
  return {.vendor = vendor, .version = version, .policy = policy};
}

// A machine under anti-theft protection, valid and not enrolled: the image must carry the marker.
constexpr uint16_t kAtMachine = 0x1234;

std::string Narrow(const CHAR16* text) { return std::string(text, text + std::char_traits<char16_t>::length(text)); }

const char kMismatch[] = "Model name not match.\r\n";
const char kNoMatch[] = "No matched ID in [Platform_Check].\r\n";
const char kOlder[] = "The version of ROM file is not newer than current BIOS.\r\n";
const char kSame[] = "The version of ROM file is the same as current BIOS.\r\n";
// A list of three names with a version each; the second name is given.
std::string List(const std::string& second) {
  return "[Platform_Check]\nFlag=2\nPlatformName1=NB-7\nPlatformName2=" + second + "\nPlatformName3=NB-9\n"
         "[PlatformVersion]\nFlag=1\nVersion1=L1.00\nVersion2=L2.00\nVersion3=L3.00\n";
}
const std::string kFormat = "[BIOSVersionFormat]\nBIOSVFEnable=1\nVersionFormat=";

class PlatformCheck : public checks::ChecksBed {
 protected:
  void Start(const Platform& p, const std::string& ini, const std::vector<std::u16string>& options, const std::string& keys = "") {
    bed::BedSetup setup = Layout();
    setup.keys = keys;
    Install(setup);
    Boot(p);
    Ini(ini);
    ASSERT_TRUE(Options(options));
    answers[0x1C] = [antiTheft = p.vendor == kAtMachine](OblisRegisters& r) { r.ecx = antiTheft ? 0x80 : 0; };
    ASSERT_TRUE(FuncOblis_1Ch());
  }
  INT32 Check(const Bytes& image) {
    AnalyzeImage(image.data(), (UINT32)image.size());
    ReadImageBvdtInfo(image.data(), (UINT32)image.size());
    return Func_PlatformCheck(image.data(), (UINT32)image.size());
  }
  std::string Shown() const { return Narrow(NewImageModel()) + " " + Narrow(NewImageVersion()); }
};

TEST_F(PlatformCheck, RefusalsAndPassesOnOtherVendors) {
  struct Row {
    const char* what;
    Platform machine;
    std::string ini;
    std::vector<std::u16string> options;
    Bytes image;
    INT32 code;
    std::string console, shown;
  };
  const std::string full(24, '9');  // fills its field: no terminator before the model's '$'
  const Row rows[] = {
      {"nothing asked for", Machine(0), "", {}, Img("V1.01", "DV-OTHER"), 0, "", "DV-OTHER V1.01"},
      {"a prefix is no match", Machine(1), "", {}, Img("V1.03", "DV-REF100"), kCheckOlder, kMismatch, "DV-REF100 V1.03"},
      {"Flag 1 beats a clear bit", Machine(0), "[Platform_Check]\nFlag=1\n", {}, Img("V1.03", "DV-OTHER"), kCheckOlder, kMismatch, "DV-OTHER V1.03"},
      {"Flag 0 beats a set bit", Machine(1), "[Platform_Check]\nFlag=0\n", {}, Img("V1.03", "DV-OTHER"), 0, "", "DV-OTHER V1.03"},
      {"-mc beats all", Machine(3), "[Platform_Check]\nFlag=1\n[Bios_Version_Check]\nFlag=1\n", {u"-mc"}, Img("V1.01", "DV-OTHER"), 0, "", "DV-OTHER V1.01"},
      {"Flag 2, no names", Machine(0), "[Platform_Check]\nFlag=2\n", {}, Img("V1.03"), kCheckOlder, kNoMatch, "DV-REF1000 V1.03"},
      {"list names the platform", Machine(0), List("DV-REF1000"), {}, Img("V1.03", "DV-OTHER"), 0, "", "DV-OTHER L2.00"},
      {"list without the platform", Machine(0), List(""), {}, Img("V1.03"), kCheckOlder, kNoMatch, "DV-REF1000 L3.00"},
      {"a longer list name", Machine(0), List("DV-REF1000X"), {}, Img("V1.03"), kCheckOlder, kNoMatch, "DV-REF1000 L3.00"},
      {"version fills its field", Machine(2), "", {}, Img(full), 0, "", "DV-REF1000 " + full},
      {"model without '$'", Machine(1), "", {}, Img("V1.03", "DV-OTHER", kNoModelMark), kCheckOlder, kMismatch, "DV-OTHER V1.03"},
      {"older", Machine(2), "", {}, Img("V1.01"), kCheckOlder, kOlder, "DV-REF1000 V1.01"},
      {"same", Machine(2), "", {}, Img("V1.02"), kCheckSameVersion, kSame, "DV-REF1000 V1.02"},
      {"same, allowed", Machine(6), "", {}, Img("V1.02"), 0, "", "DV-REF1000 V1.02"},
      {"version Flag 1 beats a clear bit", Machine(0), "[Bios_Version_Check]\nFlag=1\n", {}, Img("V1.01"), kCheckOlder, kOlder, "DV-REF1000 V1.01"},
      {"version Flag 0 beats a set bit", Machine(2), "[Bios_Version_Check]\nFlag=0\n", {}, Img("V1.01"), 0, "", "DV-REF1000 V1.01"},
      {"format does not fit", Machine(2), kFormat + "N.NN\n", {}, Img("V1.03"), kCheckFormatInvalid,
       "The version format in [BIOSVersionFormat] invalid.\r\n", "DV-REF1000 V1.03"},
      {"format fits", Machine(2), kFormat + "DN.NN\n", {}, Img("V1.01"), kCheckOlder, kOlder, "DV-REF1000 V1.01"},
      {"current N/A", Machine(2, u"N/A"), "", {}, Img("V1.01"), 0, "", "DV-REF1000 V1.01"},
      {"current n/a", Machine(2, u"n/a"), "", {}, Img("V0"), kCheckSameVersion, kSame, "DV-REF1000 V0"},
      {"version without '$'", Machine(2), "", {}, Img("V1.01", "DV-REF1000", kNoVersionMark), 0, "", "DV-REF1000 V1.01"},
      {"platform first", Machine(3), "", {}, Img("V1.01", "DV-OTHER"), kCheckOlder, kMismatch, "DV-OTHER V1.01"},
      {"no BVDT", Machine(1), "", {}, Img("", "", kNoBvdt), kCheckNoBvdt, "", " "},
      {"anti-theft marker missing", Machine(3, u"V1.02", kAtMachine), "", {}, Img("V1.01", "DV-OTHER"), kCheckNoAntiTheftMarker, "", "DV-OTHER V1.01"},
      {"anti-theft marker present", Machine(3, u"V1.02", kAtMachine), "", {}, Img("V1.03", "DV-REF1000", kAntiTheft), 0, "", "DV-REF1000 V1.03"},
      {"-ec skips the marker", Machine(3, u"V1.02", kAtMachine), "", {u"-ec"}, Img("V1.03"), 0, "", "DV-REF1000 V1.03"},
      {"-ecp skips the marker", Machine(3, u"V1.02", kAtMachine), "", {u"-ecp"}, Img("V1.03"), 0, "", "DV-REF1000 V1.03"},
      {"a secure image needs it", Machine(3, u"V1.02", kAtMachine), "", {u"-ec"}, Img("V1.03", "DV-REF1000", kSecure), kCheckNoAntiTheftMarker, "", "DV-REF1000 V1.03"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start(row.machine, row.ini, row.options);
    EXPECT_EQ(Check(row.image), row.code);
    EXPECT_EQ(Console(), row.console);
    EXPECT_EQ(Shown(), row.shown);
  }
}

TEST_F(PlatformCheck, FirmwareHearsTheVersionFirstWhenCheckByBiosIsOn) {
  struct Row {
    std::vector<uint8_t> codes;  // 45h status per attempt, the last repeats; SMIErrorRetry is 1
    std::string answer;          // written over the record on status 0: signature, size, allow
    Bytes image;
    INT32 code;
    std::string console, sent;  // sent: the version text in the record
  };
  const char kRefused[] = "Not for this board\r\n", kFail[] = "OBLIS 45h fail.\r\n";
  const std::string allow("$CHKCNDO\x0D\0\0\0\x01", 13), refuse("$CHKCNDO\x0D\0\0\0\0", 13);
  const Row rows[] = {
      {{0}, allow, Img("V1.03"), 0, "", "V1.03"},
      {{0}, allow, Img("V1.01"), kCheckOlder, kOlder, "V1.01"},  // the compare still refuses
      {{0}, refuse, Img("V1.03"), kCheckFirmwareRefused, kRefused, "V1.03"},
      {{0}, refuse, Img("V1.03", "DV-REF1000", kNoVersionMark), kCheckFirmwareRefused, kRefused, ""},
      {{0xEF}, allow, Img("V1.03"), kCheckFirmwareRefused, kRefused, "V1.03"},  // no answer leaves allow at 0
      {{0x22, 0}, allow, Img("V1.03"), 0, "", "V1.03"},  // retried until it answers
      {{0}, std::string("$CHKCNDI\x0D\0\0\0\x01", 13), Img("V1.03"), kCheckConditionalFailed, kFail, "V1.03"},
      {{0}, std::string("$CHKCNDO\x0C\0\0\0\x01", 13), Img("V1.03"), kCheckConditionalFailed, kFail, "V1.03"},
      {{0}, std::string("$CHKCNDO\xFF\xFF\xFF\xFF\x01", 13), Img("V1.03"), 0, "", "V1.03"},  // a size is only a size
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.answer);
    Start(Machine(2), "[Bios_Version_Check]\nCheckByBios=1\nCheckByBiosErrorMessage=\"Not for this board\"\n"
          "[Others]\nSMIErrorRetry=1\nSMIErrorRetryDelay=1\n", {});
    std::vector<Bytes> records;
    answers[0x45] = [&](OblisRegisters& r) {
      uint8_t* buffer = At(r.ecx);
      records.push_back(Bytes(buffer, buffer + 0x18 + buffer[0x0E]));
      uint8_t code = row.codes[std::min(records.size() - 1, row.codes.size() - 1)];
      if (code == 0) std::memcpy(buffer, row.answer.data(), row.answer.size());
      Answer(r, code);
    };
    EXPECT_EQ(Check(row.image), row.code);
    EXPECT_EQ(Console(), row.console);
    EXPECT_EQ(records.size(), row.codes[0] == 0 ? 1u : 2u);
    // Type 4 (version), format 1 (text), the length, the text without its terminator, and
    // nothing left over behind it.
    const uint8_t size = (uint8_t)(0x10 + row.sent.size()), length = (uint8_t)row.sent.size();
    EXPECT_EQ(records[0], checks::Cat({bed::Bytes("$CHKCNDI"), {size, 0, 0, 0, 4, 1, length, 0}, bed::Bytes(row.sent), Bytes(8, 0)}));
  }
}

// ---- Dell ----

const char kDellOlder[] =
    "You are about to flash your BIOS to an older version.\r\nDell does not recommend flashing your BIOS to an "
    "older version.\r\nPress 'Y' to continue the flash process.\r\n\r\n";
const char kDellSame[] = "Flash contents already the same\r\nUpgrade will have no effect\r\nPress 'C' to continue anyway\r\n\r\n";
const char kDellCancel[] = "ERROR: BIOS update cancelled by user\r\nPress any key to exit\r\n\r\nROM update not performed\r\n\r\n";
std::string Replace(const std::string& current, const std::string& shown) {
  return "About to replace Dell System\r\nPress 'Y' to replace \"" + current + "\" BIOS with \"" + shown + "\" BIOS\r\n\r\n";
}

TEST_F(PlatformCheck, DellAsksInsteadOfRefusing) {
  struct Row {
    uint8_t policy;
    std::u16string current;
    std::vector<std::u16string> options;
    std::string image, keys;
    INT32 code;
    std::string console;
  };
  const Row rows[] = {
      {0x02, u"V1.02", {}, "V1.01", "y", 0, kDellOlder},
      {0x02, u"V1.02", {}, "V1.01", "nx", kCheckOlder, kDellOlder + std::string(kDellCancel)},
      {0x02, u"V1.02", {}, "V1.03", "Y", 0, Replace("V1.02", "V1.03")},
      {0x02, u"V1.02", {}, "V1.03", "cx", kCheckOlder, Replace("V1.02", "V1.03") + kDellCancel},
      {0x06, u"V1.02", {}, "V1.02", "Yc", 0, Replace("V1.02", "V1.02") + kDellSame},
      {0x06, u"V1.02", {}, "V1.02", "Yyx", kCheckOlder, Replace("V1.02", "V1.02") + kDellSame + kDellCancel},
      {0x02, u"V1.02", {}, "V1.02", "Y", 0, Replace("V1.02", "V1.02")},  // same, not allowed
      {0x02, u"N/A", {}, "V1.01", "Y", 0, Replace("N/A", "V1.01")},
      {0x02, u"V1.02", {u"-nopause"}, "V1.01", "", 0, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.keys);
    Start(Machine(row.policy, row.current, kVendorDell), "", row.options, row.keys);
    EXPECT_EQ(Check(Img(row.image)), row.code);
    EXPECT_EQ(Console(), row.console);
    EFI_INPUT_KEY key;
    EXPECT_EQ(gST->ConIn->ReadKeyStroke(gST->ConIn, &key), EFI_NOT_READY) << "every key is read";
    EXPECT_EQ(SmiCallsOf(0x1F).size(), 2 * row.keys.size()) << "hook points 5 and 6 frame each wait";
  }
}

TEST_F(PlatformCheck, DellPlatformRefusalIsABoxInWhiteOnRed) {
  Start(Machine(0x03, u"V1.02", kVendorDell), "", {}, "q");
  PaintConsole();
  EXPECT_EQ(Check(Img("V1.01", "DV-OTHER")), kCheckOlder);
  char lines[200];
  std::snprintf(lines, sizeof(lines), "# %76s ## %76s #", "Cannot use a \"DV-OTHER\" BIOS", "In a \"DV-REF1000\" ");
  EXPECT_EQ(Painted(), "<4F>#===================================== ERROR ==================================#" +
                           std::string(lines) + "#" + std::string(78, ' ') + "#"
                           "# Rom update not performed.                                                    #"
                           "# press any key to exit.                                                       #"
                           "#==============================================================================#<0F>\r\n");
}

}  // namespace
