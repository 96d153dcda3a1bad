// The profile step of the log object, shared by the two halves of the logging subsystem:
// the record path (QuorelLog.cpp) runs it, the profile operations (ProfileLogs.cpp) own it.
#pragma once

#include "include/Velmora.h"

namespace velmora_logging {

// The record of the calling thread, about to be written into pCarrier, also goes into the
// profile log of that thread's slot, behind one "Bottle Neck" line for each unit of time
// since the thread's last record when there are two units or more. A thread without a slot
// writes nothing here. The two-argument Log runs this before its own record, and only
// while the carrier has profile logs (nProfileCount isn't 0).
void ProfileStep(CQuorelLog* pCarrier, const char* szPrefix, const char* szMsg);

}  // namespace velmora_logging
