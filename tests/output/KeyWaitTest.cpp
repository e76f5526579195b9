// The key wait and the pause after a flash: hook points 5 and 6 around the poll, the key's
// character as the result, and the prompt of the pause.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "LogHarness.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

namespace {

// Hook points and key reads in the order they happen.
std::vector<std::string> events;
std::deque<std::pair<EFI_STATUS, EFI_INPUT_KEY>> keys;
EFI_SIMPLE_TEXT_INPUT_PROTOCOL scriptedInput;

EFI_STATUS EFIAPI ReadScriptedKey(EFI_SIMPLE_TEXT_INPUT_PROTOCOL*, EFI_INPUT_KEY* key) {
  events.push_back("read");
  if (keys.empty()) std::abort();
  auto [status, value] = keys.front();
  keys.pop_front();
  if (!EFI_ERROR(status)) *key = value;
  return status;
}

// The ACPI tables a channel set-up walks, at fixed addresses: RSDP, an RSDT with one entry, and
// a FADT whose SMI_CMD names port 0xB2. Any other address reads as zeros, so "$OBLIS" is absent.
std::map<uint32_t, std::vector<uint8_t>> AcpiMemory() {
  std::vector<uint8_t> rsdp(20, 0), rsdt(40, 0), fadt(116, 0);
  std::memcpy(rsdp.data(), "RSD PTR ", 8);
  rsdp[16] = 0x00, rsdp[17] = 0x01, rsdp[18] = 0x0E;  // RSDT at 0xE0100
  std::memcpy(rsdt.data(), "RSDT", 4);
  rsdt[4] = 40;
  rsdt[36] = 0x00, rsdt[37] = 0x02, rsdt[38] = 0x0E;  // FADT at 0xE0200
  std::memcpy(fadt.data(), "FACP", 4);
  fadt[4] = 116;
  fadt[48] = 0xB2;
  return {{0xE0000, rsdp}, {0xE0100, rsdt}, {0xE0200, fadt}};
}

EFI_CONFIGURATION_TABLE acpiEntry = {kAcpi20TableGuid, reinterpret_cast<VOID*>(uintptr_t{0xE0000})};

// A firmware that answers every hook point with success and records which point it was. The
// channel is set up first, as Initialize does in a run: without a command port no SMI goes out.
void InstallHookRecorder(log_test::LogVolume& volume) {
  static const std::map<uint32_t, std::vector<uint8_t>> memory = AcpiMemory();
  emu::PlatformBackend backend;
  backend.smi = [](OblisRegisters& frame) {
    if (((frame.eax >> 8) & 0xFF) == 0x1F) events.push_back("hook " + std::to_string(frame.ecx));
    frame.eax &= 0xFFFF0000u;
  };
  backend.readPhysical = [](uint32_t address, void* out, uint32_t length) {
    std::memset(out, 0, length);
    for (const auto& [base, bytes] : memory) {
      if (address >= base && address + length <= base + bytes.size()) {
        std::memcpy(out, bytes.data() + (address - base), length);
      }
    }
    return true;
  };
  emu::SetPlatformBackend(backend);
  EFI_SYSTEM_TABLE* systemTable = volume.Environment().SystemTable();
  systemTable->ConfigurationTable = &acpiEntry;
  systemTable->NumberOfTableEntries = 1;
  ASSERT_TRUE(InitialSmi());
  scriptedInput.ReadKeyStroke = ReadScriptedKey;
  systemTable->ConIn = &scriptedInput;
}

TEST(KeyWait, PollsUntilAKeyBetweenHookPointsFiveAndSix) {
  struct Row {
    std::vector<std::pair<EFI_STATUS, EFI_INPUT_KEY>> script;
    CHAR16 expected;
    std::vector<std::string> expectedEvents;
  } rows[] = {
      {{{EFI_NOT_READY, {}}, {EFI_NOT_READY, {}}, {EFI_SUCCESS, {0, u'y'}}},
       u'y',
       {"hook 5", "read", "read", "read", "hook 6"}},
      {{{EFI_SUCCESS, {0x0B, 0}}}, 0, {"hook 5", "read", "hook 6"}},  // a function key: character 0
      {{{EFI_NOT_READY, {}}, {EFI_DEVICE_ERROR, {0, u'z'}}}, 0, {"hook 5", "read", "read", "hook 6"}},
  };
  for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); i++) {
    const Row& row = rows[i];
    int exitCode = RunIsolated([&] {
      log_test::LogVolume volume;
      InstallHookRecorder(volume);
      keys.assign(row.script.begin(), row.script.end());
      EXPECT_EQ(WaitKey(), row.expected);
      EXPECT_EQ(events, row.expectedEvents);
    });
    EXPECT_EQ(exitCode, 0) << "row " << i;
  }
}

TEST(KeyWait, PauseAfterFlashShowsThePromptAndWaits) {
  log_test::LogVolume volume;
  InstallHookRecorder(volume);
  const_cast<FlashSettings*>(Settings())->flashComplete.pause = true;
  keys.push_back({EFI_SUCCESS, {0, u'\r'}});
  FlashCompletePause();
  EXPECT_EQ(volume.Environment().ConsoleTranscript(), "\r\n                           Press any key to continue... ");
  std::vector<std::string> expected = {"hook 5", "read", "hook 6"};
  EXPECT_EQ(events, expected);
}

}  // namespace
