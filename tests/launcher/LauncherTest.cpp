// The launcher with a recording driver linked in, whose chain LoadImage fills from the slot: the
// lines and statuses of each way a run fails, the calls that close every run, and the firmware
// volume that LoadImage must not see but the update must.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "KobaltApp.h"
#include "uefi-emu/UefiEmu.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kHidden[16] = {0x16, 0x3C, 0x1F, 0x17, 0x78, 0xF1, 0x6B, 0x4B, 0x11, 0xD6, 0x7E, 0x2F, 0x17, 0xC0, 0x9A, 0x10};
constexpr uint8_t kOther[16] = {0x93, 0xFD, 0x21, 0x9E, 0x72, 0x9C, 0x15, 0x4C, 0x8C, 0x4B, 0xE7, 0x7F, 0x1D, 0xB2, 0xD7, 0x92};
constexpr uint8_t kVariableStore[16] = {0x8D, 0x2B, 0xF1, 0xFF, 0x96, 0x76, 0x8B, 0x4C, 0xA9, 0x85, 0x27, 0x47, 0x07, 0x5B, 0x4F, 0x50};

Bytes operator+(Bytes left, const Bytes& right) { return left.insert(left.end(), right.begin(), right.end()), left; }
Bytes Text(const char* text) { return Bytes(text, text + std::strlen(text)); }
void PutLe(Bytes& b, size_t at, uint64_t value, int count) {
  for (int i = 0; i < count; i++) b[at + i] = (uint8_t)(value >> (8 * i));
}

// A file header whose 8-bit sum (integrity and state bytes left out) is 0, then a body of 0xA5.
// A large file keeps a misleading 24-bit size, since its real size is the u32 behind it.
Bytes File(const uint8_t* name, uint32_t size = 0x30, uint8_t type = 0x07, bool large = false, uint8_t sumError = 0) {
  Bytes f(size, 0xA5);
  std::memcpy(f.data(), name, 16), PutLe(f, 0x14, large ? 0x18 : size, 3);
  f[0x11] = 0xAA, f[0x12] = type, f[0x13] = large, f[0x17] = 0xF8, f[0x10] = 0;
  if (large) PutLe(f, 0x18, size, 4);
  uint8_t sum = 0;
  for (int i = 0; i < 24; i++) sum += (i == 0x11 || i == 0x17) ? 0 : f[i];
  return f[0x10] = (uint8_t)(sumError - sum), f;
}

// A volume header of 0x48 bytes whose 16-bit sum is 0, its files each at a multiple of 8; the
// length field says length, or what the volume holds.
Bytes Volume(const std::vector<Bytes>& files, const uint8_t* fileSystem = kOther, uint32_t length = 0, uint16_t sumError = 0) {
  Bytes v(0x48, 0);
  std::memcpy(v.data() + 0x10, fileSystem, 16), std::memcpy(v.data() + 0x28, "_FVH", 4), PutLe(v, 0x30, 0x48, 2);
  for (const Bytes& file : files) v = v + file, v.resize((v.size() + 7) / 8 * 8, 0xFF);
  PutLe(v, 0x20, length != 0 ? length : v.size(), 8);
  uint16_t sum = 0;
  for (size_t i = 0; i < 0x48; i += 2) sum += v[i] | v[i + 1] << 8;
  return PutLe(v, 0x32, (uint16_t)(sumError - sum), 2), v;
}

Bytes Slot(const char* tag, const Bytes& data) {
  Bytes head = Text(tag) + Bytes(8, 0);
  return PutLe(head, 16, data.size(), 4), PutLe(head, 20, data.size(), 4), head + data;
}

constexpr size_t kChainAt = 0x40, kCodeBehind = 0x20;
Bytes linkedChain;  // the linked driver's chain, which LoadImage fills
// A driver file: code, its chain (record, an empty EC slot, the BIOSIMG slot), then more code.
Bytes Driver(const Bytes& payload) {
  Bytes record = Text("$ISB") + Bytes{0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3, 0xAE, 0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB, 0xB8};
  return Bytes(kChainAt, 'C') + record + Slot("$_KOBALT_EC_IMG_", {}) + Slot("$_KOBALT_BIOSIMG", payload) + Bytes(kCodeBehind, 'D');
}
constexpr size_t kPayloadAt = kChainAt + 20 + 24 + 24;

