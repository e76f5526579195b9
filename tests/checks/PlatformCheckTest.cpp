// The platform and version checks against a faked firmware: who decides whether a check runs,
// the model compare with and without the [Platform_Check] list, the version rules around the
// compare, every refusal text of Func_PlatformCheck, the Dell box and dialogues with scripted
// keys, and the two identity displays.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "checks/Checks.h"
#include "image/Image.h"
#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

// One row in a process of its own; the child prints its own failures.
void Isolated(const std::string& what, const std::function<void()>& body) {
  int status = RunIsolated(body);
  EXPECT_EQ(status, 0) << what;
}

// ---- the console as the checks use it: text, attributes in between, scripted keys ----

struct ConsoleSpy {
  static inline std::vector<std::string> events;  // "Attr:4F" or a piece of text
  static inline std::deque<char16_t> keys;
  static inline int keysRead = 0;
  static inline bool ranOut = false;
  static inline decltype(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL::OutputString) forward = nullptr;

  static EFI_STATUS EFIAPI Output(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, const CHAR16* text) {
    std::string narrow;
    for (const CHAR16* p = text; *p != 0; ++p) narrow.push_back(*p < 0x80 ? (char)*p : '?');
    events.push_back(narrow);
    return forward(self, text);
  }
  static EFI_STATUS EFIAPI Attribute(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN attribute) {
    char text[16];
    std::snprintf(text, sizeof(text), "Attr:%02lX", (unsigned long)attribute);
    events.push_back(text);
    return EFI_SUCCESS;
  }
  // A wait with no key left would never end: it is answered with key 0 and noted.
  static EFI_STATUS EFIAPI ReadKey(EFI_SIMPLE_TEXT_INPUT_PROTOCOL*, EFI_INPUT_KEY* key) {
    ++keysRead;
    if (keys.empty()) {
      ranOut = true;
      *key = {0, 0};
      return EFI_SUCCESS;
    }
    *key = {0, keys.front()};
    keys.pop_front();
    return EFI_SUCCESS;
  }
  static void Install(const std::u16string& script) {
    events.clear();
    keys.assign(script.begin(), script.end());
    // The emulated console's protocol outlives an environment: never forward to ourselves.
    if (gST->ConOut->OutputString != Output) forward = gST->ConOut->OutputString;
    gST->ConOut->OutputString = Output;
    gST->ConOut->SetAttribute = Attribute;
    gST->ConIn->ReadKeyStroke = ReadKey;
  }
  // All text since Install, attributes left out.
  static std::string Text() {
    std::string all;
    for (const auto& e : events)
      if (e.rfind("Attr:", 0) != 0) all += e;
    return all;
  }
};

// ---- the machine: what functions 10h, 11h and 1Ch answer ----

struct Machine {
  std::u16string model = u"DV-REF1000";
  std::u16string version = u"V1.02";
  uint8_t policy = 0;  // AH of 11h: bit 0 name check, 1 version check, 2 same allowed, 4/5 no display
  uint16_t vendor = kVendorNone;
  uint8_t antiTheft = 0;
};

std::vector<uint8_t> StatusAnswer(uint16_t vendor) {
  std::vector<uint8_t> a(34, 0);
  a[0] = 1;
  a[1] = 100;
  a[2] = 20;
  PutU16(a, 11, vendor);
  PutU32(a, 29, 38);
  return a;
}

void Boot(FakeFirmware& fw, const Machine& m, const std::u16string& keys = u"") {
  ASSERT_TRUE(InitialSmi());
  fw.handlers[0x10] = [m](OblisRegisters& r) {
    std::vector<uint8_t> answer = StatusAnswer(m.vendor);
    std::memcpy(At(r.edi), answer.data(), answer.size());
    r.ecx = 0x0208;
    Answer(r, 0, 1);
  };
  ASSERT_TRUE(SMI_IsSupport());
  fw.handlers[0x11] = [m](OblisRegisters& r) {
    std::memcpy(At(r.edi), m.model.c_str(), (m.model.size() + 1) * 2);
    std::memcpy(At(r.edi + 0x40), m.version.c_str(), (m.version.size() + 1) * 2);
    Answer(r, 0, m.policy);
  };
  ASSERT_TRUE(FuncOblis_11h());
  fw.handlers[0x1C] = [m](OblisRegisters& r) {
    r.ecx = m.antiTheft;
    Answer(r, 0, 0);
  };
  ASSERT_TRUE(FuncOblis_1Ch());
  ConsoleSpy::Install(keys);
}

// ---- images with a BVDT block ----

struct ImageSpec {
  std::string version = "V1.03";
  std::string model = "DV-REF1000";
  bool versionMark = true;
  bool modelMark = true;
  bool bvdt = true;
  bool antiTheftMarker = false;
};

constexpr size_t kBvdtAt = 0x1000;

