// The [MULTI_FD] rules against a described machine with real port, PCI and memory values: which
// rules hold, what they read and trace, which file names they keep, and the order of the walk.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "config/ConfigInternal.h"
#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"

namespace {

// Real values behind port, PCI and memory reads, written in the machine description's own form.
constexpr const char* kMachineJson = R"({
  "info": {"model_name": "DV-X200"},
  "io_ports": {"0xC0": {"value": "0x5AABFE02", "width": 4}, "0x80": "0x12"},
  "pci": [{"bus": 0, "device": "0x1F", "function": 2, "offset": "0x80", "value": "0x00007007"}],
  "memory": [{"address": "0x7F000000", "bytes": "5A A5 34 12"}]
})";

// The described machine behind the port, memory and SMI seams and behind the emulated PCI root
// bridge (unless a test takes it away).
class MultiImage : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override { return Machine(true); }
  static bed::BedSetup Machine(bool rootBridge) {
    bed::BedSetup setup;
    setup.machineJson = kMachineJson;
    setup.rootBridge = rootBridge;
    return setup;
  }
  // Lengths of the reads of the described memory.
  std::vector<uint32_t> MemoryWidths() const {
    std::vector<uint32_t> widths;
    for (auto [address, length] : physicalReads)
      if (address >= 0x7F000000u && address < 0x80000000u) widths.push_back(length);
    return widths;
  }
};

// The rules of one walk, by number, and the numbers the walk asked for.
std::map<UINTN, std::string> gRules;
std::vector<UINTN> gAsked;

Bool ReadTestRule(UINTN number, CHAR8* rule, UINTN capacity) {
  gAsked.push_back(number);
  auto found = gRules.find(number);
  if (found == gRules.end() || found->second.empty()) return false;
  std::snprintf(rule, capacity, "%s", found->second.c_str());
  return true;
}

std::string MatchedImageName() {
  CHAR16 name[41];
  for (CHAR16& c : name) c = u'#';
  GetMatchedImageName(name);
  EXPECT_EQ(name[40], u'#') << "GetMatchedImageName wrote past 40 characters";
  return std::string(name, name + std::u16string(name, 40).find(u'\0'));
}

std::string MatchedBlock(const std::string& image, const std::string& me, const std::string& ini) {
  return " M-FD matched\r\n-------+-----------------\r\n   FD   " + image + "\r\n   ME   " + me + "\r\n  Cfg   " + ini + "\r\n";
}

const std::string kNoImageMessage = "configure type format error\r\nFD file setting NOT found\r\n\r\n\r\n[Multi_FD]\r\n";

