// The texts a user hands the driver: platform.ini (settings, [MULTI_FD] rules walked against the
// machine, message texts) and the command line (options, values, -OemCus words, the image name,
// the option text the filters read). Any text ends in a verdict, reads nothing outside its
// buffers and leaves no memory behind.
// Input: a selector byte, then the text; for a command line, words separated by NUL bytes, read as
// 8-bit characters widened to 16 bits.
#include <string>
#include <vector>

#include "DriverFuzzBed.h"
#include "HostSettings.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 1) return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  if ((data[0] & 1) == 0) {
    // Loaded twice: as the settings of a plain run, then with the [MULTI_FD] rules over the first.
    bed.Start(fuzzbed::kSmallMachine, text);
    UINT32 length = static_cast<UINT32>(text.size());
    std::vector<CHAR8> again(text.begin(), text.end());
    again.push_back(0);
    LoadOption(again.data(), &length, true);
    if (InitialSmi() && SMI_IsSupport() && FuncOblis_11h() && IsMultiFdMode()) {
      IsCondi_match();
    }
  } else {
    bed.Start(fuzzbed::kSmallMachine, "");
    std::vector<std::u16string> words = {u"ZAPROM-S.efi", u""};
    for (size_t i = 1; i < size; ++i) {
      if (data[i] == 0) words.emplace_back();
      else words.back().push_back(data[i]);
    }
    std::vector<CHAR16*> arguments;
    for (std::u16string& word : words) arguments.push_back(word.data());
    SetCommandLineArgument(static_cast<UINT32>(arguments.size()), arguments.data());
    ScanDebugOption(static_cast<UINT32>(arguments.size()), arguments.data());
    static CHAR16 imageName[kImageNameCharacters];
    static CHAR16 commandText[kCommandTextCharacters];
    if (ParseCommandLine(imageName, commandText)) ChkFilterArg(commandText);
  }
  bed.Finish();
  return 0;
}