std::vector<uint8_t> MakeImage(const ImageSpec& s) {
  std::vector<uint8_t> image(0x2000, 0xFF);
  if (s.bvdt) {
    std::fill(image.begin() + kBvdtAt, image.begin() + kBvdtAt + 0x66, 0);
    std::memcpy(&image[kBvdtAt], "$BVDT$", 6);
    image[kBvdtAt + 0x09] = '$';
    image[kBvdtAt + 0x0D] = s.versionMark ? '$' : 0;
    std::memcpy(&image[kBvdtAt + 0x0E], s.version.data(), std::min<size_t>(24, s.version.size()));
    image[kBvdtAt + 0x26] = s.modelMark ? '$' : 0;
    std::memcpy(&image[kBvdtAt + 0x27], s.model.data(), std::min<size_t>(25, s.model.size()));
    image[kBvdtAt + 0x40] = '$';
  }
  if (s.antiTheftMarker) std::memcpy(&image[0x333], "pTA$", 4);
  return image;
}

std::string Narrow(const CHAR16* text) {
  std::string out;
  for (; *text != 0; ++text) out.push_back((char)*text);
  return out;
}

void SetList(FlashSettings& s, const std::vector<std::pair<std::string, std::string>>& pairs) {
  for (size_t i = 0; i < pairs.size(); i++) {
    std::snprintf(s.platformCheck.platformName[i], kIniTextBytes, "%s", pairs[i].first.c_str());
    std::snprintf(s.platformVersion.version[i], kIniTextBytes, "%s", pairs[i].second.c_str());
  }
}

using Prepare = std::function<void(FlashSettings&, CommandFlags&)>;
const Prepare kNothing = [](FlashSettings&, CommandFlags&) {};

const char kModelMismatch[] = "Model name not match.\r\n";
const char kNoListMatch[] = "No matched ID in [Platform_Check].\r\n";
const char kNotNewer[] = "The version of ROM file is not newer than current BIOS.\r\n";
const char kSameVersion[] = "The version of ROM file is the same as current BIOS.\r\n";
const char kFormatInvalid[] = "The version format in [BIOSVersionFormat] invalid.\r\n";

// ---- who decides whether a check runs ----

TEST(PlatformCheck, CheckRunsAsOptionsSettingsAndFirmwareDecide) {
  struct Row {
    bool allOff;
    bool mc;
    INT32 flag;
    bool firmwareBit;
    bool expected;
  };
  const Row rows[] = {
      {false, false, 3, true, true},  {false, false, 3, false, false}, {false, false, 1, false, true},
      {false, false, 0, true, false}, {false, false, 7, false, true},  {false, true, 1, true, false},
      {true, false, 1, true, false},
  };
  for (const Row& row : rows) {
    for (bool version : {false, true}) {
      Isolated(std::string(version ? "version" : "platform") + " flag " + std::to_string(row.flag) + " mc " +
                   std::to_string(row.mc) + " off " + std::to_string(row.allOff),
               [&] {
                 FakeFirmware fw;
                 Machine m;
                 m.policy = row.firmwareBit ? (version ? 0x02 : 0x01) : 0;
                 Boot(fw, m);
                 FlashSettings& s = FakeFirmware::MutableSettings();
                 // The version check's "firmware decides" value is 2, the platform check's 3.
                 INT32 flag = version && row.flag == 3 ? 2 : row.flag;
                 (version ? s.biosVersionCheck.flag : s.platformCheck.flag) = flag;
                 FakeFirmware::MutableFlags().mc = row.mc;
                 if (row.allOff) SetAllChecksOff();
                 EXPECT_EQ(version ? VersionCheckNeeded() : PlatformNameCheckNeeded(), row.expected);
               });
    }
  }
}

TEST(PlatformCheck, EachCheckHasItsOwnFirmwareValue) {
  // 3 defers to the firmware only for the platform check, 2 only for the version check.
  Isolated("own values", [] {
    FakeFirmware fw;
    Boot(fw, Machine{});
    FlashSettings& s = FakeFirmware::MutableSettings();
    s.platformCheck.flag = 2;
    s.biosVersionCheck.flag = 3;
    EXPECT_TRUE(PlatformNameCheckNeeded());
    EXPECT_TRUE(VersionCheckNeeded());
  });
}

TEST(PlatformCheck, AllChecksOffIsTracedAndAllowsTheSameVersion) {
  Isolated("all checks off", [] {
    FakeFirmware fw;
    Machine m;
    m.policy = 0x03;
    Boot(fw, m);
    EXPECT_FALSE(AllChecksOff());
    EXPECT_EQ(VersionCmp("V1.02", "V1.02"), kCheckSameVersion);
    SetAllChecksOff();
    EXPECT_TRUE(AllChecksOff());
    EXPECT_EQ(VersionCmp("V1.02", "V1.02"), 0);
    EXPECT_EQ(CountOf(fw.Log(), " Disable all check in Secure flash mode\r\n"), 1u);
  });
}

// ---- the model compare ----

