// EFI_FILE_PROTOCOL over a host directory with the answers of a FAT volume: open modes, names,
// creation, positions, reads and writes, deletion and directory listings, never leaving the
// volume's directory.
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "EmuHarness.h"

namespace {

constexpr UINT64 kRead = EFI_FILE_MODE_READ;
constexpr UINT64 kReadWrite = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
constexpr UINT64 kCreate = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE;
constexpr EFI_STATUS kWarnDeleteFailure = 2;

// A volume directory "volume" inside a scratch directory that also holds a file outside it.
class EmuFiles : public testing::Test {
 protected:
  void SetUp() override {
    WriteHostFile(scratch_ / "outside.txt", "secret");
    WriteHostFile(volume_ + "/Bios.BIN", "0123456789");
    WriteHostFile(volume_ + "/Sub/Inner.txt", "inner");
    environment_ = std::make_unique<emu::Environment>(OptionsWithVolumes({volume_}));
    VOID* interface = nullptr;
    environment_->SystemTable()->BootServices->HandleProtocol(environment_->VolumeHandle(0),
                                                              &kSimpleFileSystemProtocolGuid, &interface);
    auto* fileSystem = static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL*>(interface);
    ASSERT_EQ(fileSystem->OpenVolume(fileSystem, &root_), EFI_SUCCESS);
  }
  void TearDown() override {
    root_->Close(root_);
    environment_.reset();
  }

  EFI_FILE_PROTOCOL* Open(EFI_FILE_PROTOCOL* from, const std::u16string& name, UINT64 mode, EFI_STATUS expected,
                          UINT64 attributes = 0) {
    EFI_FILE_PROTOCOL* file = nullptr;
    EXPECT_EQ(from->Open(from, &file, name.c_str(), mode, attributes), expected);
    return file;
  }

  std::string ReadAll(EFI_FILE_PROTOCOL* file) {
    char buffer[256];
    UINTN size = sizeof buffer;
    EXPECT_EQ(file->Read(file, &size, buffer), EFI_SUCCESS);
    return std::string(buffer, size);
  }

  ScratchDirectory scratch_;
  std::string volume_ = scratch_ / "volume";
  std::unique_ptr<emu::Environment> environment_;
  EFI_FILE_PROTOCOL* root_ = nullptr;
};

TEST_F(EmuFiles, OpenFollowsFatNamesModesAndTheVolumeBoundary) {
  struct Row {
    std::u16string name;
    UINT64 mode;
    UINT64 attributes;
    EFI_STATUS expected;
    std::string content;  // what the opened file reads, when it is a file
  };
  const Row rows[] = {
      {u"bios.bin", kRead, 0, EFI_SUCCESS, "0123456789"},
      {u"\\\\Sub\\\\inner.TXT", kRead, 0, EFI_SUCCESS, "inner"},
      {u"Sub\\.\\..\\BIOS.bin", kReadWrite, 0, EFI_SUCCESS, "0123456789"},
      {u"missing.bin", kReadWrite, 0, EFI_NOT_FOUND, ""},
      {u"bios.bin", EFI_FILE_MODE_WRITE, 0, EFI_INVALID_PARAMETER, ""},
      {u"bios.bin", EFI_FILE_MODE_READ | EFI_FILE_MODE_CREATE, 0, EFI_INVALID_PARAMETER, ""},
      {u"..", kRead, 0, EFI_NOT_FOUND, ""},
      {u"..\\outside.txt", kRead, 0, EFI_NOT_FOUND, ""},
      {u"Sub\\..\\..\\outside.txt", kRead, 0, EFI_NOT_FOUND, ""},
      {u"\\..\\volume\\Bios.BIN", kRead, 0, EFI_NOT_FOUND, ""},
      {u"nodir\\new.bin", kCreate, 0, EFI_NOT_FOUND, ""},
      {u"Bios.BIN\\x", kRead, 0, EFI_NOT_FOUND, ""},
      {u"a:b", kCreate, 0, EFI_INVALID_PARAMETER, ""},
      {u"a/b", kCreate, 0, EFI_INVALID_PARAMETER, ""},
      {u"New.bin", kCreate, 0, EFI_SUCCESS, ""},
      {u"bios.bin", kCreate, 0, EFI_SUCCESS, "0123456789"},  // create opens what exists
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.name.begin(), row.name.end()));
    EFI_FILE_PROTOCOL* file = Open(root_, row.name, row.mode, row.expected, row.attributes);
    if (row.expected != EFI_SUCCESS) {
      EXPECT_EQ(file, nullptr);
      continue;
    }
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ReadAll(file), row.content);
    file->Close(file);
  }
  EXPECT_TRUE(std::filesystem::is_regular_file(volume_ + "/New.bin"));
  EXPECT_FALSE(std::filesystem::exists(volume_ + "/Bios.BIN/x"));
  EXPECT_EQ(ReadHostFile(scratch_ / "outside.txt"), "secret");
}