// The launcher's head as the packing step makes it, with the driver behind it.
Bytes Launcher(const Bytes& driver, int64_t size = -1, int64_t capacity = -1) {
  Bytes head(kLauncherDriverOffset, 0);
  std::memcpy(head.data() + kLauncherImageGuidOffset, &kLoadedImageProtocolGuid, 16);
  std::memcpy(head.data() + kLauncherDirectoryGuidOffset, &kFunctionDirectoryProtocolGuid, 16);
  std::memcpy(head.data() + kLauncherSlotTagOffset, "$_KOBALT_DRV_IMG", 16);
  PutLe(head, kLauncherSlotCapacityOffset, capacity < 0 ? driver.size() : capacity, 4);
  PutLe(head, kLauncherSlotSizeOffset, size < 0 ? driver.size() : size, 4);
  return head + driver;
}

// What the recording driver does and saw.
struct Behaviour {
  EFI_STATUS entry = EFI_SUCCESS;
  bool directory = true, dropLoadedImage = false, dropImageBase = false, main = true, poolFull = false;
  EFI_STATUS unload = EFI_SUCCESS;
} behaviour;
std::vector<std::string> calls;
Bytes chainAtMain, loadImageBuffer;
decltype(EFI_BOOT_SERVICES::LoadImage) emuLoadImage = nullptr;
decltype(EFI_BOOT_SERVICES::AllocatePool) emuAllocatePool = nullptr;

VOID* EFIAPI Lookup(const CHAR16* name) {
  static const std::pair<std::u16string, VOID*> functions[] = {
      {u"UefiFlashMain", (VOID*)+[]() -> Bool { return chainAtMain = linkedChain, calls.push_back("UefiFlashMain"), behaviour.main; }},
      {u"SMI_ApHookPoint", (VOID*)+[](UINT32 point) -> Bool { return calls.push_back("Hook " + std::to_string(point)), true; }},
      {u"FuncOblis_16h", (VOID*)+[]() -> Bool { return calls.push_back("FuncOblis_16h"), true; }},
  };
  for (const auto& [known, function] : functions)
    if (known == name) return function;
  return nullptr;
}
FunctionDirectoryProtocol directory = {Lookup};

EFI_STATUS EFIAPI DriverEntry(EFI_HANDLE image, EFI_SYSTEM_TABLE* system) {
  VOID* loaded = nullptr;
  system->BootServices->HandleProtocol(image, &kLoadedImageProtocolGuid, &loaded);
  static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(loaded)->Unload = [](EFI_HANDLE) { return calls.push_back("unloaded"), behaviour.unload; };
  if (behaviour.directory)
    system->BootServices->InstallProtocolInterface(&image, &kFunctionDirectoryProtocolGuid, EFI_NATIVE_INTERFACE, &directory);
  if (behaviour.dropLoadedImage) system->BootServices->UninstallProtocolInterface(image, &kLoadedImageProtocolGuid, loaded);
  if (behaviour.dropImageBase) static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(loaded)->ImageBase = nullptr;
  return behaviour.entry;
}

struct Outcome { EFI_STATUS status; std::string console; size_t leftBlocks; };
// The main run on a launcher file; the linked driver's chain is as long as the file's.
Outcome RunLauncher(Bytes image) {
  emu::Environment environment(emu::Options{{{"/tmp", emu::VolumeKind::Usb}}, 0, "", false, nullptr});
  calls.clear(), chainAtMain.clear(), loadImageBuffer.clear();
  size_t around = kLauncherDriverOffset + kChainAt + kCodeBehind;
  linkedChain.assign(image.size() > around ? image.size() - around : 0, 0);
  environment.RegisterLinkedImage(u"kobalt.efi", DriverEntry, linkedChain.data(), linkedChain.size());
  EFI_BOOT_SERVICES* services = environment.SystemTable()->BootServices;
  emuLoadImage = services->LoadImage, emuAllocatePool = services->AllocatePool;
  services->AllocatePool = [](EFI_MEMORY_TYPE type, UINTN size, VOID** out) {
    return behaviour.poolFull ? EFI_OUT_OF_RESOURCES : emuAllocatePool(type, size, out);
  };
  services->LoadImage = [](BOOLEAN policy, EFI_HANDLE parent, EFI_DEVICE_PATH_PROTOCOL* path, VOID* source, UINTN size, EFI_HANDLE* out) {
    loadImageBuffer.assign((const uint8_t*)source, (const uint8_t*)source + size);
    return emuLoadImage(policy, parent, path, source, size, out);
  };
  EFI_HANDLE self = environment.CreateImageHandle(u"kobaltApp.efi", {});
  size_t blocks = environment.LiveBlocks().size();
  EFI_STATUS status = KobaltAppMain(self, environment.SystemTable(), {image.data(), (UINT32)image.size()});
  return {status, environment.ConsoleTranscript(), environment.LiveBlocks().size() - blocks};
}

