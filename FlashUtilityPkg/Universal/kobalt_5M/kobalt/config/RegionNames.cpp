// The names of the region types of the platform ROM map, as the option traces and the map
// dumps show them. The command line names a type when an option forces it, so the names live
// with the options.
#include "config/ConfigInternal.h"

namespace {

constexpr UINT8 kPrivateRegionType = 0xFE;

constexpr const CHAR16* kRegionNames[] = {
    u"PEI",        u"CPU Microcode", u"Variable", u"DXE",      u"EC",         u"LOGO",
    u"NV Storage", u"FTW Backup",    u"FTW State", u"SMBIOS Log", u"OEM Data", u"GPNV",
    u"DMI FRU",    u"PAL-B",         u"MCA Log",  u"Password", u"OEM NVS",
};

}  // namespace

const CHAR16* RegionTypeName(UINT8 type) {
  if (type <= 0x10) {
    return kRegionNames[type];
  }
  if (type <= 0x14) {
    return u"Reserved";
  }
  if (type == 0x15) {
    return u"Unused";
  }
  if (type == 0x16) {
    return u"Factory Copy";
  }
  if (type == kPrivateRegionType) {
    return u"Private Map";
  }
  return u"Undefined";
}
