// The firmware's command filter: options it refuses on the command line (ChkFilterArg) and the
// settings it puts back after every load (ChkFilterTblIni). The 10h wrapper hands the record
// over (KeepFirmwareFilter); the package's own list of options is checked with the package work.
#include "config/ConfigInternal.h"
#include "output/Output.h"

namespace {

// The record's head: "$CMDFILT" and a u32 that the copy sets to the number of entry bytes.
constexpr UINT32 kFilterCountOffset = 8;
constexpr UINT32 kFilterHeadBytes = 12;

// The record as function 10h left it, its length field holding the whole record's length.
struct FilterState {
  UINT8* record;
  UINT32 length;
};
constinit FilterState gFilter = {};
constexpr UINT8 kHighestBit = 7;

constexpr UINTN kAsciiLineBytes = 512;   // 511 characters and the terminator
constexpr UINTN kFilterTokenBytes = 128;  // 127 characters and the terminator

constexpr CHAR16 kChkFilterArgName[] = u"ChkFilterArg";
constexpr CHAR16 kTraceArgFilterEnabled[] = u"Argument filter enabled\r\n";
constexpr CHAR16 kFilterTableLabel[] = u"===== Filter Table =====\r\n";
constexpr CHAR16 kErrorNotSupported[] = u"Error command: %a (Not supports on current platform)\r\n\r\n";
constexpr CHAR16 kReasonNotSupported[] = u"Not supports on current platform";

constexpr CHAR16 kChkFilterTblIniName[] = u"ChkFilterTblIni";
constexpr CHAR16 kTraceIniFilterEnabled[] = u"INI filter() |enable|\r\n";
constexpr CHAR16 kTraceIniFilterReset[] = u"filter ini %d, %d\r\n";

struct OptionBit {
  const CHAR8* option;  // small letters, as the token looks after folding
  UINT8 byte;
  UINT8 bit;
};

constexpr OptionBit kOptionBits[] = {
    {"-all", 0, 0},   {"-b", 0, 1},     {"-fm", 0, 2},   {"-fv", 0, 3},     {"-fd", 0, 4},      {"-fe", 0, 5},
    {"-fl", 0, 6},    {"-fp", 0, 7},    {"-fn", 1, 0},   {"-ft:", 1, 1},    {"-pbi:", 1, 2},    {"-e:", 1, 3},
    {"-unvs", 1, 5},  {"-ufc", 1, 6},   {"-alp", 1, 7},  {"-bios", 2, 0},   {"-gbe", 2, 1},     {"-me", 2, 2},
    {"-desc", 2, 3},  {"-pdr", 2, 4},   {"-ec", 3, 1},   {"-ecp", 3, 2},    {"-ecb", 3, 3},     {"-ecbp", 3, 4},
    {"-eob", 3, 5},   {"-ab", 4, 0},    {"-ac", 4, 1},   {"-acb", 4, 2},    {"-mc", 4, 3},      {"-mfg", 4, 6},
    {"-skipsbp", 4, 7}, {"-h", 6, 0},   {"-?", 6, 0},    {"-g", 6, 2},      {"-u", 6, 3},       {"-pq", 6, 5},
    {"-pr", 6, 6},    {"-dc", 6, 7},    {"-n", 7, 0},    {"-r", 7, 1},      {"-s", 7, 2},
};

// What a clear bit puts back: the settings' start values.
using SettingsReset = VOID (*)(FlashSettings* settings);

struct SettingsBit {
  UINT8 byte;
  UINT8 bit;
  SettingsReset reset;
};

using Force = decltype(FlashSettings::forceFlash);

// A named [ForceFlash] type and its entry in the type table go together.
template <Bool Force::*named, UINT8 type>
VOID ResetForceType(FlashSettings* settings) {
  settings->forceFlash.*named = false;
  settings->forceFlash.forceTypes[type] = false;
}

// The types with a bit of their own; bit 1.1 clears all the others.
constexpr UINT8 kOwnBitTypes[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x0F, 0x10};

VOID ResetOtherForceTypes(FlashSettings* settings) {
  for (UINTN type = 0; type < kForceTypeCount; type++) {
    Bool own = false;
    for (UINT8 kept : kOwnBitTypes) {
      own = own || kept == type;
    }
    if (!own) {
      settings->forceFlash.forceTypes[type] = false;
    }
  }
}

VOID ResetAll(FlashSettings* s) { s->forceFlash.all = false; }
VOID ResetAlp(FlashSettings* s) { s->forceFlash.alp = false; }
VOID ResetUpdateNvStorage(FlashSettings* s) { s->securityFlashFactoryUpdate.updateNvStorage = false; }
VOID ResetUpdateFactoryCopy(FlashSettings* s) { s->securityFlashFactoryUpdate.updateFactoryCopy = false; }
VOID ResetRegionBios(FlashSettings* s) { s->region.bios = false; }
VOID ResetRegionGbe(FlashSettings* s) { s->region.gbe = false; }
VOID ResetRegionMe(FlashSettings* s) { s->region.me = false; }
VOID ResetRegionDesc(FlashSettings* s) { s->region.desc = false; }
VOID ResetRegionPlatformData(FlashSettings* s) { s->region.platformData = false; }
VOID ResetEcProgressBar(FlashSettings* s) { s->updateEc.progressBar = true; }
VOID ResetSkipSecureBootCheck(FlashSettings* s) { s->engineeringErrorDisable.skipSecureBootProtectionCheck = false; }
VOID ResetBatteryCheck(FlashSettings* s) { s->acAdapter.batteryCheck = 0; }
VOID ResetAcFlag(FlashSettings* s) { s->acAdapter.flag = 1; }
VOID ResetPlatformChecks(FlashSettings* s) {
  s->platformCheck.flag = 3;
  s->platformVersion.flag = 0;
}
VOID ResetVersionChecks(FlashSettings* s) {
  s->biosVersionCheck.flag = 2;
  s->biosVersionCheck.checkByBios = false;
  s->biosVersionFormat.biosVfEnable = false;
}
VOID ResetFlashCompleteAction(FlashSettings* s) { s->flashComplete.action = 2; }
VOID ResetSecureBiosOverride(FlashSettings* s) {
  s->flashSecureBiosOverride.enable = false;
  s->flashSecureBiosOverride.action = 1;
}

// In the order the filter walks them. The three EC rows act each on its own.
constexpr SettingsBit kSettingsBits[] = {
    {0, 0, ResetAll},
    {0, 1, ResetForceType<&Force::bbPei, 0x00>},
    {0, 2, ResetForceType<&Force::cpuMicrocode, 0x01>},
    {0, 3, ResetForceType<&Force::variable, 0x02>},
    {0, 4, ResetForceType<&Force::dxe, 0x03>},
    {0, 5, ResetForceType<&Force::ec, 0x04>},
    {0, 6, ResetForceType<&Force::logo, 0x05>},
    {0, 7, ResetForceType<&Force::password, 0x0F>},
    {1, 0, ResetForceType<&Force::oemNvs, 0x10>},
    {1, 1, ResetOtherForceTypes},
    {1, 5, ResetUpdateNvStorage},
    {1, 6, ResetUpdateFactoryCopy},
    {1, 7, ResetAlp},
    {2, 0, ResetRegionBios},
    {2, 1, ResetRegionGbe},
    {2, 2, ResetRegionMe},
    {2, 3, ResetRegionDesc},
    {2, 4, ResetRegionPlatformData},
    {3, 2, ResetEcProgressBar},
    {3, 3, ResetEcProgressBar},
    {3, 4, ResetEcProgressBar},
    {4, 7, ResetSkipSecureBootCheck},
    {5, 0, ResetBatteryCheck},
    {5, 1, ResetAcFlag},
    {5, 2, ResetPlatformChecks},
    {5, 3, ResetVersionChecks},
    {7, 3, ResetFlashCompleteAction},
    {7, 4, ResetSecureBiosOverride},
};

Bool OptionPermitted(const CommandFilter* filter, const CHAR8* token) {
  for (const OptionBit& row : kOptionBits) {
    UINTN i = 0;
    while (row.option[i] != 0 && row.option[i] == token[i]) {
      i++;
    }
    if (row.option[i] == 0 && token[i] == 0) {
      return FilterPermits(filter, row.byte, row.bit);
    }
  }
  // A token the table does not know is refused as well.
  return false;
}

// The private copy of one token, in the form the table holds: folded, '/' made '-', cut behind ':'.
VOID NormalizeToken(const CHAR8* token, CHAR8* out) {
  UINTN i = 0;
  for (; token[i] != 0 && i + 1 < kFilterTokenBytes; i++) {
    CHAR8 c = token[i];
    out[i] = (c >= 'A' && c <= 'Z') ? (CHAR8)(c - 'A' + 'a') : c;
  }
  out[i] = 0;
  for (UINTN j = 0; out[j] != 0; j++) {
    if (out[j] == '/') {
      out[j] = '-';
      break;
    }
  }
  for (UINTN j = 0; out[j] != 0; j++) {
    if (out[j] == ':') {
      out[j + 1] = 0;
      break;
    }
  }
}

}  // namespace

