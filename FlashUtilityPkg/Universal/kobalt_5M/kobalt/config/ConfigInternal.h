// The config folder's own declarations, shared by its files and its tests; no other folder
// includes it.
#pragma once

#include "config/Config.h"

// Looks a key up in the loaded platform.ini text. False while no text is loaded or the key is
// missing or empty; out always holds a terminated text.
Bool GetIniString(const CHAR8* section, const CHAR8* key, CHAR8* out, UINTN capacity);
INT32 GetIniInt(const CHAR8* section, const CHAR8* key, INT32 defaultValue);
INT32 GetIniHex(const CHAR8* section, const CHAR8* key, INT32 defaultValue);
// The lookup under every getter: value (capacity bytes) gets the key's value, terminated. False
// if the section or key is missing, or the value is empty. A line longer than 1023 characters
// from the key on is cut there.
Bool GetIniRaw(const CHAR8* section, const CHAR8* key, const CHAR8* text, UINT32 size, CHAR8* value,
               UINTN capacity);
Bool IniSectionExists(const CHAR8* section, const CHAR8* text, UINT32 size);
// Whether the working text's section holds piece anywhere, in the lower case of keys: a key that
// starts with piece can only be found where this is true.
Bool IniSectionMentions(const CHAR8* section, const CHAR8* piece);
// The working text of the last LoadOption; null before the first.
const CHAR8* GetIniText();
UINT32 GetIniTextSize();
// Digits after leading blanks; beyond 4294967295 the value is 0xFFFFFFFF.
INT32 ParseDecimal(const CHAR8* text);
// The 8-bit twin of ParseHex: blanks and tabs, one "0x", hex digits up to the first other one.
INT32 ParseHex8(const CHAR8* text);
// Reads every section of the working text into FlashSettings; [MULTI_FD] only withMultiFd.
VOID LoadAllSections(Bool withMultiFd);
// Runs at the end of every load of a settings text.
VOID ChkFilterTblIni();
// One token: true if it is a known option, which is then applied to CommandFlags.
Bool ParseOption(CHAR16* token);
// Compares count characters from the start; -1: the whole text, lengths equal. Without
// caseSensitive only 'A' to 'Z' fold. Never reads past a terminator of either side.
Bool MatchText(Bool caseSensitive, const CHAR16* text, const CHAR16* literal, INT32 count);
// Whether an argument is the option name, given with '-' or '/', in any case.
Bool IsOptionArgument(const CHAR16* argument, const CHAR16* name);
// Copies the word at position (up to separator or end) into token, at most capacity - 1
// characters; position moves behind the separator. False once position reaches the end.
Bool NextToken(const CHAR16* text, CHAR16 separator, UINT16* position, CHAR16* token, UINTN capacity);
// The format test of an extra-data option ("edt4f:logo.jpg"); lower-cases its first six
// characters in place and prints its own warning.
Bool IsValidCommand_edt(CHAR16* text);
// A copy of the kept record whose length field counts the entries only; nothing without one.
VOID GetFilterTable(UINT8** table);
Bool LoadCommandFilter(CommandFilter* filter);
Bool FilterPermits(const CommandFilter* filter, UINT8 byte, UINT8 bit);
VOID FreeCommandFilter(CommandFilter* filter);
// The filter is the one writer of settings outside the loader: it puts forbidden ones back.
FlashSettings* MutableSettings();
// The walk over FD#01 to FD#99 of reader: true when a rule held, its names are then kept.
Bool WalkMultiFdRules(MultiFdRuleReader reader);
// The rule tests. rule is a terminated text of at most kIniTextBytes bytes that IsMatch_IO and
// IsMatch_PCI change in place ('-' becomes ','); position comes back as the offset of the
// first file field.
Bool IsMatch_IO(CHAR8* rule, UINTN* position);
Bool IsMatch_PCI(CHAR8* rule, UINTN* position);
Bool IsMatch_MPCIIO(CHAR8* rule, UINTN* position);
Bool IsMatch_ID(CHAR8* rule, UINTN* position);
Bool IsMatch_MEMORY(CHAR8* rule, UINTN* position);
// One 32-bit configuration register through the PCI root bridge; false without the protocol or
// on an error status.
Bool ReadPciIo(UINT8 bus, UINT8 device, UINT8 function, UINT8 offset, UINT32* data);
// Port input of width 1, 2 or 4 bytes; false for any other width.
Bool CpuIoRead(UINT8 width, UINT16 port, UINT32* data);
// The setters; only the command-line reader calls them.
VOID SetCommandFlag(Bool CommandFlags::*flag);
VOID SetTypeFlag(UINT8 type);
VOID SetCommand_e(UINT32 offset, UINT32 size, UINT32 address);
VOID SetCommand_rt(UINT8 count, UINT32 delay);
VOID SetCommand_vrt(UINT32 count);
// False when the list is full or the text does not fit an entry; nothing is written then.
Bool AddEdtEntry(const CHAR16* text);

// The package's checks of the raw arguments, before the option reader: every user argument must
// stand in the permitted list; -extrFD takes its flag and its directory off the line.
Bool ChkFilterArg_pkg(CHAR16** arguments, UINT32 count);
VOID ParseExtrFD(CHAR16** arguments, UINT32 count);

// The state of each file, put back by ResetConfigState().
VOID ResetPackageArgumentState();
VOID ResetCommandFlagsState();
VOID ResetIniReaderState();
VOID ResetMultiImageState();
VOID ResetOemParameterState();
VOID ResetFilterState();
VOID ReleaseFilterMemory();
VOID ResetSettingsState();
