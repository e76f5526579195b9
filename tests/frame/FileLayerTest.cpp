// The file layer against host directories: each operation and the state it leaves, names relative
// to the host's current directory, the choice of volume, and the traces in ZAPROM.Log.
#include <functional>
#include <string>
#include <vector>

#include "frame/FrameInternal.h"
#include "output/Output.h"
#include "support/DriverBed.h"

namespace {

using FileLayer = bed::ScriptedBed;

namespace fs = std::filesystem;

std::string Read(const CHAR16* name) {
  UINT8* data = nullptr;
  UINT32 size = 99;
  if (!ReadFile(name, &data, &size)) return "(refused)";
  std::string bytes = data == nullptr ? "(no block)" : std::string(reinterpret_cast<char*>(data), size);
  FreePoolAndNull(data);
  return bytes;
}

TEST_F(FileLayer, EachOperationLeavesItsFiles) {
  struct Row {
    const char* what;
    std::function<bool()> operation;
    const char* path;      // on the volume, after the operation
    const char* expected;  // its bytes; null: absent; "/": a directory
  } rows[] = {
      {"save creates", [] { return SaveBufferToFile(u"dump.bin", "12345678", 8); }, "dump.bin", "12345678"},
      {"save overwrites", [] { return SaveBufferToFile(u"dump.bin", "ABCD", 4); }, "dump.bin", "ABCD"},
      {"save of nothing proves the place writable", [] { return SaveBufferToFile(u"probe.bin", nullptr, 0); }, "probe.bin", ""},
      {"append creates", [] { return AppendBufferToFile(u"notes.txt", "one\r\n", 5); }, "notes.txt", "one\r\n"},
      {"append adds at the end", [] { return AppendBufferToFile(u"notes.txt", "two\r\n", 5); }, "notes.txt", "one\r\ntwo\r\n"},
      {"read gives size and bytes", [] { return Read(u"dump.bin") == "ABCD"; }, "dump.bin", "ABCD"},
      {"an empty file still gives a block", [] { return Read(u"probe.bin").empty(); }, "probe.bin", ""},
      {"an empty name reads the directory as empty", [] { return Read(u"").empty(); }, "notes.txt", "one\r\ntwo\r\n"},
      {"a missing file is refused", [] { return Read(u"missing.fd") == "(refused)"; }, "missing.fd", nullptr},
      {"delete removes", [] { return EfiDeleteFile(u"dump.bin"); }, "dump.bin", nullptr},
      {"a missing file counts as deleted", [] { return EfiDeleteFile(u"never.log"); }, "never.log", nullptr},
      {"make directory", [] { return MakeDirectory(u"\\Dovrin"); }, "Dovrin", "/"},
      {"names follow the current directory", [] { return SetCurrentDirectory(u"fs0:\\Dovrin"), MakeDirectory(u"Out"); },
       "Dovrin/Out", "/"},
      {"relative save", [] { return SaveBufferToFile(u"rom.bin", "R", 1) && AppendBufferToFile(u"rom.bin", "S", 1); },
       "Dovrin/rom.bin", "RS"},
      {"a name from the root", [] { return SaveBufferToFile(u"\\rooted.bin", "T", 1); }, "rooted.bin", "T"},
      {"relative delete", [] { return EfiDeleteFile(u"rom.bin"); }, "Dovrin/rom.bin", nullptr},
      {"a refused read is traced", [] { return true; }, "ZAPROM.Log", "~Open file [\\missing.fd] fail - Not Found\r\n"},
      {"the log follows the current directory", [] { return true; }, "Dovrin/ZAPROM.Log",
       "~  Str - (Out)\r\nmkDir - (.\\Dovrin\\\\Out)\r\n"},
      {"a log that cannot be written ends without endless recursion", [this] {
         fs::path log = Volume(0) / "Dovrin" / "ZAPROM.Log";
         fs::remove(log), fs::create_directories(log / "inside");
         return !AppendBufferToFile(u"ZAPROM.Log", "line\r\n", 6) && (LogPrint(kLogDetail, u"still alive\r\n"), true);
       }, "Dovrin/ZAPROM.Log", "/"},
  };
  StartDriver();
  for (const Row& row : rows) {
    EXPECT_TRUE(row.operation()) << row.what;
    std::string path = fs::path(row.path).string();
    fs::path onVolume = Volume(0) / row.path;
    if (row.expected == nullptr) EXPECT_FALSE(fs::exists(onVolume)) << row.what;
    else if (std::string(row.expected) == "/") EXPECT_TRUE(fs::is_directory(onVolume)) << row.what;
    else if (row.expected[0] == '~') EXPECT_NE(ReadVolumeFile(path).find(row.expected + 1), std::string::npos) << row.what;
    else EXPECT_EQ(ReadVolumeFile(path), row.expected) << row.what;
  }
}

TEST_F(FileLayer, TheVolumeIsTheHostImagesElseTheFirstUsbElseTheFirst) {
  using emu::VolumeKind;
  struct Row {
    std::vector<VolumeKind> volumes;
    bool hostImage;
    size_t expected;
    bool noUsbTraced;  // "GetSubtype_1st() |fail|" in the chosen volume's log
  } rows[] = {
      {{VolumeKind::Sata, VolumeKind::Usb, VolumeKind::Usb}, false, 1, false},
      {{VolumeKind::Sata, VolumeKind::Emmc}, false, 0, true},
      {{VolumeKind::Usb, VolumeKind::Sata}, true, 0, false},  // a host's image: its volume, USB or not
      {{}, false, 0, false},  // no volume: nothing works
  };
  for (const Row& row : rows) {
    bed::BedSetup setup = Layout();
    setup.volumes = row.volumes;
    setup.log = false;
    Install(setup);
    // The bed's set-up has chosen a volume with the trace off; this run chooses again with it on.
    ScanArguments({u"ZAPROM.efi", u"-dbg"});
    ResetFileLayerState();
    if (!row.volumes.empty()) StartDriver();
    if (row.hostImage) SetImageHandle(Environment().CreateImageHandle(u"ZAPROM.efi", {u"ZAPROM.efi"}));
    EXPECT_EQ(SaveBufferToFile(u"probe.bin", "P", 1), !row.volumes.empty());
    if (!row.volumes.empty())
      EXPECT_EQ(ReadVolumeFile("ZAPROM.Log", row.expected).find("GetSubtype_1st() |fail|") != std::string::npos, row.noUsbTraced) << ReadVolumeFile("ZAPROM.Log", row.expected);
    for (size_t i = 0; i < row.volumes.size(); i++) EXPECT_EQ(fs::exists(Volume(i) / "probe.bin"), i == row.expected);
    if (row.volumes.empty())
      EXPECT_TRUE(GetRootDirectory() == nullptr && !ReadFile(u"a", nullptr, nullptr) && !AppendBufferToFile(u"a", "x", 1) &&
                  !EfiDeleteFile(u"a") && !MakeDirectory(u"a"));
  }
}

}  // namespace