TEST(PlatformCheck, ModelsCompareWholeOrAgainstTheList) {
  struct Row {
    const char* what;
    INT32 flag;
    std::vector<std::string> names;
    std::string newModel;
    std::string current;
    INT32 code;
    INT32 matchIndex;
  };
  const std::string longName = std::string(255, 'A');
  const Row rows[] = {
      {"equal", 1, {}, "DV-REF1000", "DV-REF1000", 0, -1},
      {"case counts", 3, {}, "dv-ref1000", "DV-REF1000", kCheckModelMismatch, -1},
      {"no trimming", 3, {}, "DV-REF1000 ", "DV-REF1000", kCheckModelMismatch, -1},
      {"prefix is not equal", 3, {}, "DV-REF100", "DV-REF1000", kCheckModelMismatch, -1},
      {"list: first equal name", 2, {"", "NB-7", "", "DV-REF1000", "DV-REF1000"}, "X", "DV-REF1000", 0, 3},
      {"list: no match keeps the last non-empty",
       2,
       {"NB-7", "NB-8", "", ""},
       "DV-REF1000",
       "DV-REF1000",
       kCheckNoListMatch,
       1},
      {"list: all empty", 2, {"", ""}, "DV-REF1000", "DV-REF1000", kCheckNoListMatch, -1},
      // A name is compared whole, however long: one that only begins with the model is another.
      {"list: a longer name is no match", 2, {longName + "B"}, "X", longName, kCheckNoListMatch, 0},
      {"list: a long name compares whole", 2, {"NB-7", longName + "B"}, "X", longName + "B", 0, 1},
  };
  for (const Row& row : rows) {
    Isolated(row.what, [&] {
      FakeFirmware fw;
      FlashSettings& s = FakeFirmware::MutableSettings();
      s.platformCheck.flag = row.flag;
      for (size_t i = 0; i < row.names.size(); i++)
        std::snprintf(s.platformCheck.platformName[i], kIniTextBytes, "%s", row.names[i].c_str());
      INT32 matchIndex = -1;
      EXPECT_EQ(PlatformCmp(row.newModel.c_str(), row.current.c_str(), &matchIndex), row.code);
      EXPECT_EQ(matchIndex, row.matchIndex);
    });
  }
}

TEST(PlatformCheck, ListWalkRewritesTheShownIdentity) {
  struct Row {
    const char* what;
    INT32 checkFlag;
    INT32 versionFlag;
    std::vector<std::pair<std::string, std::string>> list;
    std::string model;
    std::string version;
  };
  const Row rows[] = {
      {"not a list: untouched", 3, 1, {{"DV-REF1000", "L1"}}, "DV-OLD", "V1.03"},
      {"matching pair", 2, 1, {{"NB-7", "L1"}, {"", "L2"}, {"DV-REF1000", "L3"}, {"NB-9", "L4"}}, "DV-REF1000", "L3"},
      {"no match: last non-empty pair", 2, 1, {{"NB-7", "L1"}, {"NB-9", "L2"}, {"", "L3"}}, "NB-9", "L2"},
      {"empty Version empties the text", 2, 1, {{"DV-REF1000", ""}}, "DV-REF1000", ""},
      {"versions only under Flag 1", 2, 2, {{"NB-7", "L1"}}, "NB-7", "V1.03"},
      {"empty list: untouched", 2, 1, {{"", "L1"}}, "DV-OLD", "V1.03"},
      {"63 characters fit the buffer",
       2,
       1,
       {{std::string(70, 'M'), std::string(70, 'v')}},
       std::string(63, 'M'),
       std::string(63, 'v')},
  };
  for (const Row& row : rows) {
    Isolated(row.what, [&] {
      FakeFirmware fw;
      Boot(fw, Machine{});
      FlashSettings& s = FakeFirmware::MutableSettings();
      s.platformCheck.flag = row.checkFlag;
      s.platformVersion.flag = row.versionFlag;
      SetList(s, row.list);
      ImageSpec spec;
      spec.model = "DV-OLD";
      std::vector<uint8_t> image = MakeImage(spec);
      ASSERT_TRUE(ReadImageBvdtInfo(image.data(), (UINT32)image.size()));
      const CHAR16* model = nullptr;
      const CHAR16* version = nullptr;
      MultiPlatformCompare(&model, &version);
      ASSERT_EQ(model, NewImageModel());
      ASSERT_EQ(version, NewImageVersion());
      EXPECT_EQ(Narrow(model), row.model);
      EXPECT_EQ(Narrow(version), row.version);
      EXPECT_EQ(CountOf(fw.Log(), "Multi platform compare (disable)\r\n"), row.checkFlag == 2 ? 0u : 1u);
      MultiPlatformCompare(nullptr, nullptr);  // either out-argument may be absent
    });
  }
}

// ---- the rules around the version compare ----

TEST(PlatformCheck, VersionRulesAroundTheCompare) {
  struct Row {
    const char* what;
    uint8_t policy;
    Prepare setUp;
    std::string newVersion;
    std::string current;
    INT32 code;
  };
  const Prepare format = [](FlashSettings& s, CommandFlags&) {
    s.biosVersionFormat.biosVfEnable = true;
    std::snprintf(s.biosVersionFormat.versionFormat, kIniTextBytes, "N.NND");
  };
  const Row rows[] = {
      {"newer", 0, kNothing, "1.3", "1.2", 1},
      {"older", 0, kNothing, "1.2", "1.3", kCheckOlder},
      {"empty new version", 0, kNothing, "", "1.2", kCheckNoVersion},
      {"current N/A", 0, kNothing, "1.3", "N/A", kCheckNoVersion},
      {"n/a is a version like any other", 0, kNothing, "0", "n/a", kCheckSameVersion},  // both .0000
      {"N/A is no version", 0, kNothing, "0", "N/A", kCheckNoVersion},
      {"same, not allowed", 0, kNothing, "V1.2", "1.02", kCheckSameVersion},
      {"same, allowed by the firmware", 0x04, kNothing, "V1.2", "1.02", 0},
      {"format: newer", 0, format, "1.22", "1.21B", 1},
      {"format: does not fit", 0, format, "1.2", "1.21B", kCheckFormatInvalid},
      {"format: same", 0, format, "1.21", "1.21B", kCheckSameVersion},
  };
  for (const Row& row : rows) {
    Isolated(row.what, [&] {
      FakeFirmware fw;
      Machine m;
      m.policy = row.policy;
      Boot(fw, m);
      row.setUp(FakeFirmware::MutableSettings(), FakeFirmware::MutableFlags());
      EXPECT_EQ(VersionCmp(row.newVersion.c_str(), row.current.c_str()), row.code);
      EXPECT_TRUE(fw.FramesOf(0x45).empty()) << "no firmware call without CheckByBios";
    });
  }
}

