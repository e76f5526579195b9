// The query commands: -h, -pq, -priv, -pr, -g, -extrFD, -edt and -pi, of which a run does the
// first that was asked for and only that one. The maps, the ROM read and the package and
// extra-data steps are their own folders' and files' work; this file only chooses.
#include "config/Config.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

// A query ends the run as finished whatever it does; its result is not looked at. The order
// here is not the order in which the run decides that it is a query.
VOID RunQueryCommand(const CHAR16* imageName) {
  const CommandFlags* flags = Flags();
  if (flags->help) {
    DisplayUsage(DialogKey);
  } else if (flags->pq) {
    // A null list shows the kept one, as far as it goes.
    ShowProtectionMapConsole(nullptr, kMapRecordLimit);
  } else if (flags->priv) {
    ShowPrivateMapConsole(nullptr, kMapRecordLimit);
  } else if (flags->pr) {
    GetExternalMaps(nullptr, 0);
    const OblisExternalRecord* list = nullptr;
    UINT32 count = 0;
    GetCurrentExternalList(&list, &count);
    ShowExternalMapConsole(list, count);
  } else if (flags->g) {
    SaveRomToFile(imageName);
  } else if (flags->extrFD) {
    ExtractPackage();
  } else if (IsCommand_edt()) {
    FuncCommand_edt();
  } else if (flags->pi) {
    ShowBvdtMapFile(imageName);
  }
}
