// The row lookup of the shell's command table, shared by dispatch and repeats.
#pragma once

#include "include/Velmora.h"

namespace velmora_core {

// The row whose full or short word equals szWord (ASCII case folded), or the end row
// (null szName).
const ShellCommandEntry* FindShellCommand(const char* szWord);

}  // namespace velmora_core