// ---- Func_PlatformCheck on every vendor but Dell ----

struct CheckRow {
  const char* what;
  Machine machine;
  Prepare setUp;
  ImageSpec image;
  INT32 code;
  std::string console;
  std::string shownModel;
  std::string shownVersion;
  std::string logLine;  // a line the trace must hold; empty: none asked for
};

Machine WithPolicy(uint8_t policy, std::u16string version = u"V1.02") {
  Machine m;
  m.policy = policy;
  m.version = version;
  return m;
}

Machine WithAntiTheft() {
  Machine m;
  m.antiTheft = 0x80;  // valid, not enrolled: the image must carry the marker
  m.policy = 0x03;
  return m;
}

ImageSpec Image(std::string version, std::string model = "DV-REF1000") {
  ImageSpec s;
  s.version = version;
  s.model = model;
  return s;
}

void RunCheckRows(const std::vector<CheckRow>& rows) {
  for (const CheckRow& row : rows) {
    Isolated(row.what, [&] {
      FakeFirmware fw;
      Boot(fw, row.machine);
      row.setUp(FakeFirmware::MutableSettings(), FakeFirmware::MutableFlags());
      std::vector<uint8_t> image = MakeImage(row.image);
      ReadImageBvdtInfo(image.data(), (UINT32)image.size());
      EXPECT_EQ(Func_PlatformCheck(image.data(), (UINT32)image.size()), row.code);
      EXPECT_EQ(ConsoleSpy::Text(), row.console);
      EXPECT_EQ(Narrow(NewImageModel()), row.shownModel);
      EXPECT_EQ(Narrow(NewImageVersion()), row.shownVersion);
      if (!row.logLine.empty()) EXPECT_NE(fw.Log().find(row.logLine), std::string::npos) << fw.Log();
      EXPECT_EQ(ConsoleSpy::keysRead, 0);
    });
  }
}