// The record itself is static in the settings file; it was never a constant, so the filter may
// write it through the reader's pointer.
FlashSettings* MutableSettings() { return const_cast<FlashSettings*>(Settings()); }

VOID KeepFirmwareFilter(UINT8* record, UINT32 length) {
  FreePoolAndNull(gFilter.record);
  gFilter.record = record;
  gFilter.length = record != nullptr && length >= kFilterHeadBytes ? length : 0;
  if (gFilter.length == 0) {
    FreePoolAndNull(gFilter.record);
  }
}

VOID GetFilterTable(UINT8** table) {
  if (table == nullptr || gFilter.record == nullptr) {
    return;
  }
  UINT8* copy = (UINT8*)AllocateZeroPool(gFilter.length);
  if (copy == nullptr) {
    return;
  }
  CopyMem(copy, gFilter.record, gFilter.length);
  // The caller's copy counts the entries only.
  WriteU32(copy + kFilterCountOffset, gFilter.length - kFilterHeadBytes);
  *table = copy;
}

VOID ReleaseFilterMemory() { FreePoolAndNull(gFilter.record); }
VOID ResetFilterState() { gFilter = {}; }

Bool LoadCommandFilter(CommandFilter* filter) {
  filter->record = nullptr;
  filter->count = 0;
  GetFilterTable(&filter->record);
  if (filter->record == nullptr) {
    return false;
  }
  filter->count = ReadU32(filter->record + kFilterCountOffset);
  return true;
}

