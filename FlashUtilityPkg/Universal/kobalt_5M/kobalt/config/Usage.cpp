// The help text (DisplayUsage): the usage rows, the rows the firmware's filter hides, and the
// pager that stops before a screen is full. Which options exist is the command-line reader's.
#include "config/ConfigInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT8 kNoBit = 0x81;
// The banner and its blank lines stand above the first row.
constexpr UINT32 kFirstLine = 4;
constexpr UINT32 kScreenLines = 24;

constexpr CHAR16 kDisplayUsageName[] = u"DisplayUsage";
constexpr CHAR16 kTraceFilterEnabled[] = u"filter() |enable|\r\n";
constexpr CHAR16 kRowFormat[] = u"\r         %s\n";
constexpr CHAR16 kPressKey[] = u"\r\n Press a key to continue";
constexpr CHAR16 kUsageEnd[] = u"\r\n";

struct UsageRow {
  UINT8 byte;
  UINT8 bit;
  UINT8 lines;  // told to the pager, not counted from the text
  const CHAR16* text;
};

constexpr UsageRow kUsageRows[] = {
    {0, kNoBit, 2, u"Usage: ZAPROM-S.exe filename [Option]\r\n"},
    {6, 0, 1, u"-H                This flash utility help."},
    {4, 0, 1, u"-AB               Check battery life percent."},
    {4, 1, 1, u"-AC               Do not check ac plug in."},
    {4, 2, 1, u"-ACB              Check AC plug-in & battery percentage."},
    {0, 0, 1, u"-ALL              Flash all."},
    {0, 1, 1, u"-B                Flash PEI volume."},
    {2, 0, 1, u"-BIOS             Flash BIOS region."},
    {6, 7, 1, u"-DC               Disable comparison in force flash process."},
    {2, 3, 1, u"-DESC             Flash DESC region."},
    {0, kNoBit, 1, u"-DI               Disable ID display."},
    {0, kNoBit, 2,
     u"-E:Offset(Hex),Size(Hex),Address(Hex)\r\n                          Update fix size from file offset to "
     u"physical address."},
    {3, 4, 1, u"-ECBP             Flash EC with BIOS with percentage"},
    {3, 2, 1, u"-ECP              Flash EC with percentage"},
    {1, 4, 14,
     u"-EDT#@:\"VALUE\"    # : The type ID. Value 4 ~ C.\r\n"
     u"                          @ : The data format. Value F, S, W, DW.\r\n"
     u"                               F for file,\r\n"
     u"                               S for string (Unicode string),\r\n"
     u"                               W for word value,\r\n"
     u"                               DW for double word value.\r\n"
     u"                          Example:\r\n"
     u"                              Update type 4 data, the source is file.\r\n"
     u"                              And update type 5 data, the source is string.\r\n"
     u"                                  -edt4f:logo.jpg -edt5s:\"Input string.\"\r\n"
     u"                              Update a type 9 data, the source is WORD.\r\n"
     u"                                  -edt9w:\"0x1234\"\r\n"
     u"                              Update a type C data, the source is DWORD.\r\n"
     u"                                  -edtcdw:\"0x12345678\""},
    {3, 5, 1, u"-EOB              update BIOS only in FD file with EC"},
    {0, 4, 1, u"-FD               Flash DXE."},
    {0, 5, 1, u"-FE               Flash EC."},
    {0, 6, 1, u"-FL               Flash Logo."},
    {0, 2, 1, u"-FM               Flash CPU Microcode."},
    {1, 0, 1, u"-FN               Flash OEM NVS."},
    {0, 7, 1, u"-FP               Flash password."},
    {1, 1, 1, u"-FT:Type          Flash OEM special type."},
    {0, 3, 1, u"-FV               Flash Variable"},
    {6, 2, 1, u"-G                Save current BIOS to file."},
    {2, 1, 1, u"-GbE              Flash GbE region."},
    {4, 3, 1, u"-MC               Skip all platform model check."},
    {2, 2, 1, u"-ME               Flash ME region."},
    {7, 0, 1, u"-N                Do not reboot after flash."},
    {1, 2, 2, u"-PBI:Type(Hex)    Flash BIOS protect region.\r\n                           Type is the protected region type."},
    {2, 4, 1, u"-PDR              Flash Platform Data region."},
    {6, 5, 1, u"-PQ               Query ROM protection MAP in current ROM."},
    {6, 6, 1, u"-PR               Query region MAP in current ROM."},
    {7, 1, 1, u"-R                Reboot after flash."},
    {0, kNoBit, 2,
     u"-RT:Times,Delay   When SMI error, retry how many times and\r\n                           delay how many "
     u"milliseconds between each retry."},
    {7, 2, 1, u"-S                Shutdown after flash."},
    {6, 3, 1, u"-U                Show confirm message."},
    {0, kNoBit, 1, u"-VRT:Times        When verify error, retry how many times."},
};

}  // namespace

VOID DisplayUsage(CHAR16 (*pageKey)()) {
  TraceScope trace(kDisplayUsageName);
  CommandFilter filter;
  Bool filtered = LoadCommandFilter(&filter);
  if (filtered) {
    LogPrint(kLogDetail, kTraceFilterEnabled);
  }
  UINT32 lines = kFirstLine;
  for (const UsageRow& row : kUsageRows) {
    // Under a filter a row without a bit never shows.
    if (filtered && !FilterPermits(&filter, row.byte, row.bit)) {
      continue;
    }
    if (lines + row.lines >= kScreenLines) {
      Print(kPressKey);
      pageKey();
      lines = 0;
    }
    // The long rows do not fit one Print; PrintLong gives the same text in slices.
    PrintLong(kRowFormat, row.text);
    lines += row.lines;
  }
  Print(kUsageEnd);
  FreeCommandFilter(&filter);
}
