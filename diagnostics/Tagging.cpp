// Tagging: how many microseconds a piece of work takes from its start to later points.
//
// A host opens a tag with BeginTagging, carries its number along with the work, and calls
// TaggingEvent at each point it wants measured; each call writes one record "TAG <n> +<us>"
// to the default log, always counted from the opening. All state is one table of entries
// that EnableTaggingSystems makes once: the entry of a tag is the one at nTag modulo the
// table's size, so there is no search and no list of free entries. A new tag that falls on
// an entry still held by a younger tag is refused (-1); one held for longer than
// kTakeOverMicroseconds takes the entry over, and the old tag is gone without notice.
//
// No lock anywhere. nTagCounter changes by interlocked increment only. The two fields of an
// entry are plain 32-bit values that other threads read and write at the same time; they
// are accessed through atomic_ref so that a race is a stale value and never undefined
// behaviour, and the two writes keep their order: nTag first, then dwMoment.
//
// Without an enabled table, and for tag numbers below 1 (the -1 of a refusal, or a counter
// that has run past the largest int), BeginTagging gives -1, GetTaggingMoment 0 and
// TaggingEvent false: no division by zero and no negative index.
#include "include/Velmora.h"

#include <atomic>
#include <cstdio>
#include <new>
#include <type_traits>

namespace {

// An old tag older than this gives its entry up to a new one. A tag lives from BeginTagging
// to its last TaggingEvent; three seconds is far beyond any piece of work measured this way,
// so an entry still held by then belongs to a tag whose host never finished it.
constexpr DWORD kTakeOverMicroseconds = 3000000;

// An entry whose dwMoment is 0 is empty (or was given up).
constexpr int kNoTag = -1;
constexpr DWORD kNoMoment = 0;

constexpr size_t kLabelSize = 128;

static_assert(std::is_same_v<LONG, int>, "nTagCounter is incremented as a LONG");

int LoadTag(_tagTagEntry& entry) {
    return std::atomic_ref<int>(entry.nTag).load(std::memory_order_acquire);
}
DWORD LoadMoment(_tagTagEntry& entry) {
    return std::atomic_ref<DWORD>(entry.dwMoment).load(std::memory_order_acquire);
}
void StoreTag(_tagTagEntry& entry, int nTag) {
    std::atomic_ref<int>(entry.nTag).store(nTag, std::memory_order_release);
}
void StoreMoment(_tagTagEntry& entry, DWORD dwMoment) {
    std::atomic_ref<DWORD>(entry.dwMoment).store(dwMoment, std::memory_order_release);
}

// The entry of a tag number, or null when tagging is off or the number is no tag.
_tagTagEntry* EntryOf(CVelmora& service, int nTag) {
    _tagTagEntry* pTable =
        std::atomic_ref<_tagTagEntry*>(service.pTagTable).load(std::memory_order_acquire);
    int nSize = service.nTagTableSize;
    if (pTable == nullptr || nSize < 1 || nTag < 1) return nullptr;
    return &pTable[nTag % nSize];
}

// The opening moment of a new tag. A moment of 0 marks an empty entry, so the one reading
// of the wrapping clock that is exactly 0 is kept as 1: a microsecond off, once in 71
// minutes, rather than a tag that can't be used.
DWORD OpeningMoment() {
    DWORD dwNow = GetTickInMicroSeconds();
    return dwNow != kNoMoment ? dwNow : 1;
}

}  // namespace

// Tagging stays off for a size below 1: a table without entries could hold no tag. A
// second call keeps the first table and its size, whatever its argument: tags open in the
// first table would otherwise lose their entries. The host calls this before the threads
// that tag run; the table is published last, so that whoever sees it sees it filled. A table
// that can't be allocated leaves tagging off rather than throwing into the host.
void CVelmora::EnableTaggingSystems(int nEntries) {
    if (pTagTable != nullptr) return;
    if (nEntries < 1) return;
    // Allocated with new[]: the destructor of CVelmora frees it with delete[].
    _tagTagEntry* pTable = new (std::nothrow) _tagTagEntry[size_t(nEntries)];
    if (pTable == nullptr) return;
    for (int i = 0; i < nEntries; ++i) {
        pTable[i].nTag = kNoTag;
        pTable[i].dwMoment = kNoMoment;
    }
    nTagTableSize = nEntries;
    std::atomic_ref<_tagTagEntry*>(pTagTable).store(pTable, std::memory_order_release);
}

bool CVelmora::IsTaggingSystemEnabled() {
    return std::atomic_ref<_tagTagEntry*>(pTagTable).load(std::memory_order_acquire) != nullptr;
}

// The new tag's number, or -1 when its entry is held by a tag younger than the take-over
// age. A refused number is used up: the counter is not put back. With tagging off no number
// is taken, so the first tag after EnableTaggingSystems is 1.
int CVelmora::BeginTagging(const char*) {
    if (!IsTaggingSystemEnabled()) return -1;
    int nTag = InterlockedIncrement(&nTagCounter);
    _tagTagEntry* pEntry = EntryOf(*this, nTag);
    if (pEntry == nullptr) return -1;  // the counter has run past the largest int

    if (LoadTag(*pEntry) != kNoTag || LoadMoment(*pEntry) != kNoMoment) {
        // Held: the old tag gives the entry up once it is old enough. Differences of the
        // wrapping clock are taken in unsigned 32-bit arithmetic.
        DWORD dwAge = GetTickInMicroSeconds() - LoadMoment(*pEntry);
        if (dwAge > kTakeOverMicroseconds) StoreMoment(*pEntry, kNoMoment);
    }
    if (LoadMoment(*pEntry) != kNoMoment) return -1;

    StoreTag(*pEntry, nTag);
    StoreMoment(*pEntry, OpeningMoment());
    return nTag;
}

// The opening moment of a tag that still holds its entry, else 0.
DWORD CVelmora::GetTaggingMoment(int nTag) {
    _tagTagEntry* pEntry = EntryOf(*this, nTag);
    if (pEntry == nullptr || LoadTag(*pEntry) != nTag) return 0;
    return LoadMoment(*pEntry);
}

// One record "TAG <n> +<microseconds since the opening>" with szText as its message; with
// bFinish the tag is closed. False, and nothing written, for a tag that doesn't hold its
// entry. Without a default log nothing is written and the rest goes on as usual; a null
// szText writes nothing either (the log drops it).
bool CVelmora::TaggingEvent(int nTag, const char* szText, bool bFinish) {
    _tagTagEntry* pEntry = EntryOf(*this, nTag);
    if (pEntry == nullptr || LoadTag(*pEntry) != nTag) return false;
    DWORD dwMoment = LoadMoment(*pEntry);
    if (dwMoment == kNoMoment) return false;

    DWORD dwElapsed = GetTickInMicroSeconds() - dwMoment;
    char szLabel[kLabelSize];
    snprintf(szLabel, sizeof(szLabel), "TAG %d +%d", nTag, int(dwElapsed));
    if (CQuorelLog* pLog = globalDefaultLog) pLog->Log(szLabel, szText);

    if (bFinish) {
        StoreTag(*pEntry, kNoTag);
        StoreMoment(*pEntry, kNoMoment);
    }
    return true;
}
