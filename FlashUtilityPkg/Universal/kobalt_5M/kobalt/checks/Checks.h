// What the checks folder offers: the gates that can refuse a run before anything is written.
#pragma once

#include "KobaltBase.h"

// Anti-theft gate over function 1Ch.
Bool FuncOblis_1Ch();
Bool AntiTheftMarkerRequired();
// Secure Boot gate.
Bool IsSecureBootSupport();
Bool SecureBootProtectionCheck();
