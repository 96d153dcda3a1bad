// The lines of the status file, written by LogFortmatedReport. Private to the library.
#pragma once

#include "include/Velmora.h"

namespace velmora_core {

// The status file step of a formatted report on its block path (a console is plugged in):
// a report of type 2 whose text (without the stamp) holds "Status[" has its pairs of key
// and value written into szStatusFile; any other report, or an empty szStatusFile, writes
// nothing. Never fails: a pair that can't be read ends the step.
void WriteStatusFileLines(Report_Types::DEF nType, const char* szText,
                          const char* szStatusFile);

}  // namespace velmora_core
