// The package reader over any application file: the package status and settings, the image the
// rules choose, a packed file and -extrFD read nothing outside the file and give back all they
// took. Input: the application file.
#include "DriverFuzzBed.h"
#include "image/Image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  bed.Start(fuzzbed::kSmallMachine, "");
  char rules[] = "[MULTI_FD]\nFlag=1\nFD#01=IO,,,,img2.fd\n";
  UINT32 rulesSize = sizeof(rules) - 1;
  LoadOption(rules, &rulesSize, true);
  IsCondi_match();
  if (!SaveBufferToFile(u"PKG.efi", data, static_cast<UINT32>(size))) __builtin_trap();
  CHAR16 program[] = u"PKG", extract[] = u"-extrFD", directory[] = u"out";
  CHAR16* arguments[] = {program, extract, directory};
  SetCommandLineArgument(3, arguments);
  SetApplication(program);
  SetPackageStatus();
  ParseExtrFD(arguments, 3);
  UINT8* image = nullptr;
  if (UINT32 length = 0; LoadPackageFD(&image, &length)) FreePoolAndNull(image);
  GetResourceFile("me.bin");
  ExtractPackage();
  bed.Finish();
  return 0;
}