TEST(PlatformCheck, RefusalsAndPassesOnOtherVendors) {
  const Prepare flag = [](FlashSettings& s, CommandFlags&) { s.platformCheck.flag = 1; };
  const Prepare flagOff = [](FlashSettings& s, CommandFlags&) { s.platformCheck.flag = 0; };
  const Prepare versionFlag = [](FlashSettings& s, CommandFlags&) { s.biosVersionCheck.flag = 1; };
  const Prepare versionOff = [](FlashSettings& s, CommandFlags&) { s.biosVersionCheck.flag = 0; };
  const Prepare mc = [](FlashSettings& s, CommandFlags& f) {
    s.platformCheck.flag = 1;
    s.biosVersionCheck.flag = 1;
    f.mc = true;
  };
  const Prepare emptyList = [](FlashSettings& s, CommandFlags&) { s.platformCheck.flag = 2; };
  const Prepare list = [](FlashSettings& s, CommandFlags&) {
    s.platformCheck.flag = 2;
    s.platformVersion.flag = 1;
    SetList(s, {{"NB-7", "L1.00"}, {"DV-REF1000", "L2.00"}, {"NB-9", "L3.00"}});
  };
  const Prepare format = [](FlashSettings& s, CommandFlags&) {
    s.biosVersionFormat.biosVfEnable = true;
    std::snprintf(s.biosVersionFormat.versionFormat, kIniTextBytes, "N.NN");
  };
  const Prepare formatFits = [](FlashSettings& s, CommandFlags&) {
    s.biosVersionFormat.biosVfEnable = true;
    std::snprintf(s.biosVersionFormat.versionFormat, kIniTextBytes, "DN.NN");
  };
  const Prepare ec = [](FlashSettings&, CommandFlags& f) { f.ec = true; };
  const Prepare ecp = [](FlashSettings&, CommandFlags& f) { f.ecp = true; };
  ImageSpec noVersionMark = Image("V1.01");
  noVersionMark.versionMark = false;
  ImageSpec noModelMark = Image("V1.03", "DV-OTHER");
  noModelMark.modelMark = false;
  ImageSpec noBvdt;
  noBvdt.bvdt = false;
  const Prepare listWithout = [](FlashSettings& s, CommandFlags&) {
    s.platformCheck.flag = 2;
    s.platformVersion.flag = 1;
    SetList(s, {{"NB-7", "L1.00"}, {"", "L2.00"}, {"NB-9", "L3.00"}});
  };
  // A version that fills its 24 bytes has no terminator before the model's '$'.
  const std::string fullVersion(24, '9');
  ImageSpec marked = Image("V1.03");
  marked.antiTheftMarker = true;

  RunCheckRows({
      {"nothing asked for", WithPolicy(0), kNothing, Image("V1.01", "DV-OTHER"), 0, "", "DV-OTHER", "V1.01",
       " Check Platform Name 0\r\n Check Version 0\r\n"},
      {"newer image passes", WithPolicy(0x03), kNothing, Image("V1.03"), 0, "", "DV-REF1000", "V1.03",
       " Check Platform Name 1\r\n Check Version 1\r\n"},
      {"model mismatch", WithPolicy(0x01), kNothing, Image("V1.03", "DV-OTHER"), kCheckOlder, kModelMismatch,
       "DV-OTHER", "V1.03", "<=== GetPlatformChkStatus"},
      {"Flag 1 overrides the firmware's clear bit", WithPolicy(0), flag, Image("V1.03", "DV-OTHER"), kCheckOlder,
       kModelMismatch, "DV-OTHER", "V1.03", ""},
      {"Flag 0 overrides the firmware's set bit", WithPolicy(0x01), flagOff, Image("V1.03", "DV-OTHER"), 0, "",
       "DV-OTHER", "V1.03", ""},
      {"-mc overrides settings and firmware", WithPolicy(0x03), mc, Image("V1.01", "DV-OTHER"), 0, "", "DV-OTHER",
       "V1.01", ""},
      {"Flag 2 with every name empty", WithPolicy(0), emptyList, Image("V1.03"), kCheckOlder, kNoListMatch,
       "DV-REF1000", "V1.03", ""},
      {"Flag 2 list names the platform, the image's model plays no part", WithPolicy(0), list,
       Image("V1.03", "DV-OTHER"), 0, "", "DV-OTHER", "L2.00", ""},
      {"Flag 2 list without the platform shows the last pair's version", WithPolicy(0), listWithout,
       Image("V1.03"), kCheckOlder, kNoListMatch, "DV-REF1000", "L3.00", ""},
      {"a version that fills its field ends there", WithPolicy(0x02), kNothing, Image(fullVersion), 0, "",
       "DV-REF1000", fullVersion, ""},
      {"model field without '$': the shown model is compared", WithPolicy(0x01), kNothing, noModelMark, kCheckOlder,
       kModelMismatch, "DV-OTHER", "V1.03", ""},
      {"older image", WithPolicy(0x02), kNothing, Image("V1.01"), kCheckOlder, kNotNewer, "DV-REF1000", "V1.01", ""},
      {"same version, not allowed", WithPolicy(0x02), kNothing, Image("V1.02"), kCheckSameVersion, kSameVersion,
       "DV-REF1000", "V1.02", ""},
      {"same version, allowed", WithPolicy(0x06), kNothing, Image("V1.02"), 0, "", "DV-REF1000", "V1.02", ""},
      {"[Bios_Version_Check] Flag 1 overrides the clear bit", WithPolicy(0), versionFlag, Image("V1.01"), kCheckOlder,
       kNotNewer, "DV-REF1000", "V1.01", ""},
      {"[Bios_Version_Check] Flag 0 overrides the set bit", WithPolicy(0x02), versionOff, Image("V1.01"), 0, "",
       "DV-REF1000", "V1.01", ""},
      {"format that does not fit", WithPolicy(0x02), format, Image("V1.03"), kCheckFormatInvalid, kFormatInvalid,
       "DV-REF1000", "V1.03", ""},
      {"format that fits", WithPolicy(0x02), formatFits, Image("V1.01"), kCheckOlder, kNotNewer, "DV-REF1000", "V1.01",
       ""},
      {"current version N/A", WithPolicy(0x02, u"N/A"), kNothing, Image("V1.01"), 0, "", "DV-REF1000", "V1.01", ""},
      {"current version n/a is compared", WithPolicy(0x02, u"n/a"), kNothing, Image("V0"), kCheckSameVersion,
       kSameVersion, "DV-REF1000", "V0", ""},
      {"version field without '$'", WithPolicy(0x02), kNothing, noVersionMark, 0, "", "DV-REF1000", "V1.01", ""},
      {"a platform refusal hides the version result", WithPolicy(0x03), kNothing, Image("V1.01", "DV-OTHER"),
       kCheckOlder, kModelMismatch, "DV-OTHER", "V1.01", ""},
      {"no BVDT", WithPolicy(0x01), kNothing, noBvdt, kCheckNoBvdt, "", "", "",
       "<=== CheckNewRomFVPlatformInfo (BVDT not found)"},
      {"anti-theft marker missing", WithAntiTheft(), kNothing, Image("V1.01", "DV-OTHER"), kCheckNoAntiTheftMarker, "",
       "DV-OTHER", "V1.01", "<=== Func_PlatformCheck (ATP not found)"},
      {"anti-theft marker present", WithAntiTheft(), kNothing, marked, 0, "", "DV-REF1000", "V1.03", ""},
      {"-ec skips the marker", WithAntiTheft(), ec, Image("V1.03"), 0, "", "DV-REF1000", "V1.03", ""},
      {"-ecp skips the marker", WithAntiTheft(), ecp, Image("V1.03"), 0, "", "DV-REF1000", "V1.03", ""},
  });
}

