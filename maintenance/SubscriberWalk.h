// The one walk over the subscribers that every fan-out uses: on the caller's thread, in
// table order (smallest key first), stopping behind the last subscriber counted at the
// start. fnCall returns false to end the walk early.
#pragma once

#include "include/Velmora.h"

namespace velmora_core {

template <class Call>
bool WalkSubscribers(CVelmora& service, Call&& fnCall) {
    int nLeft = service.nSubscribers;
    for (int i = 0; i < 64 && nLeft > 0; ++i) {
        CMaintenanceInf* pSubscriber = service.pSubscribers[i];
        if (!pSubscriber) continue;
        --nLeft;
        if (!fnCall(pSubscriber)) return false;
    }
    return true;
}

}  // namespace velmora_core
