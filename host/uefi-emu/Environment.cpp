// Builds the system table of the emulated environment and owns its life: the clock that only
// Stall advances, ResetSystem, and the text helpers the other pieces share. Memory, console,
// handles, files, images and variables fill in their own parts of the tables.
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "EmuInternal.h"

namespace emu {
namespace detail {

State* g = nullptr;

std::string ToUtf8(const std::u16string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::u16string FromUtf8(const std::string& text) {
  std::u16string out;
  for (size_t i = 0; i < text.size();) {
    uint8_t b = static_cast<uint8_t>(text[i]);
    uint32_t c = 0xFFFD;
    size_t extra = 0;
    if (b < 0x80) {
      c = b;
    } else if ((b & 0xE0) == 0xC0) {
      c = b & 0x1F, extra = 1;
    } else if ((b & 0xF0) == 0xE0) {
      c = b & 0x0F, extra = 2;
    } else if ((b & 0xF8) == 0xF0) {
      c = b & 0x07, extra = 3;
    }
    ++i;
    for (size_t k = 0; k < extra; ++k, ++i) {
      if (i >= text.size() || (static_cast<uint8_t>(text[i]) & 0xC0) != 0x80) {
        c = 0xFFFD;
        break;
      }
      c = (c << 6) | (static_cast<uint8_t>(text[i]) & 0x3F);
    }
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

// FAT compares long names without regard to case; ASCII and Latin-1 letters are what a tool's
// file names hold.
std::u16string FoldCase(std::u16string text) {
  for (auto& c : text) {
    if ((c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7)) c = static_cast<char16_t>(c - 0x20);
  }
  return text;
}

bool GuidEqual(const EFI_GUID& left, const EFI_GUID& right) { return std::memcmp(&left, &right, sizeof left) == 0; }

std::string GuidText(const EFI_GUID& guid) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", guid.Data1, guid.Data2,
                guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                guid.Data4[6], guid.Data4[7]);
  return text;
}

bool ParseGuid(const std::string& text, EFI_GUID& guid) {
  unsigned d1, d2, d3, b[8];
  if (text.size() != 36) return false;
  if (std::sscanf(text.c_str(), "%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &d1, &d2, &d3, &b[0], &b[1], &b[2], &b[3],
                  &b[4], &b[5], &b[6], &b[7]) != 11)
    return false;
  guid.Data1 = d1;
  guid.Data2 = static_cast<uint16_t>(d2);
  guid.Data3 = static_cast<uint16_t>(d3);
  for (int i = 0; i < 8; ++i) guid.Data4[i] = static_cast<uint8_t>(b[i]);
  return true;
}

namespace {

EFI_TPL EFIAPI RaiseTpl(EFI_TPL) { return 4; }
VOID EFIAPI RestoreTpl(EFI_TPL) {}

EFI_STATUS EFIAPI Stall(UINTN microseconds) {
  g->stalled += microseconds;
  if (g->options.keepStallCalls) g->stallCalls.push_back(microseconds);
  if (g->options.realStall) usleep(static_cast<useconds_t>(microseconds));
  return EFI_SUCCESS;
}

// The clock starts at Options.clockStart and moves only by what the tool stalled, so that a
// run's log is the same every time.
EFI_STATUS EFIAPI GetTime(EFI_TIME* time, EFI_TIME_CAPABILITIES* capabilities) {
  if (time == nullptr) return EFI_INVALID_PARAMETER;
  const EFI_TIME& start = g->options.clockStart;
  struct tm parts {};
  parts.tm_year = start.Year - 1900;
  parts.tm_mon = start.Month - 1;
  parts.tm_mday = start.Day;
  parts.tm_hour = start.Hour;
  parts.tm_min = start.Minute;
  parts.tm_sec = start.Second;
  uint64_t nanoseconds = start.Nanosecond + (g->stalled % 1000000) * 1000;
  time_t seconds = timegm(&parts) + static_cast<time_t>(g->stalled / 1000000) + static_cast<time_t>(nanoseconds / 1000000000);
  gmtime_r(&seconds, &parts);
  *time = start;
  time->Year = static_cast<UINT16>(parts.tm_year + 1900);
  time->Month = static_cast<UINT8>(parts.tm_mon + 1);
  time->Day = static_cast<UINT8>(parts.tm_mday);
  time->Hour = static_cast<UINT8>(parts.tm_hour);
  time->Minute = static_cast<UINT8>(parts.tm_min);
  time->Second = static_cast<UINT8>(parts.tm_sec);
  time->Nanosecond = static_cast<UINT32>(nanoseconds % 1000000000);
  if (capabilities != nullptr) {
    capabilities->Resolution = 1;
    capabilities->Accuracy = 50000000;
    capabilities->SetsToZero = 0;
  }
  return EFI_SUCCESS;
}

VOID EFIAPI ResetSystem(EFI_RESET_TYPE type, EFI_STATUS, UINTN, VOID*) {
  g->resets.push_back(type);
  if (g->resetHandler) g->resetHandler(type);
}

}  // namespace
}  // namespace detail

using namespace detail;

Environment::Environment(const Options& options) {
  if (g != nullptr) {
    std::fprintf(stderr, "zaprom-emu: a second emulated environment in one process\n");
    std::abort();
  }
  g = new State();
  State& s = *g;
  s.options = options;
  s.configurationTables = options.configurationTables;
  // The UEFI Shell names its root directory without a closing backslash, a subfolder as
  // FS0:\EFI.
  s.currentDirectory = u"FS0:";

  s.bootServices.Hdr.Signature = 0x56524553544f4f42ULL;  // "BOOTSERV"
  s.bootServices.Hdr.Revision = (2 << 16) | 70;
  s.bootServices.Hdr.HeaderSize = sizeof(EFI_BOOT_SERVICES);
  s.bootServices.RaiseTPL = RaiseTpl;
  s.bootServices.RestoreTPL = RestoreTpl;
  s.bootServices.Stall = Stall;
  InstallMemoryServices(s.bootServices);
  InstallHandleServices(s.bootServices);
  InstallImageServices(s.bootServices);

  s.runtimeServices.Hdr.Signature = 0x56524553544e5552ULL;  // "RUNTSERV"
  s.runtimeServices.Hdr.Revision = (2 << 16) | 70;
  s.runtimeServices.Hdr.HeaderSize = sizeof(EFI_RUNTIME_SERVICES);
  s.runtimeServices.GetTime = GetTime;
  s.runtimeServices.ResetSystem = ResetSystem;
  InstallVariableServices(s);

  s.systemTable.Hdr.Signature = 0x5453595320494249ULL;  // "IBI SYST"
  s.systemTable.Hdr.Revision = (2 << 16) | 70;
  s.systemTable.Hdr.HeaderSize = sizeof(EFI_SYSTEM_TABLE);
  s.systemTable.FirmwareVendor = s.firmwareVendor.data();
  s.systemTable.FirmwareRevision = 0x00010000;
  s.systemTable.BootServices = &s.bootServices;
  s.systemTable.RuntimeServices = &s.runtimeServices;
  s.systemTable.NumberOfTableEntries = s.configurationTables.size();
  s.systemTable.ConfigurationTable = s.configurationTables.empty() ? nullptr : s.configurationTables.data();

  CreateVolumes(s);
  InstallConsole(s);
  InstallPciRootBridge(s);
  InstallCpuArch(s);
}

Environment::~Environment() {
  FlushConsole();
  ReleaseFiles();
  ReleaseHandles();
  ReleaseAllMemory();
  delete g;
  g = nullptr;
}

EFI_SYSTEM_TABLE* Environment::SystemTable() { return &g->systemTable; }

uint64_t Environment::StalledMicroseconds() const { return g->stalled; }
const std::vector<uint64_t>& Environment::StallCalls() const { return g->stallCalls; }

void Environment::SetResetHandler(std::function<void(EFI_RESET_TYPE)> handler) { g->resetHandler = std::move(handler); }
const std::vector<EFI_RESET_TYPE>& Environment::Resets() const { return g->resets; }
const std::string& Environment::SetupError() const { return g->setupError; }

}  // namespace emu
