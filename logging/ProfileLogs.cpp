// Profile logs: where one thread loses its time.
//
// A log carries up to two profile logs, each bound to one thread. Every record that the
// bound thread writes into the carrier is repeated in its profile log, behind a row of
// "Bottle Neck" lines, one for each unit of time since the thread's previous record when
// that pause is two units or longer. Read top to bottom, a profile log is a bar chart of
// the thread's delays; event lines cut it into the sections being measured.
//
// Nothing here takes a lock: the step runs inside Log, on the hot path of the whole
// library. The slot fields are public and plain, so they are read and written through
// atomic references: a slot is filled in the order log, thread, count, and the step reads
// the thread before the log, so that the profiled thread never finds its id without the
// log behind it. A slot is freed log first; a host must not detach a thread's profile
// while that thread is still writing to the carrier.
#include "logging/ProfileLogs.h"

#include <atomic>
#include <cstdio>
#include <new>

namespace {

constexpr int kSlots = int(sizeof(CQuorelLog::dwProfileThread) / sizeof(DWORD));
static_assert(kSlots == 2);
static_assert(sizeof(CQuorelLog::pProfileLog) / sizeof(CQuorelLog*) == kSlots);
static_assert(sizeof(CQuorelLog::dwProfileLastTick) / sizeof(DWORD) == kSlots);

// The fields live in a class whose layout hosts rely on, so they can't become atomics;
// atomic references over them need nothing beyond their natural alignment.
static_assert(std::atomic_ref<DWORD>::required_alignment <= alignof(DWORD));
static_assert(std::atomic_ref<CQuorelLog*>::required_alignment <= alignof(CQuorelLog*));
static_assert(std::atomic_ref<int>::required_alignment <= alignof(int));

// A direct carrier measures its profiles in this unit whatever it was given; the unit of a
// log-client carrier is its nBottleNeckUnit, which AttachProfile sets from 1 to 249.
constexpr DWORD kDirectUnitMS = 25;
constexpr int kSmallestUnitMS = 1;
constexpr int kLargestUnitMS = 249;

// A pause of fewer units than this writes no marks at all.
constexpr DWORD kFewestMarks = 2;

// One line for each unit of a pause.
constexpr char kBottleNeckMark[] = "******************  Bottle Neck  *******************";
static_assert(sizeof(kBottleNeckMark) == 18 + 15 + 19 + 1);

// The start of a measured event, with its code; it is formatted into kEventStartSize bytes
// and written through the one-argument Log.
constexpr char kEventStartFormat[] =
    "\r\n\r\n-------------------------    Profiling Event Code[%d]   "
    "-----------------------\r\n";
static_assert(sizeof(kEventStartFormat) == 4 + 25 + 4 + 24 + 3 + 23 + 2 + 1);
constexpr size_t kEventStartSize = 256;

// The end of a measured event.
constexpr char kEventEnd[] =
    "\r\n+++++++++++++++++++++++++++++++  End   ++++++++++++++++++++++++++++++++++++";
static_assert(sizeof(kEventEnd) == 2 + 31 + 8 + 36 + 1);

template <class T>
T LoadAcquire(T& field) {
    return std::atomic_ref<T>(field).load(std::memory_order_acquire);
}

template <class T>
void StoreRelease(T& field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

DWORD LoadRelaxed(DWORD& field) {
    return std::atomic_ref<DWORD>(field).load(std::memory_order_relaxed);
}

void StoreRelaxed(DWORD& field, DWORD value) {
    std::atomic_ref<DWORD>(field).store(value, std::memory_order_relaxed);
}

// The first slot, slot 0 before slot 1, bound to dwThread; -1 if there is none. A free slot
// holds the thread 0, so the id 0 matches no slot.
int FindThreadSlot(CQuorelLog* pLog, DWORD dwThread) {
    if (dwThread == 0) return -1;
    for (int i = 0; i < kSlots; ++i)
        if (LoadAcquire(pLog->dwProfileThread[i]) == dwThread) return i;
    return -1;
}

// The unit in which the pauses of a carrier's threads are counted. A unit that isn't
// positive can only come from a host writing the public field directly; it counts as the
// direct unit rather than divide by nothing.
DWORD UnitOf(CQuorelLog* pCarrier) {
    if (pCarrier->bDirectFile) return kDirectUnitMS;
    int nUnit = std::atomic_ref<int>(pCarrier->nBottleNeckUnit).load(std::memory_order_relaxed);
    return nUnit > 0 ? DWORD(nUnit) : kDirectUnitMS;
}

}  // namespace

namespace velmora_logging {

void ProfileStep(CQuorelLog* pCarrier, const char* szPrefix, const char* szMsg) {
    DWORD dwThread = GetCurrentThreadId();
    int nSlot = -1;
    CQuorelLog* pProfile = nullptr;
    for (int i = 0; i < kSlots && nSlot < 0; ++i) {
        if (LoadAcquire(pCarrier->dwProfileThread[i]) != dwThread) continue;
        pProfile = LoadAcquire(pCarrier->pProfileLog[i]);
        if (pProfile != nullptr) nSlot = i;
    }
    if (nSlot < 0) return;

    // Tick differences are unsigned 32-bit: they stay right across the wrap of the count.
    // A slot whose tick was never set (no event started, no record yet) has nothing to
    // measure against: its first record gets no marks, rather than a mark for every unit
    // since the clock began.
    DWORD dwLastTick = LoadRelaxed(pCarrier->dwProfileLastTick[nSlot]);
    DWORD dwGap = dwLastTick == 0 ? 0 : GetTickInMilliSeconds() - dwLastTick;
    DWORD nUnits = dwGap / UnitOf(pCarrier);
    if (nUnits >= kFewestMarks)
        for (DWORD i = 0; i < nUnits; ++i) pProfile->Log(nullptr, kBottleNeckMark);
    pProfile->Log(szPrefix, szMsg);

    // The next pause is measured from here: the time spent on these lines isn't the
    // thread's own delay.
    StoreRelaxed(pCarrier->dwProfileLastTick[nSlot], GetTickInMilliSeconds());
}

}  // namespace velmora_logging

// The profile log is a direct text log of its own, "<application>_<profile>.log" in the log
// folder, written only by the carrier. Its construction rebuilds the process's log folder
// without the log client lock, as this path takes no lock at all: the folder comes out the
// same from the same settings, and hosts attach profiles while no log is being made.
bool CQuorelLog::AttachProfile(const char* szProfile, DWORD dwThread, int nGap) {
    if (szProfile == nullptr || dwThread == 0) return false;
    bool bFree = false;
    for (int i = 0; i < kSlots && !bFree; ++i) bFree = LoadAcquire(pProfileLog[i]) == nullptr;
    if (!bFree) return false;

    CQuorelLog* pProfile = new (std::nothrow) CQuorelLog(szAppName, szProfile, true, true, false);
    if (pProfile == nullptr) return false;

    // The first free slot is claimed by putting the log in it, so that two hosts' threads
    // attaching at once never share a slot; the one that finds no slot left gives up.
    int nSlot = -1;
    for (int i = 0; i < kSlots && nSlot < 0; ++i) {
        CQuorelLog* pExpected = nullptr;
        if (std::atomic_ref<CQuorelLog*>(pProfileLog[i])
                .compare_exchange_strong(pExpected, pProfile, std::memory_order_acq_rel,
                                         std::memory_order_acquire))
            nSlot = i;
    }
    if (nSlot < 0) {
        delete pProfile;  // never opened: there is nothing to close
        return false;
    }

    // A profile file that can't be opened leaves a closed log in the slot, which drops what
    // it is given: profiling never fails the host.
    pProfile->Open();
    StoreRelease(dwProfileThread[nSlot], dwThread);
    std::atomic_ref<int>(nProfileCount).fetch_add(1, std::memory_order_release);

    // One unit for the whole carrier: a new value changes it for the other slot too.
    if (nGap >= kSmallestUnitMS && nGap <= kLargestUnitMS)
        std::atomic_ref<int>(nBottleNeckUnit).store(nGap, std::memory_order_relaxed);
    return true;
}

// Ends the thread's first profile log as Close ends a private log: its "SHUTDOWN" banner,
// its file closed, the object freed. The slot is free for the next AttachProfile.
void CQuorelLog::DetachProfile(DWORD dwThread) {
    int nSlot = FindThreadSlot(this, dwThread);
    if (nSlot < 0) return;
    CQuorelLog* pProfile = LoadAcquire(pProfileLog[nSlot]);
    if (pProfile != nullptr) pProfile->Close();
    StoreRelease(pProfileLog[nSlot], static_cast<CQuorelLog*>(nullptr));
    StoreRelease(dwProfileThread[nSlot], DWORD(0));
    std::atomic_ref<int>(nProfileCount).fetch_sub(1, std::memory_order_release);
}

// Opens a measured section: the thread's pause counts from here, so the event starts
// without marks.
void CQuorelLog::StartEventProfiling(int nEvent, int dwThread) {
    int nSlot = FindThreadSlot(this, DWORD(dwThread));
    if (nSlot < 0) return;
    CQuorelLog* pProfile = LoadAcquire(pProfileLog[nSlot]);
    StoreRelaxed(dwProfileLastTick[nSlot], GetTickInMilliSeconds());
    if (pProfile == nullptr) return;
    char szText[kEventStartSize];
    snprintf(szText, sizeof(szText), kEventStartFormat, nEvent);
    szText[sizeof(szText) - 1] = '\0';
    pProfile->Log(szText);
}

// Closes a measured section. The thread's tick stays: a pause after the event shows as
// marks in front of its next record.
void CQuorelLog::EndEventProfiling(int dwThread) {
    int nSlot = FindThreadSlot(this, DWORD(dwThread));
    if (nSlot < 0) return;
    CQuorelLog* pProfile = LoadAcquire(pProfileLog[nSlot]);
    if (pProfile != nullptr) pProfile->Log(nullptr, kEventEnd);
}
