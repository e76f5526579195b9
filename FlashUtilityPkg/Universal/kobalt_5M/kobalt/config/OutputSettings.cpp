// The settings the output folder obeys, answered from the settings record and the INI text.
// Output sits below config and asks through these instead of reading the record itself.
#include "config/ConfigInternal.h"
#include "output/Output.h"

static_assert(kMessageTextBytes == kIniTextBytes, "a message table value is one INI text field");

INT32 LogFileFlag() { return Settings()->logFile.flag; }
INT32 LogFileLevel() { return Settings()->logFile.level; }
Bool ElapsedTimeShown() { return Settings()->ui.elapse; }

Bool ReadMessageTable(const CHAR8* key, CHAR8* value, UINTN capacity) {
  return GetIniString("MessageStringTable", key, value, capacity);
}