TEST(PlatformCheck, EcOptionsCountAsAbsentForASecureImage) {
  Isolated("secure image", [] {
    FakeFirmware fw;
    Boot(fw, WithAntiTheft());
    FakeFirmware::MutableFlags().ec = true;
    std::vector<uint8_t> image = MakeImage(Image("V1.03"));
    const uint8_t record[] = {'$',  'I',  'S',  'B',  0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3,
                              0xAE, 0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB, 0xB8};
    std::copy(std::begin(record), std::end(record), image.begin() + 0x200);
    ASSERT_TRUE(AnalyzeImage(image.data(), (UINT32)image.size()));
    EXPECT_EQ(Func_PlatformCheck(image.data(), (UINT32)image.size()), kCheckNoAntiTheftMarker);
  });
}

TEST(PlatformCheck, ListVersionReplacesTheShownVersionOnlyWhenTheCheckRuns) {
  for (bool checked : {false, true}) {
    Isolated("checked " + std::to_string(checked), [&] {
      FakeFirmware fw;
      Boot(fw, WithPolicy(0x02));
      FlashSettings& s = FakeFirmware::MutableSettings();
      s.platformVersion.flag = 1;
      SetList(s, {{"DV-REF1000", "L9.00"}});
      s.platformCheck.flag = checked ? 2 : 0;
      std::vector<uint8_t> image = MakeImage(Image("V1.03"));
      ReadImageBvdtInfo(image.data(), (UINT32)image.size());
      EXPECT_EQ(Func_PlatformCheck(image.data(), (UINT32)image.size()), 0);
      // The compare itself read the BVDT's version, not the list's.
      EXPECT_NE(fw.Log().find(" Version compare 0x00000001\r\n"), std::string::npos);
      EXPECT_EQ(Narrow(NewImageVersion()), checked ? "L9.00" : "V1.03");
    });
  }
}

TEST(PlatformCheck, FirmwareHearsTheVersionFirstWhenCheckByBiosIsOn) {
  enum class Answer45 { Allow, Refuse, Silent, BadSignature };
  struct Row {
    const char* what;
    Answer45 answer;
    ImageSpec image;
    INT32 code;
    std::string console;
    std::string sent;  // the version text in the record
  };
  ImageSpec noVersion = Image("V1.03");
  noVersion.versionMark = false;
  const std::vector<Row> rows = {
      {"allowed and newer", Answer45::Allow, Image("V1.03"), 0, "", "V1.03"},
      {"allowed, the compare still refuses an older one", Answer45::Allow, Image("V1.01"), kCheckOlder, kNotNewer,
       "V1.01"},
      {"refused", Answer45::Refuse, Image("V1.03"), kCheckFirmwareRefused, "Not for this board\r\n", "V1.03"},
      {"refused even without a version", Answer45::Refuse, noVersion, kCheckFirmwareRefused, "Not for this board\r\n",
       ""},
      {"a firmware that does not answer refuses", Answer45::Silent, Image("V1.03"), kCheckFirmwareRefused,
       "Not for this board\r\n", "V1.03"},
      {"an answer without its signature", Answer45::BadSignature, Image("V1.03"), kCheckConditionalFailed,
       "OBLIS 45h fail.\r\n", "V1.03"},
  };
  for (const Row& row : rows) {
    Isolated(row.what, [&] {
      FakeFirmware fw;
      Boot(fw, WithPolicy(0x02));
      FlashSettings& s = FakeFirmware::MutableSettings();
      s.biosVersionCheck.checkByBios = true;
      s.others.smiErrorRetry = 0;
      std::snprintf(s.biosVersionCheck.checkByBiosErrorMessage, kIniTextBytes, "Not for this board");
      std::vector<uint8_t> record;
      fw.handlers[0x45] = [&](OblisRegisters& r) {
        uint8_t* buffer = At(r.ecx);
        record.assign(buffer, buffer + 0x10 + buffer[0x0E]);
        if (row.answer == Answer45::Silent) {
          Answer(r, 0xEF);
          return;
        }
        std::memcpy(buffer, row.answer == Answer45::BadSignature ? "$CHKCNDI" : "$CHKCNDO", 8);
        PutU32(buffer + 8, 13);
        buffer[12] = row.answer == Answer45::Refuse ? 0 : 1;
      };
      std::vector<uint8_t> image = MakeImage(row.image);
      ReadImageBvdtInfo(image.data(), (UINT32)image.size());
      EXPECT_EQ(Func_PlatformCheck(image.data(), (UINT32)image.size()), row.code);
      EXPECT_EQ(ConsoleSpy::Text(), row.console);
      ASSERT_GE(record.size(), 0x10u);
      EXPECT_EQ(record[0x0C], 4) << "data type: version";
      EXPECT_EQ(record[0x0D], 1) << "data format: text";
      EXPECT_EQ(record[0x0E] | (record[0x0F] << 8), (int)row.sent.size());
      EXPECT_EQ(std::string(record.begin() + 0x10, record.end()), row.sent) << "without terminator";
    });
  }
}

// ---- Dell: the box and the dialogues ----

std::string Pad76(const std::string& text) {
  char line[400];
  std::snprintf(line, sizeof(line), "%76s", text.c_str());
  return line;
}

