// The key wait and the pause after a flash: hook points 5 and 6 around the poll, the key's
// character as the result, and the prompt of the pause.
#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "LogHarness.h"
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

// A firmware that answers every hook point with success and records which point it was.
void InstallHookRecorder(log_test::LogVolume& volume) {
  emu::PlatformBackend backend;
  backend.smi = [](OblisRegisters& frame) {
    if (((frame.eax >> 8) & 0xFF) == 0x1F) events.push_back("hook " + std::to_string(frame.ecx));
    frame.eax &= 0xFFFF0000u;
  };
  emu::SetPlatformBackend(backend);
  scriptedInput.ReadKeyStroke = ReadScriptedKey;
  volume.Environment().SystemTable()->ConIn = &scriptedInput;
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
