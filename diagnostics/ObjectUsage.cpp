// The object usage tracker: how often a host's modules allocate and release objects of a
// kind. AllocateObject and ReleaseObject are twins that each count on a record of their own,
// so one kind of object has an allocation record and a release record, and what is still in
// use is the difference of the two counts.
//
// Records live in mapObjectUsages under a text key: "<number>-1-<name>" for allocations,
// "<number>-0-<name>" for releases ("<number>-1" and "<number>-0" without a name). The map
// orders the keys as byte strings, so the key of 10 comes before that of 2, and for one
// number the release record comes before the allocation record; a walk follows that order.
//
// A record is made by the first call for its key and lives until the process ends: nothing
// here removes or frees one, and the destructor of CVelmora drops the map without them. The
// map is the only owner of a record; hosts only ever see copies.
//
// Everything on the map happens under csObjectUsages, the trace line included. A host's
// win32_exception (out of the trace line's transaction engine) leaves the map untouched, is
// reported once the lock has been left by the unwinding, and the operation returns normally.
#include "include/Velmora.h"
#include "reporting/Trace.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace {

// A name of this many characters or more is not counted: it would not fit a record's szName.
constexpr size_t kNameRoom = sizeof(_tagObjTracker::szName);
static_assert(kNameRoom == 64);

// The room of a key: a number and a name below 64 characters always fit.
constexpr size_t kKeySize = 512;

// What distinguishes the twins.
struct Direction {
    bool bAllocate;
    const char* szKeyFormat;      // number, then name
    const char* szBareKeyFormat;  // number alone, for a null name
    const char* szName;           // the name literal of the trace line and of the report
};
constexpr Direction kAllocation{true, "%d-1-%s", "%d-1", "CVelmora::AllocateObject"};
constexpr Direction kRelease{false, "%d-0-%s", "%d-0", "CVelmora::ReleaseObject"};

// Counts one call on the record of its key, making the record on the first call.
void Count(CVelmora& service, const Direction& direction, const char* szName, int nObjectID) {
    // Refused before any lock: a name that long is dropped without a trace or a report.
    if (szName != nullptr && strnlen(szName, kNameRoom) >= kNameRoom) return;

    char szKey[kKeySize];
    if (szName != nullptr)
        snprintf(szKey, sizeof(szKey), direction.szKeyFormat, nObjectID, szName);
    else
        snprintf(szKey, sizeof(szKey), direction.szBareKeyFormat, nObjectID);
    // The map's key type, made before the lock so that the lock covers only the map work.
    const std::string key(szKey);

    try {
        CSmartLock lock(&service.csObjectUsages);
        VELMORA_TRACE(direction.szName);
        // One lookup; an existing key costs no allocation.
        auto found = service.mapObjectUsages.lower_bound(key);
        if (found != service.mapObjectUsages.end() && found->first == key) {
            ++found->second->nCount;
            return;
        }
        _tagObjTracker* pRecord = new _tagObjTracker;
        pRecord->nObjectID = nObjectID;
        if (szName != nullptr)
            memcpy(pRecord->szName, szName, strlen(szName) + 1);  // below 64: checked above
        else
            pRecord->szName[0] = '\0';
        pRecord->bAllocate = direction.bAllocate;
        pRecord->nCount = 1;
        service.mapObjectUsages.emplace_hint(found, key, pRecord);
    } catch (const win32_exception& failure) {
        service.ReportException(direction.szName, failure.what());
    }
}

// The walk compares the fields of a record, not its key: a copy carries no key.
bool SameRecord(const _tagObjTracker& record, const _tagObjTracker& last) {
    return record.bAllocate == last.bAllocate && record.nObjectID == last.nObjectID &&
           strcmp(record.szName, last.szName) == 0;
}

}  // namespace

void CVelmora::AllocateObject(const char* szName, int nObjectID) {
    Count(*this, kAllocation, szName, nObjectID);
}

void CVelmora::ReleaseObject(const char* szName, int nObjectID) {
    Count(*this, kRelease, szName, nObjectID);
}

// The walk: start with null and pass each result back in until the result is null. Every
// result is a new copy made with `new`, and the caller owns it: the caller frees it with
// `delete` (never free() or delete[]), and may do so as soon as it has been passed to the
// next call, since pLast is only read. A copy shows the counts at the moment of its call.
//
// pLast is found by a linear search from the first record for the same direction, number and
// name. A pLast that matches no record ends the walk (null). A null name and an empty name
// under one number are two records that the search can't tell apart: a walk over such a
// pair goes on from the first of them, so hosts use one form of a name for a given number.
_tagObjTracker* CVelmora::GetNextObjectUsages(_tagObjTracker* pLast) {
    _tagObjTracker* pCopy = nullptr;
    try {
        CSmartLock lock(&csObjectUsages);
        VELMORA_TRACE("CVelmora::GetNextObjectUsages");
        auto source = mapObjectUsages.begin();
        if (pLast != nullptr) {
            while (source != mapObjectUsages.end() && !SameRecord(*source->second, *pLast))
                ++source;
            if (source != mapObjectUsages.end()) ++source;  // the entry behind the one found
        }
        if (source != mapObjectUsages.end()) pCopy = new _tagObjTracker(*source->second);
    } catch (const win32_exception& failure) {
        ReportException("CVelmora::GetNextObjectUsages", failure.what());
    }
    return pCopy;
}