TEST(Launcher, EachFailurePrintsItsLinesAndReturnsItsStatus) {
  const std::vector<std::string> closing = {"UefiFlashMain", "Hook 0", "FuncOblis_16h", "unloaded"};
  const std::string unloadNull = "UnloadImage() Failed! Invalid Parameter\r\n", failed = "Error: Update BIOS Failed!\r\n";
  Bytes driver = Driver(Volume({File(kOther)})), hiding = Driver(Volume({File(kHidden)}));
  struct Row { const char* what; Bytes image; Behaviour behaviour; std::string console; EFI_STATUS status; std::vector<std::string> calls; } rows[] = {
      {"empty slot", Launcher(driver, 0, driver.size()), {}, "Driver not in buffer\r\n" + unloadNull, EFI_INVALID_PARAMETER, {}},
      {"slot head cut off", Bytes(kLauncherDriverOffset - 1, 0), {}, "Driver not in buffer\r\n" + unloadNull, EFI_INVALID_PARAMETER, {}},
      {"size past the capacity", Launcher(driver, driver.size(), driver.size() - 1), {}, "Load driver from buffer failed!\r\n" + unloadNull, EFI_INVALID_PARAMETER, {}},
      {"size past the file", Launcher(driver, driver.size() + 1, driver.size() + 1), {}, "Load driver from buffer failed!\r\n" + unloadNull, EFI_INVALID_PARAMETER, {}},
      {"no pool for the copy", Launcher(driver), {.poolFull = true}, "Load driver from buffer failed!\r\n" + unloadNull, EFI_INVALID_PARAMETER, {}},
      {"hidden volume past the driver", Launcher(Driver(Volume({File(kHidden)}, kOther, 0x10000))), {}, "Load driver from buffer failed!\r\n" + unloadNull, EFI_INVALID_PARAMETER, {}},
      {"no slot chain in the driver", Launcher(Bytes(0x100, 'C')), {}, "LoadImage() failed! Load Error\r\n" + unloadNull, EFI_INVALID_PARAMETER, {}},
      {"driver entry fails", Launcher(driver), {.entry = EFI_ABORTED}, "StartImage() failed! Aborted\r\n" + failed, EFI_UNSUPPORTED, {"unloaded"}},
      {"no loaded image", Launcher(driver), {.dropLoadedImage = true}, "StartImage() failed! Unsupported\r\n" + failed, EFI_UNSUPPORTED, {"unloaded"}},
      {"no directory", Launcher(driver), {.directory = false}, failed, EFI_UNSUPPORTED, {"unloaded"}},
      {"hidden volume has no place to go back to", Launcher(hiding), {.dropImageBase = true}, failed, EFI_UNSUPPORTED, {"unloaded"}},
      {"update failed", Launcher(driver), {.main = false}, failed, EFI_UNSUPPORTED, closing},
      {"update done", Launcher(driver), {}, "", EFI_SUCCESS, closing},
      {"unload fails after the update", Launcher(driver), {.unload = EFI_PROTOCOL_ERROR}, "UnloadImage() Failed! Protocol Error\r\n", EFI_PROTOCOL_ERROR, closing},
      {"unload fails with a status without a name", Launcher(driver), {.main = false, .unload = EfiError(25)},
       "UnloadImage() Failed! " + std::string(sizeof(EFI_STATUS) == 8 ? "8000000000000019" : "80000019") + "\r\n", EfiError(25), closing},
  };
  for (const Row& row : rows) {
    behaviour = row.behaviour;
    Outcome run = RunLauncher(row.image);
    EXPECT_EQ(run.console, row.console) << row.what;
    EXPECT_EQ(run.status, row.status) << row.what;
    EXPECT_EQ(calls, row.calls) << row.what;
    EXPECT_EQ(run.leftBlocks, 0u) << row.what;
  }
  behaviour = {};
}

