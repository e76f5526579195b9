// A small system table for the output tests: pool from malloc, a console that records each call
// in order, a fixed clock and a scripted key source. Installed with SetFirmwareTables; one per
// test process.
#pragma once

#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "KobaltBase.h"

namespace fake {

struct Firmware {
  std::vector<std::string> calls;      // "Out:<text>", "Clear", "Attr:4F", "Cursor:0,6"
  std::vector<std::u16string> output;  // each OutputString, as given
  EFI_STATUS outputStatus = EFI_SUCCESS;
  EFI_TIME clock = {2026, 3, 7, 14, 3, 59, 0, 0, 0, 0, 0};
  std::deque<std::pair<EFI_STATUS, EFI_INPUT_KEY>> keys;
  int readKeyCalls = 0;
  int liveBlocks = 0;

  EFI_SYSTEM_TABLE systemTable{};
  EFI_BOOT_SERVICES bootServices{};
  EFI_RUNTIME_SERVICES runtimeServices{};
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL conOut{};
  EFI_SIMPLE_TEXT_INPUT_PROTOCOL conIn{};

  std::string Transcript() const {
    std::string all;
    for (const auto& text : output)
      for (char16_t c : text) all.push_back(c < 0x100 ? (char)c : '?');
    return all;
  }
};

inline Firmware*& Current() {
  static Firmware* current = nullptr;
  return current;
}

inline std::string Hex2(UINTN v) {
  char text[8];
  std::snprintf(text, sizeof(text), "%02lX", (unsigned long)v);
  return text;
}

inline EFI_STATUS AllocatePool(EFI_MEMORY_TYPE, UINTN size, VOID** buffer) {
  *buffer = std::malloc(size ? size : 1);
  Current()->liveBlocks++;
  return EFI_SUCCESS;
}
inline EFI_STATUS FreePool(VOID* buffer) {
  std::free(buffer);
  Current()->liveBlocks--;
  return EFI_SUCCESS;
}
inline EFI_STATUS OutputString(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, const CHAR16* text) {
  std::u16string copy(text);
  Current()->output.push_back(copy);
  std::string narrow;
  for (char16_t c : copy) narrow.push_back((char)c);
  Current()->calls.push_back("Out:" + narrow);
  return Current()->outputStatus;
}
inline EFI_STATUS ClearScreen(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*) {
  Current()->calls.push_back("Clear");
  return EFI_SUCCESS;
}
inline EFI_STATUS SetAttribute(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN attribute) {
  Current()->calls.push_back("Attr:" + Hex2(attribute));
  return EFI_SUCCESS;
}
inline EFI_STATUS SetCursorPosition(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN column, UINTN row) {
  Current()->calls.push_back("Cursor:" + std::to_string(column) + "," + std::to_string(row));
  return EFI_SUCCESS;
}
inline EFI_STATUS GetTime(EFI_TIME* time, EFI_TIME_CAPABILITIES*) {
  *time = Current()->clock;
  return EFI_SUCCESS;
}
inline EFI_STATUS ReadKeyStroke(EFI_SIMPLE_TEXT_INPUT_PROTOCOL*, EFI_INPUT_KEY* key) {
  Firmware* f = Current();
  f->readKeyCalls++;
  if (f->keys.empty()) {
    std::abort();  // a wait with no key left would never end
  }
  auto [status, value] = f->keys.front();
  f->keys.pop_front();
  if (!EFI_ERROR(status)) *key = value;
  return status;
}

// Installs the tables for the current test; the driver reaches them through gST/gBS/gRT.
inline void Install(Firmware& f) {
  Current() = &f;
  f.bootServices.AllocatePool = AllocatePool;
  f.bootServices.FreePool = FreePool;
  f.runtimeServices.GetTime = GetTime;
  f.conOut.OutputString = OutputString;
  f.conOut.ClearScreen = ClearScreen;
  f.conOut.SetAttribute = SetAttribute;
  f.conOut.SetCursorPosition = SetCursorPosition;
  f.conIn.ReadKeyStroke = ReadKeyStroke;
  f.systemTable.ConOut = &f.conOut;
  f.systemTable.ConIn = &f.conIn;
  f.systemTable.BootServices = &f.bootServices;
  f.systemTable.RuntimeServices = &f.runtimeServices;
  SetFirmwareTables(nullptr, &f.systemTable);
}

}  // namespace fake