TEST_F(MultiImage, EachRuleTypeHoldsOnlyForTheMachinesOwnValues) {
  struct Row {
    const char* rule;
    bool holds;
    const char* image;
    const char* me;
    std::vector<std::string> traces;  // in the log, in this order
    std::vector<int> ioWidths;
    std::vector<uint32_t> memoryWidths;
  };
  const std::string tooLongName(40, 'n');
  const std::string longestName(39, 'n');
  const std::string tooLongRule = "IO,80,FF,12," + tooLongName;
  const std::string longestRule = "IO,80,FF,12," + longestName;
  const std::string tooLongModel = "ID," + std::string(64, 'D') + ",id.fd";
  const Row rows[] = {
      // IO: port 0xC0 holds 0x5AABFE02, port 0x80 holds 0x12; the value's length sets the width.
      {"IO,C0,FFFF,02,b.fd", true, "b.fd", "",
       {" FD#XX=IO (C0)\r\n FD#XX=IO (FFFF)\r\n FD#XX=IO (02)\r\n", " CpuIoRead Address [C0] Size [1]\r\n", "IO Data |0x2\r\n"}, {1}, {}},
      {"IO,C0,FFFF,FE02,w.fd", true, "w.fd", "", {" CpuIoRead Address [C0] Size [2]\r\n", "IO Data |0xFE02\r\n"}, {2}, {}},
      {"IO,C0,FFFF,0002,w.fd", false, "", "", {"IO Data |0xFE02\r\n"}, {2}, {}},
      {"io,C0,5AABFE02,5aabfe02,9.fd,ME.fd", true, "9.fd", "ME.fd", {" CpuIoRead Address [C0] Size [4]\r\n"}, {4}, {}},
      {"IO,80,03,02,x.fd", true, "x.fd", "", {"IO Data |0x12\r\n"}, {1}, {}},
      {"IO,80,03,01,x.fd", false, "", "", {"IO Data |0x12\r\n"}, {1}, {}},
      {"IO,,,,zero.fd", true, "zero.fd", "", {" CpuIoRead Address [0] Size [1]\r\n", "IO Data |0xFF\r\n"}, {1}, {}},
      {"IO,C0-FFFF-02,a-b.fd", true, "a", "b.fd", {}, {1}, {}},
      {"IO,000C0,FF,02,x.fd", false, "", "", {"IsMatch_IO() [Offset] | invalid (000C0)\r\n"}, {}, {}},
      {"IO,C0,FF,102030405,x.fd", false, "", "", {"IsMatch_IO() [value] | invalid (102030405)\r\n"}, {}, {}},
      {"IO,C0,FG,02,x.fd", false, "", "", {"IsMatch_IO() [mask] | invalid (FG)\r\n"}, {}, {}},
      {"IO,C0,FF", false, "", "", {"IsMatch_IO() configure format | error | IO,C0,FF\r\n"}, {}, {}},
      // PCI: bus 0, device 1Fh, function 2, register 80h holds 7007h; others read all ones.
      {"PCI,0,1F,2,80,FFFFFFFF,00007007,my-bios.fd", true, "my", "bios.fd",
       {" ReadPciIo()\r\n-------+-----------------\r\n    Bus   0\r\n Device   1F\r\n   Func   2\r\n Offset   80\r\n   Addr   1F0280\r\n",
        "PCI Data |0x7007\r\n"}, {}, {}},
      {"PCI,0,1F,2,80,FFFF,7008,p.fd", false, "", "", {"PCI Data |0x7007\r\n"}, {}, {}},
      {"PCI,0,1F,2,84,FFFFFFFF,FFFFFFFF,p.fd", true, "p.fd", "", {"PCI Data |0xFFFFFFFF\r\n"}, {}, {}},
      {"PCI,0,1F,2,180,FF,07,p.fd", false, "", "", {"IsMatch_PCI() [Offset] | invalid (180)\r\n"}, {}, {}},
      {"PCI,0,1F,2,80,1FFFFFFFF,07,p.fd", false, "", "", {"IsMatch_PCI() [mask] | invalid (1FFFFFFFF)\r\n"}, {}, {}},
      {"PCI,100,1F,2,80,FF,07,p.fd", false, "", "", {"IsMatch_PCI() [Bus] | invalid (100)\r\n"}, {}, {}},
      {"PCI,0,1F,2,80,FF", false, "", "", {"IsMatch_PCI() configure format | error | PCI,0,1F,2,80,FF\r\n"}, {}, {}},
      // The root bridge refuses device 20h and a register read off its 4-byte boundary.
      {"PCI,0,20,0,0,0,0,p.fd", false, "", "", {"   Addr   200000\r\n"}, {}, {}},
      {"PCI,0,1F,2,81,0,0,p.fd", false, "", "", {"   Addr   1F0281\r\n"}, {}, {}},
      // MEMORY: 0x7F000000 holds 5A A5 34 12 and nothing follows it.
      {"MEMORY,7F000000,FFFFFFFF,1234A55A,m.fd", true, "m.fd", "", {"MEMORY Data |0x1234A55A\r\n"}, {}, {4}},
      {"memory,7F000000,FF,5A,m.fd", true, "m.fd", "", {"MEMORY Data |0x5A\r\n"}, {}, {1}},
      {"MEMORY,7F000002,FFFF,1234,m.fd", true, "m.fd", "", {"MEMORY Data |0x1234\r\n"}, {}, {2}},
      {"MEMORY,7F000002,FFFF,00001234,m.fd", false, "", "", {}, {}, {4}},
      {"MEMORY,7F000000,FF,5B,m.fd", false, "", "", {"MEMORY Data |0x5A\r\n"}, {}, {1}},
      {"MEMORY,17F000000,FF,5A,m.fd", false, "", "", {"IsMatch_MEMORY() [Phy Addr] | invalid (17F000000)\r\n"}, {}, {}},
      // A read that would run past 4 GB is not made.
      {"MEMORY,FFFFFFFE,FFFFFFFF,00000000,m.fd", false, "", "", {}, {}, {}},
      {"MEMORY,7F000000,FF", false, "", "", {"IsMatch_MEMORY() configure format | error\r\n"}, {}, {}},
      // MEMORY keeps its dashes: the whole text is one field and the rule is short of two.
      {"MEMORY,7F000000-FF-5A,m.fd", false, "", "", {"IsMatch_MEMORY() configure format | error\r\n"}, {}, {}},
      // ID: the model name of function 11h, either case; dashes stay.
      {"ID,dv-x200,a-b.fd", true, "a-b.fd", "",
       {" FD#XX=ID\r\n-------+-----------------\r\n    cfg   dv-x200\r\n    11h   DV-X200\r\n"}, {}, {}},
      {"ID,DV-X20,id.fd", false, "", "", {}, {}, {}},
      {tooLongModel.c_str(), false, "", "", {"IsMatch_ID() configure format | error\r\n"}, {}, {}},
      // MPCIIO: conditions are alternatives, tested in order.
      {"MPCIIO,2,PCI-0-1F-2-80-FFFF-7007,IO-80-FF-13,mp.fd", true, "mp.fd", "", {"[Condition Number] | 2\r\n"}, {}, {}},
      {"MPCIIO,2,io-80-ff-13,io-80-ff-12,mp.fd", true, "mp.fd", "", {"IO Data |0x12\r\n", "IO Data |0x12\r\n"}, {1, 1}, {}},
      {"MPCIIO,2,IO-80-FF-13,IO-80-FF-11,mp.fd", false, "", "", {}, {1, 1}, {}},
      {"MPCIIO,1,OS-1,mp.fd", false, "", "", {"[Condition Number] | 1\r\n"}, {}, {}},
      {"MPCIIO,B,IO-80-FF-12,mp.fd", false, "", "", {"IsMatch_MPCIIO() [Condition Number] | invalid (B)\r\n"}, {}, {}},
      {"MPCIIO,3,IO-80-FF-12,IO-80-FF-12", false, "", "", {"IsMatch_MPCIIO() configure format | error\r\n"}, {}, {}},
      {"MPCIIO", false, "", "", {"IsMatch_MPCIIO() [Condition Number] | invalid (MPCIIO)\r\n"}, {}, {}},
      // Other types never hold; file names have room for 39 characters.
      {"OS,Win10,os.fd", false, "", "", {}, {}, {}},
      {"IOIOIOIOIOIOIOIOIO,80,FF,12,x.fd", false, "", "", {}, {}, {}},
      {longestRule.c_str(), true, longestName.c_str(), "", {}, {1}, {}},
      {tooLongRule.c_str(), false, "", "", {"IsCondi_match() file name too long | " + tooLongRule + "\r\n"}, {1}, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.rule);
    Install(Layout());
    // Initialize opens the channel and asks 11h for the model name before any rule is walked.
    ASSERT_TRUE(InitialSmi());
    ASSERT_TRUE(FuncOblis_11h());
    ioWidths.clear();
    physicalReads.clear();
    gRules = {{1, row.rule}};
    EXPECT_EQ(WalkMultiFdRules(ReadTestRule), row.holds);
    EXPECT_EQ(MatchedImageName(), row.image);
    const std::string log = Log();
    size_t at = log.find(std::string("IsCondi_match() # (01) ") + row.rule + "\r\n");
    EXPECT_NE(at, std::string::npos) << log;
    for (const std::string& trace : row.traces) {
      at = at == std::string::npos ? at : log.find(trace, at);
      EXPECT_NE(at, std::string::npos) << "missing trace: " << trace << "\n" << log;
      if (at != std::string::npos) at += trace.size();
    }
    EXPECT_EQ(log.find(" M-FD matched") != std::string::npos, row.holds);
    if (row.holds) EXPECT_NE(log.find(MatchedBlock(row.image, row.me, "")), std::string::npos);
    EXPECT_EQ(ioWidths, row.ioWidths);
    EXPECT_EQ(MemoryWidths(), row.memoryWidths);
    EXPECT_EQ(Console().find("FD file setting NOT found"), std::string::npos);
  }
}