std::string DellBox(const std::string& imageModel, const std::string& platformModel) {
  const std::string format =
      "#===================================== ERROR ==================================## %76s ## %76s ##   "
      "                                                                           ## Rom update not perform"
      "ed.                                                    ## press any key to exit.                    "
      "                                   ##==============================================================="
      "===============#";
  std::string box = format;
  box.replace(box.find("%76s"), 4, Pad76("Cannot use a \"" + imageModel + "\" BIOS"));
  box.replace(box.find("%76s"), 4, Pad76("In a \"" + platformModel + "\" "));
  return box;
}

const char kDellOlder[] =
    "You are about to flash your BIOS to an older version.\r\nDell does not recommend flashing your BIOS to an "
    "older version.\r\nPress 'Y' to continue the flash process.\r\n\r\n";
const char kDellSame[] =
    "Flash contents already the same\r\nUpgrade will have no effect\r\nPress 'C' to continue anyway\r\n\r\n";
const char kDellCancel[] =
    "ERROR: BIOS update cancelled by user\r\nPress any key to exit\r\n\r\nROM update not performed\r\n\r\n";

std::string DellReplace(const std::string& current, const std::string& shown) {
  return "About to replace Dell System\r\nPress 'Y' to replace \"" + current + "\" BIOS with \"" + shown +
         "\" BIOS\r\n\r\n";
}

TEST(PlatformCheck, DellAsksInsteadOfRefusing) {
  struct Row {
    const char* what;
    uint8_t policy;
    std::u16string currentVersion;
    Prepare setUp;
    ImageSpec image;
    std::u16string keys;
    INT32 code;
    std::string console;
  };
  const Prepare nopause = [](FlashSettings&, CommandFlags& f) { f.nopause = true; };
  const std::vector<Row> rows = {
      {"older, 'y' goes", 0x02, u"V1.02", kNothing, Image("V1.01"), u"y", 0, kDellOlder},
      {"older, 'Y' goes", 0x02, u"V1.02", kNothing, Image("V1.01"), u"Y", 0, kDellOlder},
      {"older, another key cancels", 0x02, u"V1.02", kNothing, Image("V1.01"), u"nx", kCheckOlder,
       std::string(kDellOlder) + kDellCancel},
      {"newer, 'Y' goes", 0x02, u"V1.02", kNothing, Image("V1.03"), u"Y", 0, DellReplace("V1.02", "V1.03")},
      {"newer, 'c' is not 'Y'", 0x02, u"V1.02", kNothing, Image("V1.03"), u"cx", kCheckOlder,
       DellReplace("V1.02", "V1.03") + kDellCancel},
      {"same and allowed, 'Y' then 'c'", 0x06, u"V1.02", kNothing, Image("V1.02"), u"Yc", 0,
       DellReplace("V1.02", "V1.02") + kDellSame},
      {"same and allowed, 'Y' then 'C'", 0x06, u"V1.02", kNothing, Image("V1.02"), u"yC", 0,
       DellReplace("V1.02", "V1.02") + kDellSame},
      {"same and allowed, 'Y' then 'y' cancels", 0x06, u"V1.02", kNothing, Image("V1.02"), u"Yyx", kCheckOlder,
       DellReplace("V1.02", "V1.02") + kDellSame + kDellCancel},
      {"same and not allowed: the replace prompt", 0x02, u"V1.02", kNothing, Image("V1.02"), u"Y", 0,
       DellReplace("V1.02", "V1.02")},
      {"current N/A: the replace prompt", 0x02, u"N/A", kNothing, Image("V1.01"), u"Y", 0, DellReplace("N/A", "V1.01")},
      {"-nopause: no prompt at all", 0x02, u"V1.02", nopause, Image("V1.01"), u"", 0, ""},
  };
  for (const Row& row : rows) {
    Isolated(row.what, [&] {
      FakeFirmware fw;
      Machine m;
      m.vendor = kVendorDell;
      m.policy = row.policy;
      m.version = row.currentVersion;
      Boot(fw, m, row.keys);
      row.setUp(FakeFirmware::MutableSettings(), FakeFirmware::MutableFlags());
      std::vector<uint8_t> image = MakeImage(row.image);
      ReadImageBvdtInfo(image.data(), (UINT32)image.size());
      EXPECT_EQ(Func_PlatformCheck(image.data(), (UINT32)image.size()), row.code);
      EXPECT_EQ(ConsoleSpy::Text(), row.console);
      EXPECT_TRUE(ConsoleSpy::keys.empty()) << "every scripted key is read";
      EXPECT_FALSE(ConsoleSpy::ranOut) << "no key is waited for beyond the script";
      // Each key wait is framed by the hook points 5 and 6.
      EXPECT_EQ(fw.FramesOf(0x1F).size(), 2 * row.keys.size());
    });
  }
}

