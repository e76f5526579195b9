// The state that the command line sets, CommandFlags, zero until a command line is parsed. The
// parsing itself belongs to the command-line reader of this folder.
#include "config/Config.h"

namespace {
constinit CommandFlags commandFlags = {};
}  // namespace

const CommandFlags* Flags() { return &commandFlags; }