TEST_F(MultiImage, RuleWithoutImageFileIsShownAndTheWalkGoesOn) {
  // A rule ending in a comma has no empty last field. MPCIIO with count 2 and one condition
  // takes the image name as the second condition; the first holds and no image name is left.
  const char* const rules[] = {"IO,80,FF,12", "IO,80,FF,12,", "MPCIIO,2,IO-80-FF-12,mp.fd"};
  for (const char* rule : rules) {
    SCOPED_TRACE(rule);
    Install(Layout());
    gRules = {{1, rule}, {2, "IO,80,FF,12,ok.fd,me.fd,cfg.ini"}};
    EXPECT_TRUE(WalkMultiFdRules(ReadTestRule));
    EXPECT_EQ(MatchedImageName(), "ok.fd");
    EXPECT_NE(Console().find(kNoImageMessage + rule + "\r\n"), std::string::npos);
    EXPECT_NE(Log().find(MatchedBlock("ok.fd", "me.fd", "cfg.ini")), std::string::npos);
  }
}

TEST_F(MultiImage, WalkTakesTheLowestHoldingNumberAndOnlyOneToNinetyNine) {
  struct Row {
    std::map<UINTN, std::string> rules;
    bool holds;
    const char* image;
    UINTN lastAsked;
  };
  const Row rows[] = {
      {{{7, "IO,80,FF,12,seven.fd"}, {3, "IO,80,FF,12,three.fd"}, {1, "OS,x,os.fd"}, {2, ""}}, true, "three.fd", 3},
      {{{0, "IO,80,FF,12,zero.fd"}, {5, "IO,80,FF,13,five.fd"}, {100, "IO,80,FF,12,hundred.fd"}}, false, "", 99},
      {{{99, "IO,80,FF,12,last.fd"}}, true, "last.fd", 99},
      {{}, false, "", 99},
  };
  for (const Row& row : rows) {
    Install(Layout());
    // A walk that held before: its names are cleared by the next walk.
    gRules = {{1, "IO,80,FF,12,before.fd"}};
    ASSERT_TRUE(WalkMultiFdRules(ReadTestRule));
    gRules = row.rules;
    gAsked.clear();
    EXPECT_EQ(WalkMultiFdRules(ReadTestRule), row.holds);
    EXPECT_EQ(MatchedImageName(), row.image);
    std::vector<UINTN> expected;
    for (UINTN n = 1; n <= row.lastAsked; n++) expected.push_back(n);
    EXPECT_EQ(gAsked, expected);
  }
}