TEST(PlatformCheck, DellPlatformRefusalIsABoxInWhiteOnRed) {
  struct Row {
    const char* what;
    Prepare setUp;
    std::string imageModel;
  };
  const std::vector<Row> rows = {
      {"model mismatch", kNothing, "DV-OTHER"},
      {"no name of the list",
       [](FlashSettings& s, CommandFlags&) {
         s.platformCheck.flag = 2;
         SetList(s, {{"NB-7", ""}});
       },
       "DV-REF1000"},
  };
  for (const Row& row : rows) {
    Isolated(row.what, [&] {
      FakeFirmware fw;
      Machine m;
      m.vendor = kVendorDell;
      m.policy = 0x03;
      Boot(fw, m, u"q");
      row.setUp(FakeFirmware::MutableSettings(), FakeFirmware::MutableFlags());
      std::vector<uint8_t> image = MakeImage(Image("V1.01", row.imageModel));
      ReadImageBvdtInfo(image.data(), (UINT32)image.size());
      EXPECT_EQ(Func_PlatformCheck(image.data(), (UINT32)image.size()), kCheckOlder);
      const auto& events = ConsoleSpy::events;
      ASSERT_GE(events.size(), 4u);
      EXPECT_EQ(events.front(), "Attr:4F");
      std::string box;
      size_t i = 1;
      for (; i < events.size() && events[i] != "Attr:0F"; ++i) box += events[i];
      EXPECT_EQ(box, DellBox(row.imageModel, "DV-REF1000"));
      EXPECT_EQ(box.size(), 7u * 80u) << "seven screen lines of 80 characters";
      ASSERT_LT(i + 1, events.size());
      EXPECT_EQ(events[i + 1], "\r\n");
      EXPECT_EQ(i + 2, events.size()) << "the version prompt never comes";
      EXPECT_TRUE(ConsoleSpy::keys.empty());
      EXPECT_FALSE(ConsoleSpy::ranOut);
    });
  }
}

// ---- the displays ----

std::string Names(const std::string& current, const std::string& shown) {
  return "                           Current BIOS Model Name: " + current +
         "\r\n                           New     BIOS Model Name: " + shown + "\r\n";
}
std::string Versions(const std::string& current, const std::string& shown) {
  return "                           Current BIOS Version: " + current +
         "\r\n                           New     BIOS Version: " + shown + "\r\n";
}

TEST(PlatformCheck, ImageVersionDisplayFollowsOptionsAndFirmware) {
  struct Row {
    const char* what;
    uint8_t policy;
    Prepare setUp;
    std::string console;
    std::string shownModel;
    std::string shownVersion;
  };
  const Prepare list = [](FlashSettings& s, CommandFlags&) {
    s.platformCheck.flag = 2;
    s.platformVersion.flag = 1;
    SetList(s, {{"NB-7", "L1.00"}, {"NB-9", "L3.00"}});
  };
  const std::vector<Row> rows = {
      {"both", 0, kNothing, Names("DV-REF1000", "DV-OTHER") + Versions("V1.02", "V1.03"), "DV-OTHER", "V1.03"},
      {"-mc shows N/A everywhere", 0, [](FlashSettings&, CommandFlags& f) { f.mc = true; },
       Names("N/A", "N/A") + Versions("N/A", "N/A"), "N/A", "N/A"},
      {"-di hides the models", 0, [](FlashSettings&, CommandFlags& f) { f.di = true; }, Versions("V1.02", "V1.03"),
       "DV-OTHER", "V1.03"},
      {"firmware hides the models", 0x10, kNothing, Versions("V1.02", "V1.03"), "DV-OTHER", "V1.03"},
      {"firmware hides the versions", 0x20, kNothing, Names("DV-REF1000", "DV-OTHER"), "DV-OTHER", "V1.03"},
      {"list without a match shows its last pair", 0, list, Names("DV-REF1000", "NB-9") + Versions("V1.02", "L3.00"),
       "NB-9", "L3.00"},
  };
  for (const Row& row : rows) {
    Isolated(row.what, [&] {
      FakeFirmware fw;
      Boot(fw, WithPolicy(row.policy));
      row.setUp(FakeFirmware::MutableSettings(), FakeFirmware::MutableFlags());
      std::vector<uint8_t> image = MakeImage(Image("V1.03", "DV-OTHER"));
      ReadImageBvdtInfo(image.data(), (UINT32)image.size());
      ShowImageVersionInfo();
      EXPECT_EQ(ConsoleSpy::Text(), row.console);
      EXPECT_EQ(Narrow(NewImageModel()), row.shownModel);
      EXPECT_EQ(Narrow(NewImageVersion()), row.shownVersion);
    });
  }
}

TEST(PlatformCheck, CapsuleDisplayShowsAllFourLinesWhateverTheFlags) {
  for (bool useList : {false, true}) {
    Isolated("useList " + std::to_string(useList), [&] {
      FakeFirmware fw;
      Boot(fw, WithPolicy(0x30));
      FakeFirmware::MutableFlags().di = true;
      if (useList) {
        FlashSettings& s = FakeFirmware::MutableSettings();
        s.platformCheck.flag = 2;
        s.platformVersion.flag = 1;
        SetList(s, {{"NB-7", "L1.00"}});
      }
      std::vector<uint8_t> image = MakeImage(Image("V1.03", "DV-OTHER"));
      ReadImageBvdtInfo(image.data(), (UINT32)image.size());
      ShowUefiVersionInfo();
      // With a list the new model shown is the current one.
      const std::string shownModel = useList ? "DV-REF1000" : "DV-OTHER";
      EXPECT_EQ(ConsoleSpy::Text(),
                "                           Current BIOS Model Name: DV-REF1000\r\n"
                "                           New     BIOS Model Name: " +
                    shownModel +
                    "\r\n"
                    "                           Current System BIOS Version: V1.02\r\n"
                    "                           New     BIOS  Image Version: " +
                    std::string(useList ? "L1.00" : "V1.03") + "\r\n\r\n");
    });
  }
}

}  // namespace