TEST(Launcher, FindHiddenVolumeWalksVolumesAndFilesAsTheFirmwareLaysThemOut) {
  const Bytes found = Volume({File(kOther), File(kHidden)});
  const Bytes variableStore = Volume({File(kHidden)}, kVariableStore), vss = Volume({Text("$VSS") + Bytes(4, 0), File(kHidden)});
  const uint32_t foundLength = (uint32_t)found.size();
  struct Row { const char* what; Bytes data; bool found; uint32_t offset, length; } rows[] = {
      {"found in the first volume", found, true, 0, foundLength},
      {"variable store passed over", variableStore + found, true, (uint32_t)variableStore.size(), foundLength},
      {"files behind $VSS are none", vss + found, true, (uint32_t)vss.size(), foundLength},
      {"gap walked in 16-byte steps", Bytes(0x30, 0) + found, true, 0x30, foundLength},
      {"gap off the 16-byte steps", Bytes(0x28, 0) + found, false, 0, 0},
      {"volume header sum wrong", Volume({File(kHidden)}, kOther, 0, 1), false, 0, 0},
      {"length shorter than a header", Volume({File(kHidden)}, kOther, 0x40), false, 0, 0},
      {"pad file passed", Volume({File(kOther, 0x30, 0xF0), File(kHidden)}), true, 0, 0xA8},
      {"pad file of the hidden name", Volume({File(kHidden, 0x30, 0xF0)}), false, 0, 0},
      {"large file's size in its u32", Volume({File(kOther, 0x40, 0x07, true), File(kHidden)}), true, 0, 0xB8},
      {"large file's u32 outside the volume", Volume({File(kOther, 0x40, 0x07, true), File(kHidden)}, kOther, 0x48 + 0x1A), false, 0, 0},
      {"bad file header sum ends the walk", Volume({File(kOther, 0x30, 0x07, false, 1), File(kHidden)}), false, 0, 0},
      {"file named all FF ends the walk", Volume({File(Bytes(16, 0xFF).data()), File(kHidden)}), false, 0, 0},
      {"next header outside the volume", Volume({File(kOther), File(kHidden)}, kOther, 0x48 + 0x30 + 0x17), false, 0, 0},
      {"next header just inside the volume", Volume({File(kOther), File(kHidden)}, kOther, 0x48 + 0x30 + 0x18), true, 0, 0x90},
      {"volume running past the data", Volume({File(kHidden)}, kOther, 0x1000), true, 0, 0x1000},
  };
  for (const Row& row : rows) {
    UINT32 offset = 0, length = 0;
    bool found = FindHiddenVolume(row.data.data(), (UINT32)row.data.size(), &offset, &length);
    EXPECT_EQ(std::tuple(found, offset, length), std::tuple(row.found, row.offset, row.length)) << row.what;
  }
}

TEST(Launcher, HiddenVolumeIsBlankForLoadImageAndBackBeforeTheUpdate) {
  std::ifstream ovmfFile("/usr/share/OVMF/OVMF32_CODE_4M.secboot.fd", std::ios::binary);
  if (!ovmfFile) GTEST_SKIP() << "the IA32 OVMF image is not installed (package ovmf-ia32)";
  const Bytes ovmf{std::istreambuf_iterator<char>(ovmfFile), {}};
  const Bytes hiddenVolume = Volume({File(kOther), File(kHidden)});
  struct Row { const char* what; Bytes payload; size_t hiddenAt; /* in the payload; 0: nothing hidden */ } rows[] = {
      {"volume behind a gap", Bytes(0x20, 0x5A) + hiddenVolume, 0x20},
      {"real firmware: nothing hidden", ovmf, 0},
      {"real firmware with the volume added", ovmf + hiddenVolume, ovmf.size()},
  };
  behaviour = {};
  for (const Row& row : rows) {
    const Bytes driver = Driver(row.payload);
    Outcome run = RunLauncher(Launcher(driver));
    EXPECT_EQ(run.status, EFI_SUCCESS) << row.what;
    Bytes expected = driver;
    if (row.hiddenAt != 0) std::fill_n(expected.begin() + kPayloadAt + row.hiddenAt, hiddenVolume.size(), 0xFF);
    EXPECT_TRUE(loadImageBuffer == expected) << row.what;
    EXPECT_TRUE(chainAtMain == Bytes(driver.begin() + kChainAt, driver.end() - kCodeBehind)) << row.what;
    EXPECT_EQ(run.leftBlocks, 0u) << row.what;
  }
}

}  // namespace