TEST_F(MultiImage, SettingsRulesAreWalkedAndOnlyFlagOneIsMultiImageMode) {
  const int flags[] = {0, 1, 2};
  for (int flag : flags) {
    Install(Layout());
    FlashSettings& settings = *MutableSettings();
    settings.multiFd.flag = flag;
    std::snprintf(settings.multiFd.fd[0], kIniTextBytes, "IO,80,FF,12,zero.fd");
    std::snprintf(settings.multiFd.fd[9], kIniTextBytes, "IO,80,FF,12,nine.fd");
    EXPECT_EQ(IsMultiFdMode(), flag == 1);
    EXPECT_TRUE(IsCondi_match());
    EXPECT_EQ(MatchedImageName(), "nine.fd") << flag;
  }
}

TEST_F(MultiImage, PlatformReadsFailWithoutTheirDevice) {
  // No root bridge protocol: the PCI read fails, so does its rule, and no register was asked.
  Install(Machine(false));
  UINT32 data = 0x1234;
  EXPECT_FALSE(ReadPciIo(0, 0x1F, 2, 0x80, &data));
  EXPECT_EQ(data, 0x1234u);
  gRules = {{1, "PCI,0,1F,2,80,0,0,p.fd"}};
  EXPECT_FALSE(WalkMultiFdRules(ReadTestRule));
  EXPECT_EQ(pciReads, 0);
  // Port input has three widths only.
  EXPECT_FALSE(CpuIoRead(3, 0xC0, &data));
  EXPECT_TRUE(ioWidths.empty());
  ASSERT_TRUE(CpuIoRead(4, 0xC0, &data));
  EXPECT_EQ(data, 0x5AABFE02u);
}

}  // namespace
