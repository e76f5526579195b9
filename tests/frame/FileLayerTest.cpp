// The file layer against host directories: names relative to the host's current directory, the
// choice of volume, and the traces an engineer finds in ZAPROM.Log.
#include <string>
#include <vector>

#include "FrameHarness.h"
#include "support/Isolated.h"

using frame_test::FindAfter;
using frame_test::FrameHarness;
using frame_test::HarnessSetup;
using frame_test::ReadHostFile;
using frame_test::WriteHostFile;
namespace fs = std::filesystem;

namespace {

std::string Bytes(const UINT8* data, UINT32 size) { return std::string(reinterpret_cast<const char*>(data), size); }

TEST(FileLayer, ReadFileGivesSizeAndBytesAndMayOnlyProbe) {
  FrameHarness harness;
  harness.StartDriver();
  const std::string content("BIOS\0image\xFF", 11);
  WriteHostFile(harness.Volume(0) / "image.fd", content);
  WriteHostFile(harness.Volume(0) / "empty.bin", "");

  UINT8* data = nullptr;
  UINT32 size = 0;
  ASSERT_TRUE(ReadFile(u"image.fd", &data, &size));
  EXPECT_EQ(size, content.size());
  EXPECT_EQ(Bytes(data, size), content);
  FreePoolAndNull(data);

  UINT32 sizeOnly = 0;
  EXPECT_TRUE(ReadFile(u"image.fd", nullptr, &sizeOnly));
  EXPECT_EQ(sizeOnly, content.size());
  EXPECT_TRUE(ReadFile(u"image.fd", nullptr, nullptr));

  // An empty file still gives the caller a block to own.
  ASSERT_TRUE(ReadFile(u"empty.bin", &data, &size));
  EXPECT_EQ(size, 0u);
  EXPECT_NE(data, nullptr);
  FreePoolAndNull(data);

  // An empty name opens the directory itself, which reads as empty.
  size = 99;
  ASSERT_TRUE(ReadFile(u"", &data, &size));
  EXPECT_EQ(size, 0u);
  EXPECT_NE(data, nullptr);
  FreePoolAndNull(data);
}

TEST(FileLayer, ReadFileOfMissingFileIsFalseWithTheTrace) {
  FrameHarness harness;
  harness.StartDriver();
  harness.EnableLog();
  UINT8* data = nullptr;
  UINT32 size = 7;
  EXPECT_FALSE(ReadFile(u"missing.fd", &data, &size));
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(size, 7u);
  EXPECT_NE(harness.Log().find("Open file [\\missing.fd] fail - Not Found\r\n"), std::string::npos) << harness.Log();
}

TEST(FileLayer, SaveCreatesOverwritesAndProvesWritabilityWithSizeZero) {
  FrameHarness harness;
  harness.StartDriver();
  EXPECT_TRUE(SaveBufferToFile(u"dump.bin", "12345678", 8));
  EXPECT_EQ(ReadHostFile(harness.Volume(0) / "dump.bin"), "12345678");
  EXPECT_TRUE(SaveBufferToFile(u"dump.bin", "ABCDEFGH", 8));
  EXPECT_EQ(ReadHostFile(harness.Volume(0) / "dump.bin"), "ABCDEFGH");

  EXPECT_TRUE(SaveBufferToFile(u"probe.bin", nullptr, 0));
  EXPECT_TRUE(fs::exists(harness.Volume(0) / "probe.bin"));
  EXPECT_EQ(fs::file_size(harness.Volume(0) / "probe.bin"), 0u);
}

TEST(FileLayer, AppendAddsAtTheEndAndCreatesTheFile) {
  FrameHarness harness;
  harness.StartDriver();
  EXPECT_TRUE(AppendBufferToFile(u"notes.txt", "one\r\n", 5));
  EXPECT_TRUE(AppendBufferToFile(u"notes.txt", "two\r\n", 5));
  EXPECT_EQ(ReadHostFile(harness.Volume(0) / "notes.txt"), "one\r\ntwo\r\n");
}

TEST(FileLayer, DeleteRemovesAFileAndCountsAMissingOneAsDeleted) {
  FrameHarness harness;
  harness.StartDriver();
  WriteHostFile(harness.Volume(0) / "old.log", "x");
  EXPECT_TRUE(EfiDeleteFile(u"old.log"));
  EXPECT_FALSE(fs::exists(harness.Volume(0) / "old.log"));
  EXPECT_TRUE(EfiDeleteFile(u"never-there.log"));
}

TEST(FileLayer, MakeDirectoryCreatesItAndTracesBothNames) {
  FrameHarness harness;
  harness.StartDriver();
  harness.EnableLog();
  EXPECT_TRUE(MakeDirectory(u"\\Dovrin"));
  EXPECT_TRUE(fs::is_directory(harness.Volume(0) / "Dovrin"));
  SetCurrentDirectory(u"fs0:\\Dovrin");
  EXPECT_TRUE(MakeDirectory(u"Out"));
  EXPECT_TRUE(fs::is_directory(harness.Volume(0) / "Dovrin" / "Out"));
  EXPECT_NE(harness.Log().find("  Str - (\\Dovrin)\r\nmkDir - (\\Dovrin)\r\n"), std::string::npos) << harness.Log();
  // The log follows the current directory too.
  std::string movedLog = ReadHostFile(harness.Volume(0) / "Dovrin" / "ZAPROM.Log");
  EXPECT_NE(movedLog.find("  Str - (Out)\r\nmkDir - (.\\Dovrin\\\\Out)\r\n"), std::string::npos)
      << movedLog;
}

TEST(FileLayer, NamesAreRelativeToTheHostsCurrentDirectory) {
  FrameHarness harness;
  harness.StartDriver();
  fs::create_directories(harness.Volume(0) / "efi" / "tool");
  WriteHostFile(harness.Volume(0) / "efi" / "tool" / "platform.ini", "[Log_file]\r\n");
  SetCurrentDirectory(u"fs0:\\efi\\tool");

  UINT32 size = 0;
  EXPECT_TRUE(ReadFile(u"platform.ini", nullptr, &size));
  EXPECT_EQ(size, 12u);
  EXPECT_TRUE(SaveBufferToFile(u"rom.bin", "R", 1));
  EXPECT_EQ(ReadHostFile(harness.Volume(0) / "efi" / "tool" / "rom.bin"), "R");
  EXPECT_TRUE(AppendBufferToFile(u"rom.bin", "S", 1));
  EXPECT_EQ(ReadHostFile(harness.Volume(0) / "efi" / "tool" / "rom.bin"), "RS");
  // A name that starts with '\' is taken from the root by the two functions that allow it.
  EXPECT_TRUE(SaveBufferToFile(u"\\rooted.bin", "T", 1));
  EXPECT_EQ(ReadHostFile(harness.Volume(0) / "rooted.bin"), "T");
  EXPECT_FALSE(fs::exists(harness.Volume(0) / "efi" / "tool" / "rooted.bin"));
  EXPECT_TRUE(EfiDeleteFile(u"rom.bin"));
  EXPECT_FALSE(fs::exists(harness.Volume(0) / "efi" / "tool" / "rom.bin"));
}

TEST(FileLayer, WithoutHostImageTheFirstUsbVolumeIsTakenElseTheFirstVolume) {
  using emu::VolumeKind;
  struct Row {
    std::vector<VolumeKind> volumes;
    size_t expectedVolume;
    std::string expectedTrace;
  };
  const std::vector<Row> rows = {
      {{VolumeKind::Sata, VolumeKind::Usb, VolumeKind::Usb}, 1, "SetFileHandle() |set| (1)\r\n"},
      {{VolumeKind::Sata, VolumeKind::Emmc}, 0, "GetSubtype_1st() |fail| (2)\r\nSetFileHandle() |set| (0)\r\n"},
      {{VolumeKind::Usb}, 0, "SetFileHandle() |set| (0)\r\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
      HarnessSetup setup;
      setup.volumes = row.volumes;
      FrameHarness harness(setup);
      harness.StartDriver();
      harness.EnableLog();
      EXPECT_TRUE(SaveBufferToFile(u"probe.bin", "P", 1));
      for (size_t i = 0; i < row.volumes.size(); i++) {
        EXPECT_EQ(fs::exists(harness.Volume(i) / "probe.bin"), i == row.expectedVolume) << "volume " << i;
      }
      EXPECT_NE(harness.Log(row.expectedVolume).find(row.expectedTrace), std::string::npos)
          << harness.Log(row.expectedVolume);
    }));
  }
}