TEST_F(EmuFiles, CreateWithDirectoryAttributeMakesADirectory) {
  EFI_FILE_PROTOCOL* directory = Open(root_, u"Logs", kCreate, EFI_SUCCESS, EFI_FILE_DIRECTORY);
  ASSERT_NE(directory, nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(volume_ + "/Logs"));
  EFI_FILE_PROTOCOL* inside = Open(directory, u"ZAPROM.Log", kCreate, EFI_SUCCESS);
  ASSERT_NE(inside, nullptr);
  UINTN size = 3;
  EXPECT_EQ(inside->Write(inside, &size, "abc"), EFI_SUCCESS);
  inside->Close(inside);
  directory->Close(directory);
  EXPECT_EQ(ReadHostFile(volume_ + "/Logs/ZAPROM.Log"), "abc");
}

TEST_F(EmuFiles, WritesGoWhereThePositionSaysAndEndOfFileAppends) {
  EFI_FILE_PROTOCOL* file = Open(root_, u"BIOS.BIN", kReadWrite, EFI_SUCCESS);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(file->SetPosition(file, 0xFFFFFFFFFFFFFFFFULL), EFI_SUCCESS);
  UINT64 position = 0;
  EXPECT_EQ(file->GetPosition(file, &position), EFI_SUCCESS);
  EXPECT_EQ(position, 10u);
  UINTN size = 2;
  EXPECT_EQ(file->Write(file, &size, "AB"), EFI_SUCCESS);
  ASSERT_EQ(file->SetPosition(file, 3), EFI_SUCCESS);
  size = 1;
  EXPECT_EQ(file->Write(file, &size, "x"), EFI_SUCCESS);
  EXPECT_EQ(file->Flush(file), EFI_SUCCESS);
  // Reading at the end gives nothing; past the end is a device error.
  ASSERT_EQ(file->SetPosition(file, 12), EFI_SUCCESS);
  EXPECT_EQ(ReadAll(file), "");
  ASSERT_EQ(file->SetPosition(file, 13), EFI_SUCCESS);
  char byte;
  size = 1;
  EXPECT_EQ(file->Read(file, &size, &byte), EFI_DEVICE_ERROR);
  file->Close(file);
  EXPECT_EQ(ReadHostFile(volume_ + "/Bios.BIN"), "012x456789AB");
}

TEST_F(EmuFiles, ReadOnlyHandleRefusesWritingAndDeleting) {
  EFI_FILE_PROTOCOL* file = Open(root_, u"bios.bin", kRead, EFI_SUCCESS);
  ASSERT_NE(file, nullptr);
  UINTN size = 1;
  EXPECT_EQ(file->Write(file, &size, "z"), EFI_ACCESS_DENIED);
  EXPECT_EQ(file->Flush(file), EFI_ACCESS_DENIED);
  EXPECT_EQ(file->Delete(file), kWarnDeleteFailure);  // and the handle is closed
  EXPECT_EQ(ReadHostFile(volume_ + "/Bios.BIN"), "0123456789");
}

