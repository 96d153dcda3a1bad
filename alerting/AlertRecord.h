// One distinct alert text: what was delivered of it and what waits.
#pragma once

#include "include/VelmoraPlatform.h"

#include <string>

struct AlertRecord {
    DWORD dwLastSent = 0;        // GetTickCount of the last delivery; 0: never delivered
    int nTotal = 0;              // occurrences earlier deliveries counted in
    int nPending = 0;            // occurrences since the last delivery
    int nLevel = -1;             // level of the first occurrence; -1 for a text alert
    int nEvent = -1;             // event code of the first occurrence; -1 for a text alert
    std::string strSource;       // source of the first occurrence
    std::string strRef;          // reference of the first occurrence
    std::string strDescription;  // the whole composed text of the first occurrence
};
