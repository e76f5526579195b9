// Lookups in the loaded platform.ini text. No text is loaded in this build of the folder yet, so
// every lookup answers "not found" with an empty value; the loader and the reader of the text
// come with the configuration sources.
#include "config/Config.h"

Bool GetIniString(const CHAR8* section, const CHAR8* key, CHAR8* out, UINTN capacity) {
  (void)section;
  (void)key;
  if (out != nullptr && capacity > 0) {
    out[0] = 0;
  }
  return false;
}