TEST(FileLayer, WithHostImageTheVolumeOfThatImageIsTaken) {
  HarnessSetup setup;
  setup.volumes = {emu::VolumeKind::Usb, emu::VolumeKind::Sata};
  FrameHarness harness(setup);
  harness.StartDriver();
  // The tool's own volume is the first; the USB preference does not apply to a host's image.
  SetImageHandle(harness.Environment().CreateImageHandle(u"ZAPROM.efi", {u"ZAPROM.efi"}));
  EXPECT_TRUE(SaveBufferToFile(u"probe.bin", "P", 1));
  EXPECT_TRUE(fs::exists(harness.Volume(0) / "probe.bin"));
}

TEST(FileLayer, FailingLogFileEndsWithoutEndlessRecursion) {
  FrameHarness harness;
  harness.StartDriver();
  harness.EnableLog();
  // A directory in the log file's place: every append of a log line fails to open it.
  fs::create_directories(harness.Volume(0) / "ZAPROM.Log" / "inside");
  EXPECT_FALSE(AppendBufferToFile(u"ZAPROM.Log", "line\r\n", 6));
  LogPrint(kLogDetail, u"still alive\r\n");
  EXPECT_TRUE(fs::is_directory(harness.Volume(0) / "ZAPROM.Log"));
}

TEST(FileLayer, NothingWorksWithoutAVolume) {
  HarnessSetup setup;
  setup.volumes = {};
  FrameHarness harness(setup);
  SetFirmwareTables(nullptr, harness.Environment().SystemTable());
  EXPECT_EQ(GetRootDirectory(), nullptr);
  EXPECT_FALSE(ReadFile(u"a", nullptr, nullptr));
  EXPECT_FALSE(SaveBufferToFile(u"a", "x", 1));
  EXPECT_FALSE(AppendBufferToFile(u"a", "x", 1));
  EXPECT_FALSE(EfiDeleteFile(u"a"));
  EXPECT_FALSE(MakeDirectory(u"a"));
}

}  // namespace