TEST_F(EmuFiles, DeleteRemovesFilesAndEmptyDirectoriesOnly) {
  EFI_FILE_PROTOCOL* file = Open(root_, u"bios.bin", kReadWrite, EFI_SUCCESS);
  EXPECT_EQ(file->Delete(file), EFI_SUCCESS);
  EXPECT_FALSE(std::filesystem::exists(volume_ + "/Bios.BIN"));
  EFI_FILE_PROTOCOL* full = Open(root_, u"sub", kReadWrite, EFI_SUCCESS);
  EXPECT_EQ(full->Delete(full), kWarnDeleteFailure);
  EXPECT_TRUE(std::filesystem::exists(volume_ + "/Sub/Inner.txt"));
  EFI_FILE_PROTOCOL* self = Open(root_, u"", kReadWrite, EFI_SUCCESS);
  EXPECT_EQ(self->Delete(self), kWarnDeleteFailure);  // the root stays
  EXPECT_TRUE(std::filesystem::exists(volume_));
}

TEST_F(EmuFiles, DirectoryReadsOneEntryPerCallAndRestartsOnlyAtZero) {
  EFI_FILE_PROTOCOL* directory = Open(root_, u"", kRead, EFI_SUCCESS);  // the same directory again
  ASSERT_NE(directory, nullptr);
  alignas(8) uint8_t buffer[512];
  auto* info = reinterpret_cast<EFI_FILE_INFO*>(buffer);
  UINTN size = 10;
  const UINTN needed = offsetof(EFI_FILE_INFO, FileName) + sizeof(u"Bios.BIN");
  EXPECT_EQ(directory->Read(directory, &size, buffer), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, needed);

  std::vector<std::pair<std::u16string, UINT64>> listed;
  for (;;) {
    size = sizeof buffer;
    ASSERT_EQ(directory->Read(directory, &size, buffer), EFI_SUCCESS);
    if (size == 0) break;
    EXPECT_EQ(info->Size, size);
    listed.push_back({info->FileName, info->Attribute & EFI_FILE_DIRECTORY ? UINT64(~0ULL) : info->FileSize});
  }
  const std::vector<std::pair<std::u16string, UINT64>> expected = {{u"Bios.BIN", 10}, {u"Sub", UINT64(~0ULL)}};
  EXPECT_EQ(listed, expected);

  UINT64 position = 0;
  EXPECT_EQ(directory->GetPosition(directory, &position), EFI_UNSUPPORTED);
  EXPECT_EQ(directory->SetPosition(directory, 1), EFI_UNSUPPORTED);
  ASSERT_EQ(directory->SetPosition(directory, 0), EFI_SUCCESS);
  size = sizeof buffer;
  ASSERT_EQ(directory->Read(directory, &size, buffer), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(info->FileName), u"Bios.BIN");
  UINTN one = 1;
  EXPECT_EQ(directory->Write(directory, &one, "x"), EFI_UNSUPPORTED);
  directory->Close(directory);
}

TEST_F(EmuFiles, FileInfoGivesNameSizeAndCanShortenTheFile) {
  EFI_FILE_PROTOCOL* file = Open(root_, u"\\SUB\\inner.txt", kReadWrite, EFI_SUCCESS);
  ASSERT_NE(file, nullptr);
  alignas(8) uint8_t buffer[256];
  auto* info = reinterpret_cast<EFI_FILE_INFO*>(buffer);
  UINTN size = sizeof buffer;
  ASSERT_EQ(file->GetInfo(file, &kFileInfoGuid, &size, buffer), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(info->FileName), u"Inner.txt");  // the name as the volume holds it
  EXPECT_EQ(info->FileSize, 5u);
  EXPECT_EQ(info->Attribute & EFI_FILE_DIRECTORY, 0u);
  info->FileSize = 2;
  EXPECT_EQ(file->SetInfo(file, &kFileInfoGuid, size, buffer), EFI_SUCCESS);
  EXPECT_EQ(file->GetInfo(file, &kLoadedImageProtocolGuid, &size, buffer), EFI_UNSUPPORTED);
  file->Close(file);
  EXPECT_EQ(ReadHostFile(volume_ + "/Sub/Inner.txt"), "in");
}

}  // namespace
