// Placeholders for driver functions that are being built right now: weak, so the real
// definition replaces each one, and loud, so a test that reaches one fails instead of passing.
// This file goes away once the configuration folder is complete.
#include <cstdio>
#include <cstdlib>

#include "config/Config.h"
#include "image/Image.h"

#define PENDING(name)                                   \
  do {                                                  \
    std::fprintf(stderr, "not built yet: %s\n", name); \
    std::abort();                                       \
  } while (0)

__attribute__((weak)) VOID LoadOption(CHAR8*, UINT32*, Bool) { PENDING("LoadOption"); }
__attribute__((weak)) INT32 GetIniInt(const CHAR8*, const CHAR8*, INT32) { PENDING("GetIniInt"); }
__attribute__((weak)) INT32 GetIniHex(const CHAR8*, const CHAR8*, INT32) { PENDING("GetIniHex"); }
__attribute__((weak)) VOID ClearCfg_variable() { PENDING("ClearCfg_variable"); }
__attribute__((weak)) Bool GetCfg_Variable() { PENDING("GetCfg_Variable"); }
__attribute__((weak)) Bool GetCfg_Secure() { PENDING("GetCfg_Secure"); }
__attribute__((weak)) Bool LoadConfiguration(CHAR16*) { PENDING("LoadConfiguration"); }
__attribute__((weak)) Bool ParseCommandLine(CHAR16*, CHAR16*) { PENDING("ParseCommandLine"); }
__attribute__((weak)) VOID DisplayUsage() { PENDING("DisplayUsage"); }
__attribute__((weak)) Bool ChkFilterArg(const CHAR16*) { PENDING("ChkFilterArg"); }
__attribute__((weak)) VOID ChkFilterTblIni() { PENDING("ChkFilterTblIni"); }
__attribute__((weak)) Bool IsMultiFdMode() { PENDING("IsMultiFdMode"); }
__attribute__((weak)) Bool IsCondi_match() { PENDING("IsCondi_match"); }
__attribute__((weak)) VOID GetMatchedImageName(CHAR16*) { PENDING("GetMatchedImageName"); }
__attribute__((weak)) Bool AnalyzeImage(const UINT8*, UINT32) { PENDING("AnalyzeImage"); }
__attribute__((weak)) Bool IsSecureImage(UINT32*) { PENDING("IsSecureImage"); }
__attribute__((weak)) Bool HasDrvSignature() { PENDING("HasDrvSignature"); }
__attribute__((weak)) Bool HasSecureEc(UINT32*) { PENDING("HasSecureEc"); }
__attribute__((weak)) Bool LoadImageConfig(const UINT8*, UINT32) { PENDING("LoadImageConfig"); }