Bool FilterPermits(const CommandFilter* filter, UINT8 byte, UINT8 bit) {
  if (filter == nullptr || filter->record == nullptr || bit > kHighestBit || byte >= filter->count) {
    return false;
  }
  return (filter->record[kFilterHeadBytes + byte] >> bit) & 1;
}

VOID FreeCommandFilter(CommandFilter* filter) {
  FreePoolAndNull(filter->record);
  filter->count = 0;
}

Bool ChkFilterArg(const CHAR16* commandText) {
  TraceScope trace(kChkFilterArgName);
  CommandFilter filter;
  if (!LoadCommandFilter(&filter)) {
    return true;
  }
  LogPrint(kLogDetail, kTraceArgFilterEnabled);
  HexDumpFramed(kFilterTableLabel, filter.record + kFilterHeadBytes, filter.count);

  CHAR8 line[kAsciiLineBytes];
  UnicodeToAscii(line, sizeof(line), commandText);
  CHAR8 normal[kFilterTokenBytes];
  UINTN at = 0;
  const CHAR8* refused = nullptr;
  while (line[at] != 0) {
    if (line[at] == ' ') {
      at++;
      continue;
    }
    // Cut the token in place; the line is this function's own copy.
    CHAR8* token = line + at;
    while (line[at] != 0 && line[at] != ' ') {
      at++;
    }
    Bool more = line[at] != 0;
    line[at] = 0;
    NormalizeToken(token, normal);
    if (!OptionPermitted(&filter, normal)) {
      refused = token;
      break;
    }
    if (more) {
      at++;
    }
  }
  FreeCommandFilter(&filter);
  if (refused != nullptr) {
    PrintBanner(true);
    Print(kErrorNotSupported, refused);
    return trace.Fail(kReasonNotSupported);
  }
  return true;
}

VOID ChkFilterTblIni() {
  CommandFilter filter;
  if (!LoadCommandFilter(&filter)) {
    return;
  }
  TraceScope trace(kChkFilterTblIniName);
  LogPrint(kLogDetail, kTraceIniFilterEnabled);
  FlashSettings* settings = MutableSettings();
  for (const SettingsBit& row : kSettingsBits) {
    if (FilterPermits(&filter, row.byte, row.bit)) {
      continue;
    }
    LogPrint(kLogDetail, kTraceIniFilterReset, (UINT32)row.byte, (UINT32)row.bit);
    row.reset(settings);
  }
  FreeCommandFilter(&filter);
}
